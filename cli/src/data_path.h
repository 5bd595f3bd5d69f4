#pragma once

#include <optional>
#include <string_view>

#include "netconf/xml.h"

namespace cli {

/// Finds the data that `path` names in a document: the line of the deepest element of the path that exists, or nullopt
/// if not even its first one does. `path` is absolute, as error-path elements and libyang write it; its first step
/// is looked for among `first_sibling` and those after it. Prefixes are not compared; a predicate is a key with its
/// value, a leaf-list's value ([.='x']) or a position from 1.
std::optional<unsigned> LineOfData(const netconf::XmlElement& first_sibling, std::string_view path);

}  // namespace cli
