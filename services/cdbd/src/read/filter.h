#pragma once

#include <string_view>
#include <vector>

#include "common/function_ref.h"
#include "netconf/xml.h"

namespace cdbd {

/// What a subtree filter (RFC 6241, section 6) says about the children of one data node: everything, or what the
/// filter elements name.
struct Selection {
  bool all = false;
  std::vector<const netconf::XmlElement*> elements;

  static Selection Everything() { return {true, {}}; }
  /// What the children of <filter> select at the top.
  static Selection Of(const netconf::XmlElement& filter);

  /// The filter elements for a child of that name. An element in no namespace stands for every namespace; one with
  /// attributes matches nothing, since no data node here has any.
  [[nodiscard]] Selection For(std::string_view ns, std::string_view name) const;
  [[nodiscard]] bool nothing() const noexcept { return !all && elements.empty(); }
};

/// A content match node: an element without children that has text.
bool IsContentMatch(const netconf::XmlElement& element);

/// Whether a leaf (or an entry of a leaf-list) among the node's children fits the content match element.
using ContentTest = common::FunctionRef<bool(const netconf::XmlElement&)>;

/// What of one instance (of a container or list entry) is selected, `candidates` being the filter elements of its name.
/// Elements whose content matches do not all hold drop out.
Selection SelectInstance(const Selection& candidates, ContentTest test);

/// A leaf with that value is selected.
bool SelectsLeaf(const Selection& candidates, common::FunctionRef<bool(std::string_view)> equals);

}  // namespace cdbd
