#pragma once

#include <string>

#include "output.h"

namespace cli {

/// Shows who is told of commits and how far each is.
ExitStatus ShowSubscribers(const Target& target, Format format);

/// The summary line and the table for the <data> with the database's own state.
std::string SubscribersText(const netconf::XmlElement& data);

}  // namespace cli
