#pragma once

#include <string>

namespace middleware {

/// The name given to qmmw_init(), else the executable's. Any thread.
std::string ProcessName();
void SetProcessName(const std::string& name);

}  // namespace middleware
