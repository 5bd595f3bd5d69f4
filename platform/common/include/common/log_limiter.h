#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace common {

/// Keeps log lines that repeat from filling a disk: of lines with the same key one is written in each period, and it
/// tells how many were left out since the one before. Lines with other keys are not touched. Not thread-safe.
class LogLimiter final {
 public:
  using Clock = std::chrono::steady_clock;

  explicit LogLimiter(Clock::duration period = std::chrono::seconds{10}, size_t max_keys = 256)
      : period_{period}, max_keys_{max_keys} {}

  /// How many lines of this key were left out since the last one, if this one is to be written; else nullopt.
  std::optional<uint64_t> Admit(std::string_view key, Clock::time_point now = Clock::now());

  /// Appended to a line that is written after others were left out: " (12 more like this left out)"; "" for 0.
  static std::string Suffix(uint64_t left_out);

 private:
  struct Key {
    Clock::time_point written;
    uint64_t left_out = 0;
  };
  const Clock::duration period_;
  const size_t max_keys_;
  std::map<std::string, Key, std::less<>> keys_;  ///< at most max_keys_
};

}  // namespace common
