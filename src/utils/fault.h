/// @file fault.h
/// Faults: what the daemon reports to the platform beside its log.
///
/// A condition that leaves the daemon useless is fatal; one that concerns a single request or an optional facility is
/// not. The message is a printf format with its arguments, cut to `FAULT_MSG_SIZE` - 1 characters.
#pragma once

#include <cstddef>

#include "qmmw.h"
#include "utils/call_site.h"

namespace ip_spoofing_app {

inline constexpr std::size_t FAULT_MSG_SIZE = 350;  ///< bytes of a fault's message, its NUL included

/// Raises the fault with severity 1 and ends the process with exit status 1. Called through the macros below, which
/// print the backtrace first.
[[noreturn]] void raise_fatal_fault(const CallSite& site, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/// Raises the fault with severity 0: no backtrace, and the caller carries on.
void raise_fault(const CallSite& site, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace ip_spoofing_app

/// Prints a backtrace, then raises a fatal fault of `site`. The message's arguments are evaluated after the backtrace,
/// so `confd_lasterr()` among them tells the state that the fault reports.
#define FATAL_FAULT_AT(site, ...) (qmmw_print_backtrace(), ::ip_spoofing_app::raise_fatal_fault(site, __VA_ARGS__))
#define FATAL_FAULT(...) FATAL_FAULT_AT(CALL_SITE, __VA_ARGS__)
#define NON_FATAL_FAULT(...) ::ip_spoofing_app::raise_fault(CALL_SITE, __VA_ARGS__)
