#pragma once

#include <optional>
#include <string>

#include "ask.h"
#include "progress.h"

namespace cli {

enum class LoadMode { kMerge, kReplace };

/// Commits the configuration of `file` to running in one transaction. `kReplace`: what the file does not name is gone
/// afterwards. `comment` goes to the journal; nothing: none. Says on standard output what was done, on standard error
/// what went wrong and where in the file.
ExitStatus Load(const Target& target, const std::string& file, LoadMode mode, const std::optional<std::string>& comment,
                Progress::Show show);

}  // namespace cli
