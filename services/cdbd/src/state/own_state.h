#pragma once

#include "ops/core.h"
#include "state/state_reader.h"

namespace cdbd {

/// Adds what the server says of itself by the RFCs: ietf-yang-library (RFC 8525) and ietf-netconf-monitoring (RFC
/// 6022).
void AddOwnState(Core& core, StateReader* reader);

/// The capabilities of every hello (RFC 6241, section 8): those that work, and the modules that a hello has to name.
std::vector<std::string> Capabilities(const Model& model);

}  // namespace cdbd
