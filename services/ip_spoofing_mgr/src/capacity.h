#pragma once

#include <cstddef>

#include "common/result.h"

namespace mgr {

/// How many entries the element has room for, from its description file (filter_manager.h), where the daemon reads it
/// too: the resources of the client "ip_spoofing" whose both classifiers are 2, or 24,576 if the IP manager installs
/// the filters. Fails if the file cannot be read, or if the number is not from 1 to `most`.
common::Result<size_t> ElementCapacity(size_t most);

}  // namespace mgr
