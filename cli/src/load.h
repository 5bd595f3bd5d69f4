#pragma once

#include <string>

#include "ask.h"
#include "progress.h"

namespace cli {

enum class LoadMode { kMerge, kReplace };

/// Commits the configuration of `file` to running in one transaction. `kReplace`: what the file does not name is gone
/// afterwards. Says on standard output what was done, on standard error what went wrong and where in the file.
ExitStatus Load(const Target& target, const std::string& file, LoadMode mode, Progress::Show show);

}  // namespace cli
