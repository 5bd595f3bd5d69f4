#pragma once

#include "ask.h"
#include "reply_reader.h"

namespace cli {

enum class Format { kTable, kJson, kXml };

/// Prints the data that `operation` reads while it arrives: as `table` does it, as JSON (RFC 7951), or as XML that can
/// be loaded again. Memory does not depend on the amount of data.
ExitStatus Show(const Target& target, const std::string& operation, Format format, DataReader* table);

/// The text of the child `name` of `element`, in any namespace; "" if there is none.
std::string ChildText(const netconf::XmlElement& element, std::string_view name);
/// The first child of that name at each step; null if one is missing.
const netconf::XmlElement* Descend(const netconf::XmlElement& element, std::initializer_list<std::string_view> names);

}  // namespace cli
