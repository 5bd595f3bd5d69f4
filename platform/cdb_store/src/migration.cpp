#include "migration.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cdb_store/instance_key.h"
#include "cdb_store/packed_row.h"
#include "meta_records.h"
#include "table.h"

namespace cdb_store {
namespace {

using Records = std::vector<std::pair<std::string, std::string>>;

/// A stored value of `from` says the same as one of `to`: by the type and, of an enumeration, by the name.
bool SameType(const Node& from, const Node& to) {
  return from.type == to.type && from.fraction_digits == to.fraction_digits;
}

bool SameName(const Node& from, const Node& to, std::string_view stored) {
  return from.type != ValueType::kEnum || ValueToText(from, stored) == ValueToText(to, stored);
}

/// Every value of `from` says the same as one of `to`.
bool SameValues(const Node& from, const Node& to) {
  return SameType(from, to) && std::ranges::all_of(from.enums, [&](const EnumName& name) {
           return SameName(from, to, StoreInt(name.value));
         });
}

/// Where the nodes of one schema are in another one.
class NodeMap final {
 public:
  NodeMap(const Schema& from, const Schema& to) : from_{from}, to_{to}, nodes_(from.size()) {
    nodes_[kRootId] = &to.root();
    for (size_t id = 1; id < from.size(); ++id) nodes_[id] = Match(from.node(static_cast<NodeId>(id)));
  }
  /// Null when the other schema has no such node, or stores it otherwise.
  const Node* operator[](NodeId id) const { return nodes_[id]; }

 private:
  const Node* Match(const Node& node) const {
    const Node* const parent = nodes_[node.parent];
    if (parent == nullptr || !node.config) return nullptr;
    for (const NodeId id : parent->children) {
      const Node& other = to_.node(id);
      if (other.name == node.name && to_.ns(other).uri == from_.ns(node).uri)
        return IsSame(node, other) ? &other : nullptr;
    }
    return nullptr;
  }
  bool IsSame(const Node& node, const Node& other) const {
    if (other.kind != node.kind || !other.config || other.key_index != node.key_index) return false;
    if (node.kind == NodeKind::kLeafList ? !SameValues(node, other) : !SameType(node, other)) return false;
    const auto same_key = [&](NodeId a, NodeId b) {
      return from_.node(a).name == to_.node(b).name && SameValues(from_.node(a), to_.node(b));
    };
    return std::ranges::equal(node.keys, other.keys, same_key);
  }

  const Schema& from_;
  const Schema& to_;
  std::vector<const Node*> nodes_;
};

class Migration final {
 public:
  Migration(const Schema& from, const Schema& to) : from_{from}, map_{from, to} {}

  /// 0, or an LMDB code; a record that cannot be carried over is told by problem().
  int Take(std::string_view record_key, std::string_view value) {
    const std::optional<RecordKey> record = ParseRecordKey(record_key);
    if (!record || record->node >= from_.size()) return MDB_CORRUPTED;
    const Node& node = from_.node(record->node);
    const Node& keyed = record->is_count ? from_.node(node.parent) : node;
    if (KeysSizeAt(from_, keyed, record->keys) != record->keys.size()) return MDB_CORRUPTED;
    const Node* const target = map_[record->node];
    if (target == nullptr) return Refuse(node, record->keys);
    InstanceKey key(record->keys);
    if (record->is_count) {
      records.emplace_back(key.Count(target->id), value);
      return 0;
    }
    std::string row;
    PackedRowReader reader(value);
    while (const std::optional<PackedLeaf> leaf = reader.Next()) {
      if (leaf->id >= from_.size()) return MDB_CORRUPTED;
      const Node& leaf_node = from_.node(leaf->id);
      const Node* const target_leaf = map_[leaf->id];
      if (target_leaf == nullptr || !SameName(leaf_node, *target_leaf, leaf->value)) {
        return Refuse(leaf_node, record->keys);
      }
      row = WithLeaf(row, target_leaf->id, leaf->value);
    }
    records.emplace_back(key.Row(target->id), std::move(row));
    return reader.ok() ? 0 : MDB_CORRUPTED;
  }
  [[nodiscard]] const std::string& problem() const noexcept { return problem_; }

  Records records;

 private:
  int Refuse(const Node& node, std::string_view keys) {
    problem_ = "holds " + InstanceText(from_, node, keys) +
               ", which the data model no longer has or stores in another way; nothing was changed";
    return MDB_INCOMPATIBLE;
  }

  const Schema& from_;
  const NodeMap map_;
  std::string problem_;
};

}  // namespace

common::Status Migrate(MDB_txn* txn, const Environment& env, const Schema& to) {
  constexpr const char* kOperation = "open configuration store";
  const Lookup<std::string> bytes = ReadMeta(txn, env.meta, kSchemaKey);
  if (!bytes.ok()) return bytes.error();
  if (!bytes.value()) return common::Error{kOperation, env.path(), "holds no schema; nothing was changed"};
  const common::Result<Schema> from = Schema::Parse(*bytes.value());
  if (!from) return common::Error{kOperation, env.path(), from.error().Text() + "; nothing was changed"};
  Migration migration(from.value(), to);
  int code = ForEachRecord(txn, env.running, "", [&](MDB_cursor*, std::string_view key, std::string_view value) {
    return migration.Take(key, value);
  });
  if (!migration.problem().empty()) return common::Error{kOperation, env.path(), migration.problem()};
  if (code == MDB_CORRUPTED) {
    return common::Error{kOperation, env.path(), "data.mdb is damaged (a record is malformed); nothing was changed"};
  }
  for (const MDB_dbi table : {env.running, env.pre_commit, env.diff}) {
    if (code == 0) code = mdb_drop(txn, table, 0);
  }
  for (const auto& [key, value] : migration.records) {
    for (const MDB_dbi table : {env.running, env.pre_commit}) {
      if (code == 0) code = SetRecord(txn, table, key, value);
    }
  }
  if (code != 0) return StoreError(kOperation, env.path(), code);
  return common::Ok();
}

}  // namespace cdb_store
