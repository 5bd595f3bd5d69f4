#include "read/stored_data.h"

#include <set>

#include "cdb_store/instance_key.h"
#include "cdb_store/packed_row.h"
#include "read/data_writer.h"

namespace cdbd {

using cdb_store::NodeKind;

common::Status ReadStored(const cdb_store::View& view, common::FunctionRef<void(const StoredInstance& root)> read) {
  StoredInstance::Reading reading{view};
  const auto row = reading.Take(view.Row(view.schema().root(), {}));
  read(StoredInstance{reading, {}, row.value_or(std::string_view{})});
  return reading.status;
}

std::optional<std::string_view> StoredInstance::Leaf(const Node& leaf, std::string* buffer) const {
  if (leaf.IsKeyLeaf()) {
    const cdb_store::Schema& schema = reading_.view.schema();
    const std::vector<std::string> own = cdb_store::OwnKeys(schema, schema.node(leaf.row), keys_);
    const auto index = static_cast<size_t>(static_cast<uint8_t>(leaf.key_index));  // not negative for a key
    if (index >= own.size()) return std::nullopt;
    *buffer = cdb_store::ValueToText(leaf, own[index]);
    return *buffer;
  }
  if (!leaf.config) return std::nullopt;
  const auto stored = cdb_store::FindLeaf(row_, leaf.id);
  if (!stored) return std::nullopt;
  *buffer = cdb_store::ValueToText(leaf, *stored);
  return *buffer;
}

void StoredInstance::LeafList(const Node& list, VisitText visit) const {
  if (!list.config) return;
  cdb_store::RowCursor cursor{reading_.view, list, keys_};
  while (reading_.Take(cursor.Next())) {
    const std::vector<std::string> value = cdb_store::OwnKeys(reading_.view.schema(), list, cursor.keys());
    if (value.size() == 1) visit(cdb_store::ValueToText(list, value[0]));
  }
}

bool StoredInstance::HasEntry(const Node& list, std::string_view text) const {
  if (!list.config) return false;
  cdb_store::InstanceKey key{keys_};
  const auto stored = cdb_store::ValueFromText(list, text);
  if (!stored || !key.Append(list.type, stored.value())) return false;
  return reading_.Take(reading_.view.Row(list, key.keys())).has_value();
}

void StoredInstance::Instances(const Node& node, const std::vector<EntryKeys>* named, VisitInstance visit) const {
  if (node.kind == NodeKind::kContainer) return visit(*this);  // its leaves are in the same row
  if (!node.config) return;
  if (node.kind == NodeKind::kPresenceContainer) {
    if (const auto row = reading_.Take(reading_.view.Row(node, keys_))) visit(StoredInstance{reading_, keys_, *row});
    return;
  }
  if (named != nullptr) return NamedEntries(node, *named, visit);
  cdb_store::RowCursor cursor{reading_.view, node, keys_};
  while (reading_.Take(cursor.Next())) visit(StoredInstance{reading_, cursor.keys(), cursor.row()});
}

void StoredInstance::NamedEntries(const Node& list, const std::vector<EntryKeys>& named, VisitInstance visit) const {
  std::set<std::string> encoded;  // in key order, each once
  for (const EntryKeys& texts : named) {
    cdb_store::InstanceKey key{keys_};
    bool possible = true;
    for (size_t i = 0; i < list.keys.size() && possible; ++i) {
      const Node& leaf = reading_.view.schema().node(list.keys[i]);
      const auto stored = cdb_store::ValueFromText(leaf, texts[i]);
      possible = stored.ok() && key.Append(leaf.type, stored.value());
    }
    if (possible) encoded.emplace(key.keys());
  }
  for (const std::string& keys : encoded)
    if (const auto row = reading_.Take(reading_.view.Row(list, keys))) visit(StoredInstance{reading_, keys, *row});
}

common::Status WriteConfiguration(const Model& model, const cdb_store::View& view, const Selection& selection,
                                  std::string* out) {
  return ReadStored(view, [&](const StoredInstance& root) { DataWriter{model}.Write(root, selection, out); });
}

}  // namespace cdbd
