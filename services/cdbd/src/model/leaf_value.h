#pragma once

#include <optional>
#include <string>

#include "model/data_error.h"
#include "model/model.h"
#include "netconf/xml.h"

namespace cdbd {

/// The stored form of a leaf's or leaf-list's value written in `element`, checked against the data model. On failure
/// nothing, and tag, app-tag and message of `error` say why (the path is the caller's).
std::optional<std::string> StoredValue(const Model& model, const cdb_store::Node& leaf,
                                       const netconf::XmlElement& element, DataError* error);

/// The canonical form of `text`, in which prefixes are names of modules, when it is a value of `leaf`; a reference is
/// not followed. On failure nothing, and app-tag and message of `error` say why.
std::optional<std::string> CanonicalValue(const Model& model, const cdb_store::Node& leaf, std::string_view text,
                                          DataError* error);

/// The same for a leaf that is not of the configuration, as a parameter of an operation is.
std::optional<std::string> CanonicalValue(const Model& model, const lysc_node& leaf, std::string_view text,
                                          DataError* error);

/// The text of a leaf's `element`, with names of modules in place of prefixes where its type has prefixes. May be in
/// `buffer`.
std::string_view WithModuleNames(const Model& model, const cdb_store::Node& leaf, const netconf::XmlElement& element,
                                 std::string* buffer);

/// Appends `text`, the canonical value of `leaf`, as the content of its element: "<name", what namespaces the value
/// needs, ">", the text. The element's own namespace declaration is `xmlns` ("" or " xmlns=...").
void AppendLeafElement(const Model& model, const cdb_store::Node& leaf, std::string_view xmlns, std::string_view text,
                       std::string* out);

/// The namespace declaration that the element of `node` needs inside that of its parent, with a blank in front; or "".
std::string Xmlns(const cdb_store::Schema& schema, const cdb_store::Node& node);

/// The two texts are the same value of `leaf`.
bool SameValue(const cdb_store::Node& leaf, std::string_view canonical, std::string_view asked);

}  // namespace cdbd
