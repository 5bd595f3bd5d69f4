#pragma once

#include <string>

#include "output.h"

namespace cli {

/// Shows the sources that the element knows and whether they are in force; `interface` "" stands for all interfaces.
ExitStatus ShowAllowedIp(const Target& target, const std::string& interface, Format format);

/// The table for the <data> of the operational list.
std::string AllowedIpTable(const netconf::XmlElement& data);

}  // namespace cli
