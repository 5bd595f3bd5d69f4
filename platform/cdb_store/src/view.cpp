#include "cdb_store/view.h"

#include <algorithm>

namespace cdb_store {

bool View::Accept(int code) const {
  if (code != 0 && code != MDB_NOTFOUND && error_ == 0) error_ = code;
  return code == 0;
}

bool View::Fetch(std::string_view record_key, MDB_val* data) const {
  MDB_val key = ToVal(record_key);
  return Accept(mdb_get(txn_, dbi_, &key, data));
}

std::optional<std::string_view> View::Row(const Node& node, std::string_view keys) const {
  if (keys.size() > kMaxKeys) return std::nullopt;
  InstanceKey key(keys);
  MDB_val data{};
  if (!Fetch(key.Row(node.id), &data)) return std::nullopt;
  return FromVal(data);
}

std::optional<std::string_view> View::Leaf(const Node& leaf, std::string_view keys) const {
  const std::optional<std::string_view> row = Row(schema_->node(leaf.row), keys);
  return row ? FindLeaf(*row, leaf.id) : std::nullopt;
}

std::optional<std::string> View::AnyLeaf(const Node& leaf, std::string_view keys) const {
  if (!leaf.IsKeyLeaf()) {
    const std::optional<std::string_view> value = Leaf(leaf, keys);
    return value ? std::optional<std::string>(*value) : std::nullopt;
  }
  const Node& list = schema_->node(leaf.parent);
  if (!Row(list, keys)) return std::nullopt;
  return OwnKeys(*schema_, list, keys)[static_cast<size_t>(leaf.key_index)];
}

bool View::Exists(const Node& node, std::string_view keys) const {
  switch (node.kind) {
    case NodeKind::kRoot:
      return true;
    case NodeKind::kContainer:
      return HasContent(node, keys);
    case NodeKind::kLeaf:
      return node.IsKeyLeaf() ? Row(schema_->node(node.parent), keys).has_value() : Leaf(node, keys).has_value();
    case NodeKind::kPresenceContainer:
    case NodeKind::kList:
    case NodeKind::kLeafList:
      break;
  }
  return Row(node, keys).has_value();
}

uint32_t View::Count(const Node& list, std::string_view parent_keys) const {
  if (parent_keys.size() > kMaxKeys) return 0;
  InstanceKey key(parent_keys);
  MDB_val data{};
  if (!Fetch(key.Count(list.id), &data)) return 0;
  if (data.mv_size == sizeof(uint32_t)) return LoadInt<uint32_t>(FromVal(data));
  Accept(MDB_CORRUPTED);
  return 0;
}

bool View::HasContent(const Node& container, std::string_view keys) const {
  const std::optional<std::string_view> row = Row(schema_->node(container.row), keys);
  if (row && HasLeafIn(*row, container.id, container.end)) return true;
  return std::ranges::any_of(container.children, [&](NodeId id) {
    const Node& child = schema_->node(id);
    switch (child.kind) {
      // Its leaves lie in the row that was searched above.
      case NodeKind::kContainer:
        return !child.rows_below.empty() && HasContent(child, keys);
      case NodeKind::kPresenceContainer:
        return Row(child, keys).has_value();
      case NodeKind::kList:
      case NodeKind::kLeafList:
        return Count(child, keys) > 0;
      case NodeKind::kLeaf:
      case NodeKind::kRoot:
        break;
    }
    return false;
  });
}

RowCursor::RowCursor(const View& view, const Node& list, std::string_view parent_keys) : view_{&view}, list_{&list} {
  if (parent_keys.size() > kMaxKeys) return;
  parent_.Assign(parent_keys);
  MDB_cursor* cursor = nullptr;
  if (view.Accept(mdb_cursor_open(view.txn(), view.dbi(), &cursor))) cursor_.reset(cursor);
}

bool RowCursor::Accept(int code, const MDB_val& key, const MDB_val& data) {
  if (!view_->Accept(code) || !FromVal(key).starts_with(parent_.Row(list_->id))) {
    position_ = -1;
    return false;
  }
  key_ = FromVal(key);
  row_ = FromVal(data);
  return true;
}

bool RowCursor::Next() {
  if (cursor_ == nullptr) return false;
  MDB_val key{};
  MDB_val data{};
  int code = 0;
  if (position_ < 0) {
    key = ToVal(parent_.Row(list_->id));
    code = mdb_cursor_get(cursor_.get(), &key, &data, MDB_SET_RANGE);
  } else {
    code = mdb_cursor_get(cursor_.get(), &key, &data, MDB_NEXT);
  }
  if (!Accept(code, key, data)) return false;
  ++position_;
  return true;
}

bool RowCursor::GoTo(uint32_t position) {
  if (position_ == position) return true;
  if (position_ > position) position_ = -1;
  while (Next()) {
    if (position_ == position) return true;
  }
  return false;
}

bool RowCursor::Seek(std::string_view keys) {
  InstanceKey from;
  if (cursor_ == nullptr || keys.size() > kMaxKeys) return false;
  from.Assign(keys);
  MDB_val key = ToVal(from.Row(list_->id));
  MDB_val data{};
  return Accept(mdb_cursor_get(cursor_.get(), &key, &data, MDB_SET_RANGE), key, data);
}

}  // namespace cdb_store
