#include "read/data_writer.h"

#include "model/leaf_value.h"
#include "netconf/xml.h"
#include "read/subtree.h"

namespace cdbd {

using cdb_store::NodeId;
using cdb_store::NodeKind;

void DataWriter::Write(const DataInstance& root, const Selection& selection, std::string* out) const {
  WriteChildren(schema_.root(), root, selection, out);
}

void DataWriter::WriteEntry(const Node& list, const DataInstance& entry, const Selection& candidates,
                            std::string* out) const {
  const Selection selection = SelectedOf(schema_, list, entry, candidates);
  if (!selection.nothing()) WriteInstance(list, entry, selection, out);
}

bool DataWriter::WriteChildren(const Node& parent, const DataInstance& holder, const Selection& selection,
                               std::string* out) const {
  bool wrote = false;
  for (const NodeId id : parent.children) {
    const Node& child = schema_.node(id);
    if (child.IsKeyLeaf() || (!child.config && provided_ == nullptr)) continue;
    const Selection candidates = selection.For(schema_.ns(child).uri, child.name);
    if (!candidates.nothing()) wrote |= WriteChild(child, holder, candidates, out);
  }
  return wrote;
}

bool DataWriter::WriteChild(const Node& node, const DataInstance& holder, const Selection& candidates,
                            std::string* out) const {
  if (node.kind == NodeKind::kLeaf) return WriteLeaf(node, holder, candidates, out);
  if (node.kind == NodeKind::kLeafList) return WriteLeafList(node, holder, candidates, out);
  if (!node.callpoint.empty()) {
    const std::string* entries = provided_ != nullptr ? provided_->Entries(node, holder.keys()) : nullptr;
    if (entries == nullptr) return false;
    out->append(*entries);
    return !entries->empty();
  }
  bool wrote = false;
  ForEachSelected(schema_, node, holder, candidates, [&](const DataInstance& instance, const Selection& selection) {
    wrote |= WriteInstance(node, instance, selection, out);
  });
  return wrote;
}

bool DataWriter::WriteInstance(const Node& node, const DataInstance& instance, const Selection& selection,
                               std::string* out) const {
  netconf::OpenElement element{node.name, Xmlns(schema_, node), out};
  bool wrote = selection.all && node.kind != NodeKind::kContainer;
  wrote |= WriteKeys(node, instance, selection, out);
  wrote |= WriteChildren(node, instance, selection, out);
  return element.CloseIf(wrote);
}

// Keys come with whatever is selected of their entry.
bool DataWriter::WriteKeys(const Node& list, const DataInstance& entry, const Selection& selection,
                           std::string* out) const {
  bool selected = false;
  std::string buffer;
  for (const NodeId id : list.keys) {
    const Node& key = schema_.node(id);
    const auto text = entry.Leaf(key, &buffer);
    if (!text) continue;
    AppendLeafElement(model_, key, {}, *text, out);
    if (selection.all) continue;
    const Selection asked = selection.For(schema_.ns(key).uri, key.name);
    selected |=
        !asked.nothing() && SelectsLeaf(asked, [&](std::string_view value) { return SameValue(key, *text, value); });
  }
  return selected;
}

bool DataWriter::WriteLeaf(const Node& node, const DataInstance& holder, const Selection& candidates,
                           std::string* out) const {
  std::string buffer;
  const auto text = holder.Leaf(node, &buffer);
  if (!text || !SelectsLeaf(candidates, [&](std::string_view asked) { return SameValue(node, *text, asked); }))
    return false;
  AppendLeafElement(model_, node, Xmlns(schema_, node), *text, out);
  return true;
}

bool DataWriter::WriteLeafList(const Node& node, const DataInstance& holder, const Selection& candidates,
                               std::string* out) const {
  bool wrote = false;
  const std::string xmlns = Xmlns(schema_, node);
  holder.LeafList(node, [&](std::string_view text) {
    if (!SelectsLeaf(candidates, [&](std::string_view asked) { return SameValue(node, text, asked); })) return;
    AppendLeafElement(model_, node, xmlns, text, out);
    wrote = true;
  });
  return wrote;
}

}  // namespace cdbd
