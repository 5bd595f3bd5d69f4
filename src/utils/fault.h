/// @file fault.h
/// Faults: what the daemon reports to the platform beside its log.
///
/// A condition that leaves the daemon useless is fatal; one that concerns a single request or an optional facility is
/// not. The message is a printf format with its arguments, cut to `FAULT_MSG_SIZE` - 1 characters.
#pragma once

#include <cstddef>

#include "utils/call_site.h"

namespace ip_spoofing_app {

inline constexpr std::size_t FAULT_MSG_SIZE = 350;  ///< bytes of a fault's message, its NUL included

/// Prints a backtrace, raises the fault with severity 1 and ends the process with exit status 1.
[[noreturn]] void RaiseFatalFault(const CallSite& site, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Raises the fault with severity 0: no backtrace, and the caller carries on.
void RaiseFault(const CallSite& site, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace ip_spoofing_app

#define FATAL_FAULT(...) ::ip_spoofing_app::RaiseFatalFault(CALL_SITE, __VA_ARGS__)
#define NON_FATAL_FAULT(...) ::ip_spoofing_app::RaiseFault(CALL_SITE, __VA_ARGS__)
