#include "diff_walk.h"

#include "cdb_store/packed_row.h"
#include "last_error.h"
#include "values.h"

namespace confd {

using cdb_store::InstanceKey;
using cdb_store::Node;
using cdb_store::NodeId;
using cdb_store::NodeKind;
using cdb_store::Schema;

DiffWalk::DiffWalk(cdb_store::DiffView diff, const cdb_store::SubscriptionTarget& target, DiffIterator iterator)
    : schema_{diff.schema()},
      diff_{diff},
      cursor_{diff_},
      target_{target},
      target_node_{schema_.node(target.node)},
      iterator_{iterator},
      path_{schema_} {}

int DiffWalk::Run() {
  WalkChildren(schema_.root(), "", Take(diff_.Get(schema_.root(), "")));
  if (failed_) return Fail(CONFD_ERR_OS, failed_->Text());
  if (!has_bad_answer_) return CONFD_OK;
  return Fail(CONFD_ERR_PROTOUSAGE, "the iterator answered " + std::to_string(bad_answer_) + ", which means nothing");
}

DiffWalk::OptionalChange DiffWalk::Take(cdb_store::Lookup<cdb_store::Change> read) {
  if (read.ok()) return read.value();
  if (!failed_) failed_ = read.error();
  return std::nullopt;
}

bool DiffWalk::IsInScope(const Node& node) const { return Schema::IsAtOrAbove(target_node_, node); }

DiffWalk::Next DiffWalk::WalkChildren(const Node& parent, std::string_view keys, const OptionalChange& row) {
  for (const NodeId id : parent.children) {
    const Node& child = schema_.node(id);
    if (!child.config || (!IsInScope(child) && !Schema::IsAtOrAbove(child, target_node_))) continue;
    path_.PushNode(child);
    Next next = Next::kContinue;
    switch (child.kind) {
      case NodeKind::kLeaf:
        next = VisitLeaf(child, row);
        break;
      case NodeKind::kContainer:
        next = WalkChildren(child, keys, row);
        break;
      case NodeKind::kPresenceContainer:
        if (IsChanged(child, keys)) next = VisitInstance(child, keys);
        break;
      case NodeKind::kList:
      case NodeKind::kLeafList:
        next = VisitInstances(child, keys);
        break;
      case NodeKind::kRoot:
        break;
    }
    path_.Pop();
    if (next == Next::kStop) return next;
    if (next == Next::kUp) break;
  }
  return Next::kContinue;
}

DiffWalk::Next DiffWalk::VisitLeaf(const Node& leaf, const OptionalChange& row) {
  if (!row || leaf.IsKeyLeaf()) return Next::kContinue;
  const auto old_stored = row->old_row ? cdb_store::FindLeaf(*row->old_row, leaf.id) : std::nullopt;
  const auto new_stored = row->new_row ? cdb_store::FindLeaf(*row->new_row, leaf.id) : std::nullopt;
  if (old_stored == new_stored) return Next::kContinue;
  // Values are followed by a NUL byte, which the store's are not.
  const std::string old_text(old_stored.value_or(std::string_view{}));
  const std::string new_text(new_stored.value_or(std::string_view{}));
  confd_value_t old_value = BorrowValue(schema_, leaf, old_text);
  confd_value_t new_value = BorrowValue(schema_, leaf, new_text);
  const bool want_old = old_stored && (iterator_.flags & ITER_WANT_PREV) != 0;
  confd_iter_op op = MOP_VALUE_SET;
  if (!new_stored) op = MOP_DELETED;
  if (new_stored && leaf.type == cdb_store::ValueType::kEmpty) op = MOP_CREATED;
  return Report(op, want_old ? &old_value : nullptr, new_stored ? &new_value : nullptr);
}

DiffWalk::Next DiffWalk::VisitInstances(const Node& list, std::string_view parent_keys) {
  const auto wanted = cdb_store::KeysSizeAt(schema_, list, target_.keys);
  if (wanted && target_.keys.size() > parent_keys.size()) {
    // The subscribed path names the instance.
    const std::string keys = target_.keys.substr(0, *wanted);
    return IsChanged(list, keys) ? VisitInstance(list, keys) : Next::kContinue;
  }
  std::string from(parent_keys);
  while (const std::optional<std::string> keys = FirstChanged(list, parent_keys, from)) {
    if (const Next next = VisitInstance(list, *keys); next != Next::kContinue) return next;
    from = cdb_store::Successor(*keys);
    if (from.empty()) break;
  }
  return Next::kContinue;
}

DiffWalk::Next DiffWalk::VisitInstance(const Node& node, std::string_view keys) {
  if (node.IsKeyed()) path_.PushKeys(node, keys);
  const OptionalChange row = Take(diff_.Get(node, keys));
  const bool deleted = row && !row->new_row;
  const bool created = row && !row->old_row;
  Next next = Next::kContinue;
  if (!IsInScope(node)) {
    next = Next::kDown;
    if (deleted) next = (iterator_.flags & ITER_WANT_ANCESTOR_DELETE) != 0 ? ReportNode(MOP_DELETED) : Next::kContinue;
  } else {
    next = ReportNode(deleted ? MOP_DELETED : created ? MOP_CREATED : MOP_MODIFIED);
  }
  if (next == Next::kDown) next = deleted ? Next::kContinue : WalkChildren(node, keys, row);
  if (node.IsKeyed()) path_.Pop();
  return next;
}

DiffWalk::Next DiffWalk::Report(confd_iter_op op, confd_value_t* old_value, confd_value_t* new_value) {
  if (failed_) return Next::kStop;
  const confd_iter_ret answer = iterator_.function(path_.Build(), op, old_value, new_value, iterator_.state);
  switch (answer) {
    case ITER_STOP:
      return Next::kStop;
    case ITER_RECURSE:
      return Next::kDown;
    case ITER_CONTINUE:
      return Next::kContinue;
    case ITER_UP:
      return Next::kUp;
  }
  bad_answer_ = static_cast<int>(answer);
  has_bad_answer_ = true;
  return Next::kStop;
}

std::optional<std::string> DiffWalk::FirstChanged(const Node& list, std::string_view parent_keys,
                                                  std::string_view from) {
  std::optional<std::string_view> first;
  InstanceKey key(from);
  for (const NodeId id : list.rows_below) {
    const OptionalChange change = Take(cursor_.Seek(key.Row(id)));
    if (!change) continue;
    const auto record = cdb_store::ParseRecordKey(change->key);
    if (record->is_count || record->node != id || !record->keys.starts_with(parent_keys)) continue;
    const auto size = cdb_store::KeysSizeAt(schema_, list, record->keys);
    if (size && (!first || record->keys.substr(0, *size) < *first)) first = record->keys.substr(0, *size);
  }
  return first ? std::optional<std::string>(*first) : std::nullopt;
}

bool DiffWalk::IsChanged(const Node& node, std::string_view keys) {
  InstanceKey key(keys);
  for (const NodeId id : node.rows_below) {
    const std::string_view record = key.Row(id);
    const OptionalChange change = Take(cursor_.Seek(record));
    if (change && change->key.starts_with(record)) return true;
  }
  return false;
}

}  // namespace confd
