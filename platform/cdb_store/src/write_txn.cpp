#include <cassert>
#include <utility>

#include "cdb_store/packed_row.h"
#include "cdb_store/store_writer.h"
#include "meta_records.h"
#include "table.h"

namespace cdb_store {
namespace {

common::Error WriteError(int code) { return StoreError("write configuration store", "", code); }

}  // namespace

WriteTxn::WriteTxn(StoreWriter& store, TxnHandle txn)
    : store_{&store}, txn_{std::move(txn)}, running_{store.schema_, txn_.get(), store.env_->running} {}

Lookup<std::string_view> WriteTxn::GetRow(std::string_view record_key) const {
  return ReadRecord(txn_.get(), running_.dbi(), record_key);
}

Lookup<std::string> WriteTxn::OldRow(const Node& node, std::string_view keys) const {
  InstanceKey key(keys);
  const auto touched = old_.find(key.Row(node.id));
  if (touched != old_.end()) return touched->second;
  const Lookup<std::string_view> row = Running().Row(node, keys);
  if (!row.ok()) return row.error();
  if (!row.value()) return std::nullopt;
  return std::string(*row.value());
}

common::Status WriteTxn::PutRecord(std::string_view key, std::optional<std::string_view> value) {
  if (!old_.contains(key)) {
    const Lookup<std::string_view> old = GetRow(key);
    if (!old.ok()) return old.error();
    old_.emplace(key, old.value());
  }
  if (const int code = SetRecord(txn_.get(), store_->env_->running, key, value); code != 0) return WriteError(code);
  return common::Ok();
}

common::Status WriteTxn::AddToCount(const Node& list, std::string_view parent_keys, int delta) {
  InstanceKey key(parent_keys);
  const common::Result<uint32_t> before = Running().Count(list, parent_keys);
  if (!before) return before.error();
  const int64_t count = static_cast<int64_t>(before.value()) + delta;
  if (count <= 0) return PutRecord(key.Count(list.id), std::nullopt);
  return PutRecord(key.Count(list.id), StoreInt(static_cast<uint32_t>(count)));
}

common::Status WriteTxn::Create(const Node& node, std::string_view keys) {
  const Schema& schema = store_->schema_;
  assert(node.HasRow() && node.id != kRootId && keys.size() <= kMaxKeys);
  const Lookup<std::string_view> present = Running().Row(node, keys);
  if (!present.ok()) return present.error();
  if (present.value()) return common::Ok();
  const Node& parent = schema.node(node.parent);
  const std::optional<size_t> above = KeysSizeAt(schema, parent, keys);
  if (!above) return common::Error{"create", schema.PathOf(node), "its keys are malformed"};
  const std::string_view parent_keys = keys.substr(0, *above);
  if (parent.row != kRootId) {
    const Lookup<std::string_view> above_row = Running().Row(schema.node(parent.row), parent_keys);
    if (!above_row.ok()) return above_row.error();
    if (!above_row.value()) {
      return common::Error{"create", InstanceText(schema, node, keys), "the instance above it does not exist"};
    }
  }
  InstanceKey key(keys);
  if (auto status = PutRecord(key.Row(node.id), std::string_view{}); !status || !node.IsKeyed()) return status;
  return AddToCount(node, parent_keys, 1);
}

common::Status WriteTxn::SetLeaf(const Node& leaf, std::string_view keys, std::string_view stored) {
  const Schema& schema = store_->schema_;
  assert(leaf.kind == NodeKind::kLeaf && !leaf.IsKeyLeaf() && keys.size() <= kMaxKeys);
  const Lookup<std::string_view> read = Running().Row(schema.node(leaf.row), keys);
  if (!read.ok()) return read.error();
  const std::optional<std::string_view> row = read.value();
  if (!row && leaf.row != kRootId) {
    return common::Error{"set", InstanceText(schema, leaf, keys), "the instance above it does not exist"};
  }
  InstanceKey key(keys);
  return PutRecord(key.Row(leaf.row), WithLeaf(row.value_or(std::string_view{}), leaf.id, stored));
}

common::Status WriteTxn::Delete(const Node& node, std::string_view keys) {
  const Schema& schema = store_->schema_;
  assert(node.id != kRootId && !node.IsKeyLeaf() && keys.size() <= kMaxKeys);
  if (!node.HasRow()) {
    const Node& holder = schema.node(node.row);
    const Lookup<std::string_view> read = Running().Row(holder, keys);
    if (!read.ok()) return read.error();
    const std::optional<std::string_view> row = read.value();
    if (row && HasLeafIn(*row, node.id, node.end)) {
      const std::string rest = WithoutLeaves(*row, node.id, node.end);
      InstanceKey key(keys);
      const bool drop = rest.empty() && holder.id == kRootId;
      if (auto status = PutRecord(key.Row(holder.id), drop ? std::nullopt : std::optional<std::string_view>(rest));
          !status) {
        return status;
      }
    }
  }
  return DeleteRows(node, keys);
}

common::Status WriteTxn::DeleteRows(const Node& node, std::string_view keys) {
  const Schema& schema = store_->schema_;
  const MDB_dbi running = store_->env_->running;
  const auto remove = [this](MDB_cursor* cursor, std::string_view key, std::string_view value) {
    old_.try_emplace(std::string(key), value);
    return mdb_cursor_del(cursor, 0);
  };
  std::optional<size_t> above = KeysSizeAt(schema, schema.node(node.parent), keys);
  const bool one_instance = node.IsKeyed() && above && keys.size() > *above;
  if (one_instance) {
    const Lookup<std::string_view> row = Running().Row(node, keys);
    if (!row.ok()) return row.error();
    if (row.value()) {
      if (auto status = AddToCount(node, keys.substr(0, *above), -1); !status) return status;
    }
  }
  for (const NodeId id : node.rows_below) {
    InstanceKey prefix(keys);
    int code = ForEachRecord(txn_.get(), running, prefix.Row(id), remove);
    const bool counted = schema.node(id).IsKeyed() && !(one_instance && id == node.id);
    if (code == 0 && counted) code = ForEachRecord(txn_.get(), running, prefix.Count(id), remove);
    if (code != 0) return WriteError(code);
  }
  return common::Ok();
}

common::Result<std::vector<OwnedChange>> WriteTxn::Changes(bool with_counts) const {
  std::vector<OwnedChange> changes;
  for (const auto& [key, old] : old_) {
    if (!with_counts && ParseRecordKey(key)->is_count) continue;
    const Lookup<std::string_view> read = GetRow(key);
    if (!read.ok()) return read.error();
    const std::optional<std::string_view> now = read.value();
    if (now.has_value() == old.has_value() && (!now || *now == *old)) continue;
    changes.push_back({key, old, now ? std::optional<std::string>(*now) : std::nullopt});
  }
  return changes;
}

common::Status WriteTxn::PutIdentity(const Identity& identity) {
  other_changes_ = true;
  const int code = SetRecord(txn_.get(), store_->env_->meta, kIdentityKey, PackIdentity(identity));
  if (code != 0) return WriteError(code);
  return common::Ok();
}

common::Status WriteTxn::PutLog(uint64_t id, std::string_view record) {
  other_changes_ = true;
  if (const int code = SetRecord(txn_.get(), store_->env_->log, StoreInt(id), record); code != 0)
    return WriteError(code);
  return common::Ok();
}

Txid WriteTxn::NextTxid() const { return {store_->identity_.txid.store, store_->identity_.txid.number + 1}; }

common::Status WriteTxn::CatchUpPreCommit() {
  const Environment& env = *store_->env_;
  const auto apply = [&](MDB_cursor*, std::string_view key, std::string_view packed) {
    const std::optional<Change> change = UnpackChange(key, packed);
    return change ? SetRecord(txn_.get(), env.pre_commit, key, change->new_row) : MDB_CORRUPTED;
  };
  int code = ForEachRecord(txn_.get(), env.diff, "", apply);
  if (code == 0) code = mdb_drop(txn_.get(), env.diff, 0);
  if (code != 0) return WriteError(code);
  return common::Ok();
}

common::Result<Txid> WriteTxn::Commit(CommitKind kind) {
  Identity identity = store_->identity_;
  const common::Status recorded = RecordChanges(kind, identity);
  TxnHandle txn = std::move(txn_);  // aborts on every way out but the commit
  old_.clear();
  if (!recorded) return recorded.error();
  if (!other_changes_) return identity.txid;
  if (const int code = mdb_txn_commit(txn.release()); code != 0) return WriteError(code);
  store_->identity_ = identity;
  return identity.txid;
}

common::Status WriteTxn::RecordChanges(CommitKind kind, Identity& identity) {
  const Environment& env = *store_->env_;
  const common::Result<std::vector<OwnedChange>> changes = Changes(true);
  if (!changes) return changes.error();
  if (changes.value().empty()) return common::Ok();
  if (auto status = CatchUpPreCommit(); !status) return status;
  for (const OwnedChange& change : changes.value()) {
    const int code = kind == CommitKind::kBulk ? SetRecord(txn_.get(), env.pre_commit, change.key, change.new_row)
                                               : SetRecord(txn_.get(), env.diff, change.key, PackChange(change.view()));
    if (code != 0) return WriteError(code);
  }
  identity.txid = NextTxid();
  identity.diff_of = kind == CommitKind::kBulk ? 0 : identity.txid.number;
  return PutIdentity(identity);
}

}  // namespace cdb_store
