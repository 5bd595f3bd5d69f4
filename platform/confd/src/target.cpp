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
common::Status GoToPosition(Session& session, const Node& list, uint32_t position, Place& place) {
  cdb_store::InstanceKey& keys = session.memo.keys();
  RowCursor& cursor = CursorFor(session, list, keys.keys());
  const cdb_store::Answer<bool> found = cursor.GoTo(position);
  if (!found.ok()) return found.error();
  place.is_missing = !found.value();
  if (place.is_missing) return common::Ok();
  keys.Assign(cursor.keys());
  place.row = cursor.row();
  place.row_node = &list;
  return common::Ok();
}

/// Goes from `place` to what `step` names below it. CONFD_ERR, with the last error naming `path`, when there is no such
/// thing or the store fails.
int TakeStep(Session& session, const PathStep& step, std::string_view path, Place& place) {
  const auto bad_path = [&](const std::string& problem) { return FailPath(CONFD_ERR_BADPATH, path, problem); };
  std::string problem;
  const Schema& schema = session.view.schema();
  const Node* const parent = place.node;
  if (place.names_list) {
    return bad_path(parent->name + " is a list: it needs keys or a position before what is below it");
  }
  const Node* const node = cdb_store::ResolveStep(schema, *parent, step, session.ns, problem);
  if (node == nullptr) return bad_path(problem);
  if (!node->config) return bad_path(schema.PathOf(*node) + " is operational data, which is not in the database");
  place.node = node;
  switch (step.selector) {
    case PathStep::Selector::kNone:
      place.names_list = node->IsKeyed();
      return CONFD_OK;
    case PathStep::Selector::kKeys:
      place.own_keys_at = place.keys_size;
      place.row_node = nullptr;
      if (!cdb_store::AppendStepKeys(schema, *node, step, session.memo.keys(), problem)) {
        return bad_path(problem);
      }
      break;
    case PathStep::Selector::kPosition:
      if (!node->IsKeyed()) return bad_path(node->name + " is no list and has no positions");
      place.own_keys_at = place.keys_size;
      if (place.is_missing) break;
      if (const common::Status found = GoToPosition(session, *node, step.position, place); !found) {
        return FailStore(session, path, found.error());
      }
      break;
  }
  place.keys_size = session.memo.keys().size();
  return CONFD_OK;
}

}  // namespace

int FailStore(Session& session, std::string_view path, const common::Error& error) {
  session.store_failed = error;
  return Fail(CONFD_ERR_OS, "read " + std::string(path) + ": " + error.reason);
}

int FailPath(confd_errno_value code, std::string_view path, const std::string& problem) {
  return Fail(code, "path \"" + std::string(path) + "\": " + problem);
}

cdb_store::Lookup<std::string_view> Target::Leaf(const cdb_store::View& view, std::string& buffer) const {
  if (is_missing) return std::nullopt;
  const Schema& schema = view.schema();
  if (node->IsKeyLeaf() || node->kind == NodeKind::kLeafList) {
    const Node& keyed = node->IsKeyLeaf() ? schema.node(node->parent) : *node;
    const size_t index = node->IsKeyLeaf() ? static_cast<size_t>(node->key_index) : 0;
    const cdb_store::Answer<bool> exists = HasRow(view, keyed);
    if (!exists.ok()) return exists.error();
    if (!exists.value()) return std::nullopt;
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
    while (reader.Next(step)) {
      if (const int result = TakeStep(session, step, path, place); result != CONFD_OK) return result;
      memo.Add(reader.end(), place);
    }
    if (reader.problem() != nullptr) return FailPath(CONFD_ERR_BADPATH, path, reader.problem());
  }
  static_cast<Place&>(target) = place;
  target.keys = memo.keys().keys();
  return CONFD_OK;
}

}  // namespace confd
