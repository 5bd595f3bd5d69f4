#pragma once

#include "ip_spoofing_mgr_wire/messages.h"

/// The control socket's frames, in the framing of the clients' socket. Payloads are JSON texts.
namespace mgr {

inline constexpr auto kControlRequest =
    static_cast<ip_spoofing_mgr::wire::FrameType>(64);  ///< {"command", "arguments"}
inline constexpr auto kControlPart = static_cast<ip_spoofing_mgr::wire::FrameType>(65);
inline constexpr auto kControlEnd = static_cast<ip_spoofing_mgr::wire::FrameType>(66);  ///< {} or {"error"}

/// Rows of one part, so that a part stays below the largest frame.
inline constexpr size_t kControlRowsPerPart = 2000;

}  // namespace mgr
