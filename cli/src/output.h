#pragma once

#include "ask.h"

namespace cli {

enum class Format { kTable, kJson, kXml };

/// Prints the data below `data` as the models write it: XML that can be loaded again, or JSON (RFC 7951).
ExitStatus PrintData(const Target& target, const netconf::XmlElement& data, Format format);

/// The text of the child `name` of `element`, in any namespace; "" when there is none.
std::string ChildText(const netconf::XmlElement& element, std::string_view name);
/// The first child of that name at each step; null when one is missing.
const netconf::XmlElement* Descend(const netconf::XmlElement& element, std::initializer_list<std::string_view> names);

}  // namespace cli
