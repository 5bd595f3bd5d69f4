/// @file qmmw_internal.h
/// What the other platform libraries share with the middleware; not part of the SDK.
#pragma once

#include "common/event_loop.h"
#include "qmmw.h"

/// The loop that qmmw_loop_while() runs, for timers, deferred work and descriptors watched for more than reading.
/// Lives as long as the handle; `mw` is not null. Loop thread only.
common::EventLoop& qmmw_event_loop(qmmw_t* mw);
