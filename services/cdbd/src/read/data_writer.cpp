#include "read/data_writer.h"

#include <algorithm>
#include <set>

#include "model/leaf_value.h"

namespace cdbd {
namespace {

using cdb_store::NodeId;
using cdb_store::NodeKind;

}  // namespace

common::Status DataWriter::Write(const Selection& selection, std::string* out) {
  const Node& root = schema_.root();
  WriteChildren(root, {{}, view_.Row(root, {}).value_or(std::string_view{})}, selection, out);
  if (view_.error() != 0) return cdb_store::StoreError("read", "the configuration", view_.error());
  return common::Ok();
}

bool DataWriter::WriteChildren(const Node& parent, const Holder& holder, const Selection& selection, std::string* out) {
  bool wrote = false;
  for (const NodeId id : parent.children) {
    const Node& child = schema_.node(id);
    if (child.IsKeyLeaf() || (!child.config && provided_ == nullptr)) continue;
    const Selection candidates = selection.For(schema_.ns(child).uri, child.name);
    if (!candidates.nothing()) wrote |= WriteChild(child, holder, candidates, out);
  }
  return wrote;
}

bool DataWriter::WriteChild(const Node& node, const Holder& holder, const Selection& candidates, std::string* out) {
  switch (node.kind) {
    case NodeKind::kLeaf:
      return WriteLeaf(node, holder, candidates, out);
    case NodeKind::kLeafList:
      return WriteLeafList(node, holder, candidates, out);
    case NodeKind::kList:
      return WriteList(node, holder, candidates, out);
    case NodeKind::kPresenceContainer: {
      const auto row = view_.Row(node, holder.keys);
      return row.has_value() && WriteInstance(node, {holder.keys, *row}, candidates, out);
    }
    default:
      return WriteInstance(node, holder, candidates, out);
  }
}

// Also serves containers without presence, whose leaves are in the row of what holds them.
bool DataWriter::WriteInstance(const Node& node, const Holder& instance, const Selection& candidates,
                               std::string* out) {
  const Selection selection =
      SelectInstance(candidates, [&](const auto& element) { return Matches(node, instance, element); });
  if (selection.nothing()) return false;
  netconf::OpenElement element{node.name, Xmlns(schema_, node), out};
  bool wrote = selection.all && node.kind != NodeKind::kContainer;
  for (const NodeId id : node.keys) {
    const Node& key = schema_.node(id);
    const auto text = LeafText(key, instance);
    if (!text) continue;
    AppendLeafElement(model_, key, {}, *text, out);
    if (selection.all) continue;
    const Selection asked = selection.For(schema_.ns(key).uri, key.name);
    wrote |=
        !asked.nothing() && SelectsLeaf(asked, [&](std::string_view value) { return SameValue(key, *text, value); });
  }
  wrote |= WriteChildren(node, instance, selection, out);
  return element.CloseIf(wrote);
}

bool DataWriter::WriteLeaf(const Node& node, const Holder& holder, const Selection& candidates, std::string* out) {
  const auto text = LeafText(node, holder);
  if (!text || !SelectsLeaf(candidates, [&](std::string_view asked) { return SameValue(node, *text, asked); }))
    return false;
  AppendLeafElement(model_, node, Xmlns(schema_, node), *text, out);
  return true;
}

bool DataWriter::WriteLeafList(const Node& node, const Holder& holder, const Selection& candidates, std::string* out) {
  if (!node.config) return false;
  bool wrote = false;
  cdb_store::RowCursor cursor{view_, node, holder.keys};
  while (cursor.Next()) {
    const std::vector<std::string> value = cdb_store::OwnKeys(schema_, node, cursor.keys());
    if (value.size() != 1) continue;
    const std::string text = cdb_store::ValueToText(node, value[0]);
    if (!SelectsLeaf(candidates, [&](std::string_view asked) { return SameValue(node, text, asked); })) continue;
    AppendLeafElement(model_, node, Xmlns(schema_, node), text, out);
    wrote = true;
  }
  return wrote;
}

bool DataWriter::WriteList(const Node& node, const Holder& holder, const Selection& candidates, std::string* out) {
  bool wrote = false;
  if (!node.config) {
    const std::string* entries =
        node.callpoint.empty() || provided_ == nullptr ? nullptr : provided_->Entries(node, holder.keys, candidates);
    if (entries == nullptr) return false;
    out->append(*entries);
    return !entries->empty();
  }
  if (!candidates.all && WriteNamed(node, holder, candidates, out, &wrote)) return wrote;
  cdb_store::RowCursor cursor{view_, node, holder.keys};
  while (cursor.Next()) wrote |= WriteInstance(node, {cursor.keys(), cursor.row()}, candidates, out);
  return wrote;
}

// False, with nothing written, when some filter element does not give all keys.
bool DataWriter::WriteNamed(const Node& list, const Holder& holder, const Selection& candidates, std::string* out,
                            bool* wrote) {
  std::set<std::string> named;
  for (const netconf::XmlElement* candidate : candidates.elements) {
    cdb_store::InstanceKey key{holder.keys};
    bool possible = true;
    for (const NodeId id : list.keys) {
      const Node& leaf = schema_.node(id);
      const netconf::XmlElement* asked = candidate->first_child;
      while (asked != nullptr &&
             (!IsContentMatch(*asked) || Selection{false, {asked}}.For(schema_.ns(leaf).uri, leaf.name).nothing()))
        asked = asked->next;
      if (asked == nullptr) return false;
      const auto stored = cdb_store::ValueFromText(leaf, netconf::Trim(asked->text));
      possible = possible && stored.ok() && key.Append(leaf.type, stored.value());
    }
    if (possible) named.emplace(key.keys());
  }
  for (const std::string& keys : named)
    if (const auto row = view_.Row(list, keys)) *wrote |= WriteInstance(list, {keys, *row}, candidates, out);
  return true;
}

std::optional<std::string> DataWriter::LeafText(const Node& leaf, const Holder& holder) const {
  if (leaf.IsKeyLeaf()) {
    const std::vector<std::string> own = cdb_store::OwnKeys(schema_, schema_.node(leaf.row), holder.keys);
    const auto index = static_cast<size_t>(static_cast<uint8_t>(leaf.key_index));  // not negative for a key
    return index < own.size() ? std::optional{cdb_store::ValueToText(leaf, own[index])} : std::nullopt;
  }
  if (!leaf.config) return std::nullopt;
  const auto stored = cdb_store::FindLeaf(holder.row, leaf.id);
  return stored ? std::optional{cdb_store::ValueToText(leaf, *stored)} : std::nullopt;
}

bool DataWriter::Matches(const Node& parent, const Holder& holder, const netconf::XmlElement& element) const {
  const std::string_view asked = netconf::Trim(element.text);
  for (const NodeId id : parent.children) {
    const Node& child = schema_.node(id);
    if (child.name != element.name->local) continue;
    if (!element.name->ns.empty() && schema_.ns(child).uri != element.name->ns) continue;
    if (child.kind == NodeKind::kLeaf) {
      const auto text = LeafText(child, holder);
      if (text && SameValue(child, *text, asked)) return true;
    } else if (child.kind == NodeKind::kLeafList && child.config) {
      cdb_store::InstanceKey key{holder.keys};
      const auto stored = cdb_store::ValueFromText(child, asked);
      if (stored.ok() && key.Append(child.type, stored.value()) && view_.Row(child, key.keys())) return true;
    }
  }
  return false;
}

}  // namespace cdbd
