#include "read/filter.h"

#include <algorithm>

namespace cdbd {
namespace {

using netconf::XmlElement;

bool Names(const XmlElement& element, std::string_view ns, std::string_view name) {
  return element.attributes == nullptr && element.name->local == name &&
         (element.name->ns.empty() || element.name->ns == ns);
}

}  // namespace

Selection Selection::Of(const XmlElement& filter) {
  Selection selection;
  for (const XmlElement* child = filter.first_child; child != nullptr; child = child->next)
    selection.elements.push_back(child);
  return selection;
}

Selection Selection::For(std::string_view ns, std::string_view name) const {
  if (all) return Everything();
  Selection selection;
  for (const XmlElement* element : elements)
    if (Names(*element, ns, name)) selection.elements.push_back(element);
  return selection;
}

bool IsContentMatch(const XmlElement& element) {
  return element.first_child == nullptr && !netconf::Trim(element.text).empty();
}

Selection SelectInstance(const Selection& candidates, ContentTest test) {
  if (candidates.all) return Selection::Everything();
  Selection selected;
  for (const XmlElement* candidate : candidates.elements) {
    if (IsContentMatch(*candidate)) continue;  // text is asked of a node that has none
    bool holds = true;
    bool only_matches = true;
    for (const XmlElement* child = candidate->first_child; child != nullptr && holds; child = child->next) {
      if (IsContentMatch(*child))
        holds = child->attributes == nullptr && test(*child);
      else
        only_matches = false;
    }
    if (!holds) continue;
    if (only_matches) return Selection::Everything();
    for (const XmlElement* child = candidate->first_child; child != nullptr; child = child->next)
      selected.elements.push_back(child);
  }
  return selected;
}

bool SelectsLeaf(const Selection& candidates, common::FunctionRef<bool(std::string_view)> equals) {
  return candidates.all ||
         std::any_of(candidates.elements.begin(), candidates.elements.end(), [&](const auto* element) {
           return element->first_child == nullptr &&
                  (!IsContentMatch(*element) || equals(netconf::Trim(element->text)));
         });
}

}  // namespace cdbd
