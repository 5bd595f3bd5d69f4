/// @file qmmw_internal.h
/// What the other platform libraries share with the middleware; not part of the SDK.
#pragma once

#include <functional>

#include "common/event_loop.h"
#include "qmmw.h"

/// The loop that qmmw_loop_while() runs, for timers, deferred work and descriptors watched for more than reading.
/// Lives as long as the handle; `mw` is not null. Loop thread only.
common::EventLoop& qmmw_event_loop(qmmw_t* mw);

/// Asks `guard` right before every call of the callback that qmmw_fd_register() has, or will have, for `fd`; the call
/// is left out when it says false. It may deregister the descriptor and finish the handle. An empty one removes it.
///
/// For a library whose descriptor is registered by the application: two descriptors of one peer do not become ready
/// at one instant, so whether that peer is gone is asked when it matters.
void qmmw_fd_set_guard(qmmw_t* mw, int fd, std::function<bool()> guard);
