#pragma once

#include <ostream>

namespace mgr {

/// The operator's tool `ip-spoofing-ctl`, whole: reads the arguments, asks the manager, writes the answer to `out` and
/// what went wrong to `err`. The exit status: 0, 1 when the manager is down or refuses, other values for wrong
/// arguments.
int RunCtl(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace mgr
