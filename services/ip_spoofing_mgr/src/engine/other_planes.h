#pragma once

#include <functional>
#include <string_view>

#include "common/result.h"
#include "dataplane/dataplane.h"

namespace mgr {

/// Looks for filters that earlier managers have left in force with other dataplanes than `chosen`: they judge every
/// frame too, by a configuration that nobody changes any more. Logs one warning for each such plane, with the number of
/// ports and the place. Gives what ends those that can be ended, to be called when the complete configuration is in
/// force; empty when there is nothing to end, and always with the memory dataplane, which puts nothing in their place.
std::function<common::Status()> OtherPlanes(std::string_view chosen, const DataplaneOptions& options);

}  // namespace mgr
