#pragma once

#include <cstdint>
#include <string>

namespace cdbd {

/// How a NETCONF session ended. The text is for the log.
struct SessionEnd {
  enum class Reason : uint8_t {
    kFinished,  ///< in good order: by <close-session>, or by the peer between two requests
    kKilled,    ///< by <kill-session>
    kNoHello,   ///< no hello within the time limit
    kBadHello,
    kBadFraming,
    kConnectionLost,  ///< the peer is gone, or its socket failed
  };
  Reason reason = Reason::kFinished;
  std::string text;

  /// Whether RFC 6022 counts it as dropped: neither finished nor killed.
  [[nodiscard]] bool IsDropped() const noexcept { return reason != Reason::kFinished && reason != Reason::kKilled; }
  [[nodiscard]] bool IsHelloFailure() const noexcept {
    return reason == Reason::kNoHello || reason == Reason::kBadHello;
  }
};

}  // namespace cdbd
