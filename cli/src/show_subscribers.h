#pragma once

#include <string>

#include "output.h"

namespace cli {

/// Shows the subscribers to commits and the progress of each.
ExitStatus ShowSubscribers(const Target& target, Format format);

/// The summary line and the table for the <data> with the database's own state.
std::string SubscribersText(const netconf::XmlElement& data);

}  // namespace cli
