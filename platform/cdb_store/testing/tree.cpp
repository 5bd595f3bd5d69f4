#include "cdb_store_testing/tree.h"

#include <cstdio>
#include <cstdlib>

#include "cdb_store/path.h"

namespace cdb_store::testing {
namespace {

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "test tree: %s\n", what.c_str());
  std::abort();
}

Located Locate(const Schema& schema, std::string_view path) {
  common::Result<Located> found = LocatePath(schema, path);
  if (!found) Die(found.error().Text());
  return std::move(found).value();
}

void Check(const common::Status& status) {
  if (!status) Die(status.error().Text());
}

template <class T>
T Value(Answer<T> result) {
  if (!result.ok()) Die(result.error().Text());
  return std::move(result).value();
}

void MakeRow(WriteTxn& txn, const Schema& schema, const Node& node, std::string_view keys) {
  if (node.id == kRootId) return;
  const Node& parent = schema.node(node.parent);
  MakeRow(txn, schema, parent, keys.substr(0, KeysSizeAt(schema, parent, keys).value()));
  if (node.HasRow()) Check(txn.Create(node, keys));
}

/// The stored value of a leaf, which may be a key.
std::optional<std::string> AnyLeaf(const View& view, const Node& leaf, std::string_view keys) {
  if (!leaf.IsKeyLeaf()) {
    const auto value = Value(view.Leaf(leaf, keys));
    return value ? std::optional<std::string>(*value) : std::nullopt;
  }
  const Node& list = view.schema().node(leaf.parent);
  if (!Value(view.Row(list, keys))) return std::nullopt;
  return OwnKeys(view.schema(), list, keys)[static_cast<size_t>(leaf.key_index)];
}

void DumpBelow(const View& view, const Node& parent, std::string_view keys, std::vector<std::string>& out) {
  const Schema& schema = view.schema();
  for (const NodeId id : parent.children) {
    const Node& node = schema.node(id);
    if (!node.config) continue;
    if (node.IsKeyed()) {
      RowCursor rows(view, node, keys);
      while (Value(rows.Next())) {
        const std::string own(rows.keys());
        out.push_back(InstanceText(schema, node, own));
        DumpBelow(view, node, own, out);
      }
    } else if (node.kind == NodeKind::kLeaf) {
      if (const auto value = AnyLeaf(view, node, keys)) {
        out.push_back(InstanceText(schema, node, keys) +
                      (node.type == ValueType::kEmpty ? "" : " = " + ValueToText(node, *value)));
      }
    } else {
      if (node.kind == NodeKind::kPresenceContainer && Value(view.Exists(node, keys))) {
        out.push_back(InstanceText(schema, node, keys));
      }
      DumpBelow(view, node, keys, out);
    }
  }
}

}  // namespace

void Put(WriteTxn& txn, std::string_view path, std::string_view value) {
  const Schema& schema = txn.Running().schema();
  const Located at = Locate(schema, path);
  if (!at.all_keys) Die(std::string(path) + " lacks keys");
  MakeRow(txn, schema, *at.node, at.keys);
  if (at.node->kind != NodeKind::kLeaf) return;
  const common::Result<std::string> stored = ValueFromText(*at.node, value);
  if (!stored) Die(std::string(path) + ": " + stored.error().Text());
  Check(txn.SetLeaf(*at.node, at.keys, stored.value()));
}

void Remove(WriteTxn& txn, std::string_view path) {
  const Located at = Locate(txn.Running().schema(), path);
  Check(txn.Delete(*at.node, at.keys));
}

Txid CommitTree(StoreWriter& store, const std::vector<PathValue>& tree) {
  common::Result<WriteTxn> txn = store.Begin();
  if (!txn) Die(txn.error().Text());
  for (const PathValue& row : tree) Put(txn.value(), row.path, row.value);
  const common::Result<Txid> txid = txn.value().Commit();
  if (!txid) Die(txid.error().Text());
  return txid.value();
}

std::vector<std::string> Dump(const View& view) {
  std::vector<std::string> out;
  DumpBelow(view, view.schema().root(), "", out);
  return out;
}

}  // namespace cdb_store::testing
