#pragma once

#include "commit/running_lock.h"
#include "northbound/server.h"
#include "state/state_reader.h"

namespace cdbd {

/// Adds what the RFCs have a server say of itself: ietf-yang-library (RFC 8525, with the part of RFC 7895) and
/// ietf-netconf-monitoring (RFC 6022). All outlive the reader.
void AddOwnState(const Model& model, const NetconfServer& netconf, const RunningLock& lock, StateReader* reader);

/// The capabilities of every hello (RFC 6241, section 8): those that work, and the modules that a hello has to name.
std::vector<std::string> Capabilities(const Model& model);

}  // namespace cdbd
