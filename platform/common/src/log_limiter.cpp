#include "common/log_limiter.h"

namespace common {

std::optional<uint64_t> LogLimiter::Admit(std::string_view key, Clock::time_point now) {
  const auto found = keys_.find(key);
  if (found != keys_.end()) {
    Key& known = found->second;
    if (now - known.written < period_) {
      ++known.left_out;
      return std::nullopt;
    }
    const uint64_t left_out = known.left_out;
    known = {.written = now};
    return left_out;
  }
  if (keys_.size() >= max_keys_) {
    std::erase_if(keys_, [&](const auto& entry) { return now - entry.second.written >= period_; });
  }
  if (keys_.size() < max_keys_) keys_.emplace(key, Key{.written = now});
  return 0;
}

std::string LogLimiter::Suffix(uint64_t left_out) {
  return left_out == 0 ? "" : " (" + std::to_string(left_out) + " more like this left out)";
}

}  // namespace common
