#pragma once

#include <string>

#include "output.h"

namespace cli {

/// Shows the last commits.
ExitStatus ShowCommits(const Target& target, Format format);

/// The table for the <data> with the journal of commits.
std::string CommitsText(const netconf::XmlElement& data);

}  // namespace cli
