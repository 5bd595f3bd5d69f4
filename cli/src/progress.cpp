#include "progress.h"

#include <unistd.h>

#include <array>

namespace cli {

Progress::Progress(Show show)
    : terminal_{::isatty(STDERR_FILENO) == 1},
      enabled_{show == Show::kAlways || (show == Show::kOnTerminal && terminal_)} {}

void Progress::Say(const std::string& text) {
  if (!enabled_) return;
  last_ = std::chrono::steady_clock::now();
  std::fprintf(stderr, terminal_ ? "\r\033[K%s" : "%s\n", text.c_str());
  std::fflush(stderr);
  dirty_ = terminal_;
}

void Progress::Bytes(const char* doing, size_t done, size_t total) {
  if (!enabled_ || std::chrono::steady_clock::now() - last_ < std::chrono::milliseconds{500}) return;
  std::array<char, 96> text{};
  std::snprintf(text.data(), text.size(), "%s %.1f of %.1f MB", doing, static_cast<double>(done) / 1e6,
                static_cast<double>(total) / 1e6);
  Say(text.data());
}

void Progress::Clear() {
  if (dirty_) std::fputs("\r\033[K", stderr);
  dirty_ = false;
}

}  // namespace cli
