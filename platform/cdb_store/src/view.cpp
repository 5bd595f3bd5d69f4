#include "cdb_store/view.h"

namespace cdb_store {

Lookup<std::string_view> View::Row(const Node& node, std::string_view keys) const {
  if (keys.size() > kMaxKeys) return std::nullopt;
  InstanceKey key(keys);
  return ReadRecord(txn_, dbi_, key.Row(node.id));
}

Lookup<std::string_view> View::Leaf(const Node& leaf, std::string_view keys) const {
  Lookup<std::string_view> row = Row(schema_->node(leaf.row), keys);
  if (!row.ok() || !row.value()) return row;
  return FindLeaf(*row.value(), leaf.id);
}

Answer<bool> View::HasRow(const Node& node, std::string_view keys) const {
  const Lookup<std::string_view> row = Row(node, keys);
  if (!row.ok()) return row.error();
  return row.value().has_value();
}

Answer<bool> View::Exists(const Node& node, std::string_view keys) const {
  switch (node.kind) {
    case NodeKind::kRoot:
      return true;
    case NodeKind::kContainer:
      return HasContent(node, keys);
    case NodeKind::kLeaf: {
      if (node.IsKeyLeaf()) return HasRow(schema_->node(node.parent), keys);
      const Lookup<std::string_view> value = Leaf(node, keys);
      if (!value.ok()) return value.error();
      return value.value().has_value();
    }
    case NodeKind::kPresenceContainer:
    case NodeKind::kList:
    case NodeKind::kLeafList:
      break;
  }
  return HasRow(node, keys);
}

common::Result<uint32_t> View::Count(const Node& list, std::string_view parent_keys) const {
  if (parent_keys.size() > kMaxKeys) return 0;
  InstanceKey key(parent_keys);
  const Lookup<std::string_view> record = ReadRecord(txn_, dbi_, key.Count(list.id));
  if (!record.ok()) return record.error();
  if (!record.value()) return 0;
  if (record.value()->size() != sizeof(uint32_t)) return StoreError("read", schema_->PathOf(list), MDB_CORRUPTED);
  return LoadInt<uint32_t>(*record.value());
}

Answer<bool> View::HasContent(const Node& container, std::string_view keys) const {
  const Lookup<std::string_view> row = Row(schema_->node(container.row), keys);
  if (!row.ok()) return row.error();
  if (row.value() && HasLeafIn(*row.value(), container.id, container.end)) return true;
  for (const NodeId id : container.children) {
    const Node& child = schema_->node(id);
    // The leaves of a container without rows lie in the row that was searched above.
    if (child.kind == NodeKind::kLeaf || (child.kind == NodeKind::kContainer && child.rows_below.empty())) continue;
    Answer<bool> has = false;
    if (child.IsKeyed()) {
      const common::Result<uint32_t> count = Count(child, keys);
      has = count.ok() ? Answer<bool>(count.value() > 0) : Answer<bool>(count.error());
    } else {
      has = Exists(child, keys);
    }
    if (!has.ok() || has.value()) return has;
  }
  return false;
}

RowCursor::RowCursor(const View& view, const Node& list, std::string_view parent_keys) : list_{&list} {
  if (parent_keys.size() > kMaxKeys) return;
  parent_.Assign(parent_keys);
  MDB_cursor* cursor = nullptr;
  open_error_ = mdb_cursor_open(view.txn(), view.dbi(), &cursor);
  if (open_error_ == 0) cursor_.reset(cursor);
}

Answer<bool> RowCursor::Accept(int code, const MDB_val& key, const MDB_val& data) {
  if (code != 0 || !FromVal(key).starts_with(parent_.Row(list_->id))) {
    position_ = -1;
    if (code != 0 && code != MDB_NOTFOUND) return StoreError("read", list_->name, code);
    return false;
  }
  key_ = FromVal(key);
  row_ = FromVal(data);
  return true;
}

Answer<bool> RowCursor::Next() {
  MDB_val key{};
  MDB_val data{};
  if (cursor_ == nullptr) return Accept(open_error_ != 0 ? open_error_ : MDB_NOTFOUND, key, data);
  int code = 0;
  if (position_ < 0) {
    key = ToVal(parent_.Row(list_->id));
    code = mdb_cursor_get(cursor_.get(), &key, &data, MDB_SET_RANGE);
  } else {
    code = mdb_cursor_get(cursor_.get(), &key, &data, MDB_NEXT);
  }
  Answer<bool> found = Accept(code, key, data);
  if (found.ok() && found.value()) ++position_;
  return found;
}

Answer<bool> RowCursor::GoTo(uint32_t position) {
  if (position_ == position) return true;
  if (position_ > position) position_ = -1;
  while (true) {
    Answer<bool> found = Next();
    if (!found.ok() || !found.value() || position_ == position) return found;
  }
}

Answer<bool> RowCursor::Seek(std::string_view keys) {
  MDB_val key{};
  MDB_val data{};
  if (cursor_ == nullptr) return Accept(open_error_ != 0 ? open_error_ : MDB_NOTFOUND, key, data);
  if (keys.size() > kMaxKeys) return false;
  InstanceKey from(keys);
  key = ToVal(from.Row(list_->id));
  return Accept(mdb_cursor_get(cursor_.get(), &key, &data, MDB_SET_RANGE), key, data);
}

}  // namespace cdb_store
