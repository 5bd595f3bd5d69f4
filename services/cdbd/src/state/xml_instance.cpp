#include "state/xml_instance.h"

#include "model/leaf_value.h"

namespace cdbd {

using netconf::XmlElement;

std::optional<std::string_view> XmlInstance::Leaf(const Node& leaf, std::string* buffer) const {
  const XmlElement* child = element_.Child(NamespaceOf(leaf), leaf.name);
  if (child == nullptr) return std::nullopt;
  return WithModuleNames(model_, leaf, *child, buffer);
}

void XmlInstance::LeafList(const Node& list, VisitText visit) const {
  std::string buffer;
  for (const XmlElement* child = element_.first_child; child != nullptr; child = child->next)
    if (child->Is(NamespaceOf(list), list.name)) visit(WithModuleNames(model_, list, *child, &buffer));
}

bool XmlInstance::HasEntry(const Node& list, std::string_view text) const {
  bool found = false;
  LeafList(list, [&](std::string_view entry) { found |= SameValue(list, entry, text); });
  return found;
}

void XmlInstance::Instances(const Node& node, const std::vector<EntryKeys>*, VisitInstance visit) const {
  for (const XmlElement* child = element_.first_child; child != nullptr; child = child->next)
    if (child->Is(NamespaceOf(node), node.name)) visit(XmlInstance{model_, *child});
}

}  // namespace cdbd
