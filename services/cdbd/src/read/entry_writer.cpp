#include "read/entry_writer.h"

#include <algorithm>

#include "model/leaf_value.h"

namespace cdbd {

using cdb_store::NodeId;
using cdb_store::NodeKind;

const std::string* ProvidedRow::Find(NodeId id) const {
  const auto found = std::find_if(leaves.begin(), leaves.end(), [id](const auto& leaf) { return leaf.first == id; });
  return found == leaves.end() ? nullptr : &found->second;
}

EntryWriter::EntryWriter(const Model& model, const Node& list, Selection candidates)
    : model_{model}, candidates_{std::move(candidates)}, entry_{PartOf(list)} {}

EntryWriter::Part EntryWriter::PartOf(const Node& node) const {
  Part part{&node, Xmlns(model_.schema(), node), {}};
  for (const NodeId id : node.keys) part.parts.push_back(PartOf(model_.schema().node(id)));
  for (const NodeId id : node.children) {
    const Node& child = model_.schema().node(id);
    const bool written = child.kind == NodeKind::kLeaf || child.kind == NodeKind::kContainer;
    if (written && !child.IsKeyLeaf()) part.parts.push_back(PartOf(child));
  }
  return part;
}

bool EntryWriter::WriteInstance(const Part& part, const Selection& candidates, const ProvidedRow& row,
                                std::string* out) const {
  const Selection selection =
      SelectInstance(candidates, [&](const auto& element) { return Matches(part, row, element); });
  if (selection.nothing()) return false;
  netconf::OpenElement element{part.node->name, part.xmlns, out};
  bool wrote = selection.all && part.node->kind == NodeKind::kList;
  for (const Part& child : part.parts) {
    const Selection asked = selection.For(model_.schema().ns(*child.node).uri, child.node->name);
    if (child.node->kind == NodeKind::kLeaf)
      wrote |= WriteLeaf(child, asked, row, out);
    else if (!asked.nothing())
      wrote |= WriteInstance(child, asked, row, out);
  }
  return element.CloseIf(wrote);
}

// Keys come with whatever is selected of their entry.
bool EntryWriter::WriteLeaf(const Part& leaf, const Selection& selection, const ProvidedRow& row,
                            std::string* out) const {
  const std::string* text = row.Find(leaf.node->id);
  if (text == nullptr) return false;
  const bool selected = selection.all || (!selection.nothing() && SelectsLeaf(selection, [&](std::string_view asked) {
                          return SameValue(*leaf.node, *text, asked);
                        }));
  if (selected || leaf.node->IsKeyLeaf()) AppendLeafElement(model_, *leaf.node, leaf.xmlns, *text, out);
  return selected;
}

bool EntryWriter::Matches(const Part& part, const ProvidedRow& row, const netconf::XmlElement& element) const {
  const std::string_view asked = netconf::Trim(element.text);
  return std::any_of(part.parts.begin(), part.parts.end(), [&](const Part& child) {
    const Node& leaf = *child.node;
    if (leaf.kind != NodeKind::kLeaf || leaf.name != element.name->local) return false;
    if (!element.name->ns.empty() && model_.schema().ns(leaf).uri != element.name->ns) return false;
    const std::string* text = row.Find(leaf.id);
    return text != nullptr && SameValue(leaf, *text, asked);
  });
}

}  // namespace cdbd
