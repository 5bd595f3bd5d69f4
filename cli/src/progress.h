#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

namespace cli {

/// Reports the progress of a long command on standard error: on a terminal in one line that is overwritten, otherwise
/// in a line each time, at most two a second. Does nothing if disabled.
class Progress final {
 public:
  enum class Show { kNever, kOnTerminal, kAlways };
  explicit Progress(Show show);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() { Clear(); }

  /// A new phase: shown at once.
  void Say(const std::string& text);
  /// "sending 1.2 of 18.0 MB"; skipped when the last text is younger than half a second.
  void Bytes(const char* doing, size_t done, size_t total);
  /// Removes the line from the terminal.
  void Clear();

 private:
  bool terminal_;
  bool enabled_;
  bool dirty_ = false;
  std::chrono::steady_clock::time_point last_{};
};

}  // namespace cli
