#pragma once

#include <string>

#include "output.h"

namespace cli {

/// Shows the running configuration: a line for each allowed source, or the data itself.
ExitStatus ShowConfig(const Target& target, Format format);

/// The table for the <data> of a configuration. A port that lets nothing pass has a line of its own.
std::string ConfigTable(const netconf::XmlElement& data);

}  // namespace cli
