#pragma once

#include <span>

#include "dataplane/dataplane.h"

namespace mgr {

/// The dataplanes of this build, the best one first; the last one works everywhere.
std::span<const DataplaneKind> DataplaneKinds();

}  // namespace mgr
