#include "target.h"

#include <algorithm>

#include "cdb_store/path.h"

namespace confd {
namespace {

using cdb_store::Node;
using cdb_store::NodeKind;
using cdb_store::PathReader;
using cdb_store::PathStep;
using cdb_store::RowCursor;
using cdb_store::Schema;

/// The cursor on `list` below `parent_keys`: the one of an earlier read where there is one.
RowCursor& CursorFor(Session& session, const Node& list, std::string_view parent_keys) {
  const auto same_list = [&](const auto& cursor) { return cursor->list().id == list.id; };
  auto found = std::ranges::find_if(session.cursors, same_list);
  if (found == session.cursors.end()) {
    session.cursors.push_back(std::make_unique<RowCursor>(session.view, list, parent_keys));
    return *session.cursors.back();
  }
  if ((*found)->parent_keys() != parent_keys) *found = std::make_unique<RowCursor>(session.view, list, parent_keys);
  return **found;
}

/// The instance at `position` of `list`, which the keys in the session's memo lead to.
void GoToPosition(Session& session, const Node& list, uint32_t position, Place& place) {
  cdb_store::InstanceKey& keys = session.memo.keys();
  RowCursor& cursor = CursorFor(session, list, keys.keys());
  place.is_missing = !cursor.GoTo(position);
  if (place.is_missing) return;
  keys.Assign(cursor.keys());
  place.row = cursor.row();
  place.row_node = &list;
}

/// Goes from `place` to what `step` names below it. False, with the reason in `problem`, when there is no such thing.
bool TakeStep(Session& session, const PathStep& step, Place& place, std::string& problem) {
  const Schema& schema = session.view.schema();
  const Node* const parent = place.node;
  if (place.names_list) {
    problem = parent->name + " is a list: it needs keys or a position before what is below it";
    return false;
  }
  const Node* const node = cdb_store::ResolveStep(schema, *parent, step, session.ns, problem);
  if (node == nullptr) return false;
  if (!node->config) {
    problem = schema.PathOf(*node) + " is operational data, which is not in the database";
    return false;
  }
  place.node = node;
  switch (step.selector) {
    case PathStep::Selector::kNone:
      place.names_list = node->IsKeyed();
      return true;
    case PathStep::Selector::kKeys:
      place.own_keys_at = place.keys_size;
      place.row_node = nullptr;
      if (!cdb_store::AppendStepKeys(schema, *node, step, session.memo.keys(), problem)) return false;
      break;
    case PathStep::Selector::kPosition:
      if (!node->IsKeyed()) {
        problem = node->name + " is no list and has no positions";
        return false;
      }
      place.own_keys_at = place.keys_size;
      if (!place.is_missing) GoToPosition(session, *node, step.position, place);
      break;
  }
  place.keys_size = session.memo.keys().size();
  return true;
}

}  // namespace

int FailPath(confd_errno_value code, std::string_view path, const std::string& problem) {
  return Fail(code, "path \"" + std::string(path) + "\": " + problem);
}

std::optional<std::string_view> Target::Leaf(const cdb_store::View& view, std::string& buffer) const {
  if (is_missing) return std::nullopt;
  const Schema& schema = view.schema();
  if (node->IsKeyLeaf() || node->kind == NodeKind::kLeafList) {
    const Node& keyed = node->IsKeyLeaf() ? schema.node(node->parent) : *node;
    const size_t index = node->IsKeyLeaf() ? static_cast<size_t>(node->key_index) : 0;
    if (!HasRow(view, keyed)) return std::nullopt;
    return cdb_store::OwnKey(schema, keyed, keys.substr(own_keys_at), index, buffer);
  }
  if (row_node != nullptr && row_node->id == node->row) return cdb_store::FindLeaf(row, node->id);
  return view.Leaf(*node, keys);
}

int ResolvePath(Session& session, std::string_view path, Target& target) {
  PathMemo& memo = session.memo;
  const size_t known = memo.TurnTo(path, session.ns);
  Place place = memo.last();
  if (place.node == nullptr) place.node = &session.view.schema().root();
  if (known < path.size() || path.empty()) {
    PathReader reader(path, known);
    PathStep step;
    std::string problem;
    while (reader.Next(step)) {
      if (!TakeStep(session, step, place, problem)) return FailPath(CONFD_ERR_BADPATH, path, problem);
      memo.Add(reader.end(), place);
    }
    if (reader.problem() != nullptr) return FailPath(CONFD_ERR_BADPATH, path, reader.problem());
  }
  static_cast<Place&>(target) = place;
  target.keys = memo.keys().keys();
  return CONFD_OK;
}

}  // namespace confd
