#include "read/subtree.h"

#include <algorithm>
#include <optional>

#include "model/leaf_value.h"

namespace cdbd {
namespace {

using cdb_store::Node;
using cdb_store::NodeId;
using cdb_store::NodeKind;
using cdb_store::Schema;

/// A leaf of the instance, or an entry of one of its leaf-lists, has the name and value of a content match element.
bool Matches(const Schema& schema, const Node& node, const DataInstance& instance, const netconf::XmlElement& element) {
  const std::string_view asked = netconf::Trim(element.text);
  return std::any_of(node.children.begin(), node.children.end(), [&](NodeId id) {
    const Node& child = schema.node(id);
    if (child.name != element.name->local) return false;
    if (!element.name->ns.empty() && schema.ns(child).uri != element.name->ns) return false;
    if (child.kind == NodeKind::kLeafList) return instance.HasEntry(child, asked);
    if (child.kind != NodeKind::kLeaf) return false;
    std::string buffer;
    const auto text = instance.Leaf(child, &buffer);
    return text && SameValue(child, *text, asked);
  });
}

/// The keys of the entries that the filter elements name, or nullopt if one of them does not give all keys.
std::optional<std::vector<EntryKeys>> NamedEntries(const Schema& schema, const Node& list,
                                                   const Selection& candidates) {
  if (candidates.all || list.keys.empty()) return std::nullopt;
  std::vector<EntryKeys> named;
  for (const netconf::XmlElement* candidate : candidates.elements) {
    EntryKeys& keys = named.emplace_back();
    for (const NodeId id : list.keys) {
      const Node& leaf = schema.node(id);
      const netconf::XmlElement* asked = candidate->first_child;
      while (asked != nullptr &&
             (!IsContentMatch(*asked) || Selection{false, {asked}}.For(schema.ns(leaf).uri, leaf.name).nothing()))
        asked = asked->next;
      if (asked == nullptr) return std::nullopt;
      keys.push_back(netconf::Trim(asked->text));
    }
  }
  return named;
}

}  // namespace

Selection SelectedOf(const Schema& schema, const Node& node, const DataInstance& instance,
                     const Selection& candidates) {
  return SelectInstance(candidates,
                        [&](const netconf::XmlElement& element) { return Matches(schema, node, instance, element); });
}

void ForEachSelected(const Schema& schema, const Node& node, const DataInstance& holder, const Selection& candidates,
                     common::FunctionRef<void(const DataInstance&, const Selection&)> visit) {
  const auto visit_selected = [&](const DataInstance& instance) {
    const Selection selection = SelectedOf(schema, node, instance, candidates);
    if (!selection.nothing()) visit(instance, selection);
  };
  const auto named = node.kind == NodeKind::kList ? NamedEntries(schema, node, candidates) : std::nullopt;
  holder.Instances(node, named ? &*named : nullptr, visit_selected);
}

}  // namespace cdbd
