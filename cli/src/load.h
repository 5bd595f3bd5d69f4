#pragma once

#include <chrono>
#include <string>

#include "exit_status.h"
#include "progress.h"

namespace cli {

/// How the command line reaches the element.
struct Target {
  std::string socket;      ///< of NETCONF
  std::string models_dir;  ///< the YANG modules
  std::chrono::milliseconds limit{};
};

enum class LoadMode { kMerge, kReplace };

/// Commits the configuration of `file` to running in one transaction. `kReplace`: what the file does not name is gone
/// afterwards. Says on standard output what was done, on standard error what went wrong and where in the file.
ExitStatus Load(const Target& target, const std::string& file, LoadMode mode, Progress::Show show);

}  // namespace cli
