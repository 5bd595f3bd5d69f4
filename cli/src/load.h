#pragma once

#include <optional>
#include <string>

#include "ask.h"
#include "progress.h"

namespace cli {

enum class LoadMode { kMerge, kReplace };

/// Commits the configuration of `file` to running in one transaction. `kReplace` removes what the file does not name.
/// `comment` goes to the journal. Reports on standard output what was done, and on standard error what went wrong and
/// where in the file.
ExitStatus Load(const Target& target, const std::string& file, LoadMode mode, const std::optional<std::string>& comment,
                Progress::Show show);

}  // namespace cli
