/// @file reset.h
/// Every fake as a new process finds it.
#pragma once

namespace fakes {

/// Forgets traces, scripts, configuration, registrations and ids. Objects of the daemon that are still alive keep
/// their handles, which stay valid.
void ResetAll();

}  // namespace fakes
