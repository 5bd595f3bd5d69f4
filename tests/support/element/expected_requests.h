#pragma once

#include <string>
#include <vector>

#include "configuration.h"

namespace test {

/// The requests that the commit of `after` over `before` makes of the manager, in their order and as request_probe.cpp
/// writes them. First the interfaces: deletions (the mode is withdrawn, then the port disabled), then the rest (a new
/// port is enabled, then a mode that differs is sent). Then the sources: deletions (with the MAC when the whole
/// interface went, without it otherwise), then the rest. Each in key order.
std::vector<std::string> RequestsOf(const Configuration& before, const Configuration& after);

/// The requests of a full load.
std::vector<std::string> RequestsOfLoad(const Configuration& configuration);

}  // namespace test
