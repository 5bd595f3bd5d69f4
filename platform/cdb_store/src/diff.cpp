#include "cdb_store/diff.h"

#include <algorithm>

#include "cdb_store/packed_row.h"

namespace cdb_store {
namespace {

constexpr char kHasOld = 1;
constexpr char kHasNew = 2;

/// A leaf in [first, end) differs between the two rows.
bool LeavesDiffer(const Change& change, NodeId first, NodeId end) {
  PackedRowReader old_reader(change.old_row.value_or(std::string_view{}));
  PackedRowReader new_reader(change.new_row.value_or(std::string_view{}));
  const auto next_in_range = [&](PackedRowReader& reader) {
    std::optional<PackedLeaf> leaf = reader.Next();
    while (leaf && leaf->id < first) leaf = reader.Next();
    return leaf && leaf->id < end ? leaf : std::nullopt;
  };
  while (true) {
    const std::optional<PackedLeaf> a = next_in_range(old_reader);
    const std::optional<PackedLeaf> b = next_in_range(new_reader);
    if (!a && !b) return false;
    if (!a || !b || a->id != b->id || a->value != b->value) return true;
  }
}

/// The same keys as far as both have them.
bool KeysAgree(std::string_view a, std::string_view b) { return a.starts_with(b) || b.starts_with(a); }

/// The change in a record that was read with LMDB's `code`.
Lookup<Change> FromRecord(int code, std::string_view key, const MDB_val& data) {
  if (code == MDB_NOTFOUND) return std::nullopt;
  std::optional<Change> change = code == 0 ? UnpackChange(key, FromVal(data)) : std::nullopt;
  if (!change) return StoreError("read", "the difference of the commit", code == 0 ? MDB_CORRUPTED : code);
  return change;
}

}  // namespace

std::string PackChange(const Change& change) {
  std::string out(1, static_cast<char>((change.old_row ? kHasOld : 0) | (change.new_row ? kHasNew : 0)));
  out += StoreInt(static_cast<uint32_t>(change.old_row ? change.old_row->size() : 0));
  if (change.old_row) out += *change.old_row;
  if (change.new_row) out += *change.new_row;
  return out;
}

std::optional<Change> UnpackChange(std::string_view key, std::string_view packed) {
  if (packed.size() < 1 + sizeof(uint32_t)) return std::nullopt;
  const char flags = packed[0];
  const auto old_size = LoadInt<uint32_t>(packed.substr(1));
  packed.remove_prefix(1 + sizeof(uint32_t));
  if (old_size > packed.size()) return std::nullopt;
  Change change{key, std::nullopt, std::nullopt};
  if ((flags & kHasOld) != 0) change.old_row = packed.substr(0, old_size);
  if ((flags & kHasNew) != 0) change.new_row = packed.substr(old_size);
  return change;
}

Lookup<Change> DiffView::Get(const Node& node, std::string_view keys) const {
  if (keys.size() > kMaxKeys) return std::nullopt;
  InstanceKey instance(keys);
  MDB_val key = ToVal(instance.Row(node.id));
  MDB_val data{};
  return FromRecord(mdb_get(txn_, dbi_, &key, &data), {}, data);
}

DiffCursor::DiffCursor(const DiffView& diff) {
  MDB_cursor* cursor = nullptr;
  open_error_ = mdb_cursor_open(diff.txn(), diff.dbi(), &cursor);
  if (open_error_ == 0) cursor_.reset(cursor);
}

Lookup<Change> DiffCursor::Seek(std::string_view record_key) {
  MDB_val key = ToVal(record_key);
  MDB_val data{};
  if (cursor_ == nullptr) return FromRecord(open_error_, {}, data);
  const MDB_cursor_op op = record_key.empty() ? MDB_FIRST : MDB_SET_RANGE;
  const int code = mdb_cursor_get(cursor_.get(), &key, &data, op);
  return FromRecord(code, FromVal(key), data);
}

Lookup<Change> DiffCursor::Next() {
  MDB_val key{};
  MDB_val data{};
  if (cursor_ == nullptr) return FromRecord(open_error_, {}, data);
  const int code = mdb_cursor_get(cursor_.get(), &key, &data, MDB_NEXT);
  return FromRecord(code, FromVal(key), data);
}

bool Triggers(const Schema& schema, const SubscriptionTarget& target, const Change& change) {
  const std::optional<RecordKey> record = ParseRecordKey(change.key);
  if (!record || record->is_count || record->node >= schema.size()) return false;
  if (!KeysAgree(record->keys, target.keys)) return false;
  const Node& wanted = schema.node(target.node);
  const Node& changed = schema.node(record->node);
  if (Schema::IsAtOrAbove(wanted, changed)) return record->keys.starts_with(target.keys);
  if (!Schema::IsAtOrAbove(changed, wanted)) return false;
  // The target is inside the changed row's instance: gone with it, or made of leaves of that row.
  if (changed.id != kRootId && !change.new_row) return true;
  return wanted.row == changed.id && LeavesDiffer(change, wanted.id, wanted.end);
}

}  // namespace cdb_store
