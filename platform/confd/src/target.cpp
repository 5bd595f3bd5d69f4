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

bool GoToPosition(Session& session, const Node& list, uint32_t position, Target& target) {
  RowCursor& cursor = CursorFor(session, list, target.key.keys());
  if (!cursor.GoTo(position)) return false;
  target.key.Assign(cursor.keys());
  target.row = cursor.row();
  target.row_node = &list;
  return true;
}

}  // namespace

int FailPath(confd_errno_value code, std::string_view path, const std::string& problem) {
  return Fail(code, "path \"" + std::string(path) + "\": " + problem);
}

std::optional<std::string_view> Target::Leaf(const cdb_store::View& view, std::string& buffer) const {
  if (is_missing) return std::nullopt;
  const Schema& schema = view.schema();
  if (node->IsKeyLeaf()) {
    const Node& list = schema.node(node->parent);
    if (row_node != &list && !view.Row(list, key.keys())) return std::nullopt;
    buffer = std::move(cdb_store::OwnKeys(schema, list, key.keys())[static_cast<size_t>(node->key_index)]);
    return buffer;
  }
  if (node->kind == NodeKind::kLeafList) {
    if (row_node != node && !view.Row(*node, key.keys())) return std::nullopt;
    buffer = std::move(cdb_store::OwnKeys(schema, *node, key.keys())[0]);
    return buffer;
  }
  if (row_node != nullptr && row_node->id == node->row) return cdb_store::FindLeaf(*row, node->id);
  return view.Leaf(*node, key.keys());
}

int ResolvePath(Session& session, std::string_view path, Target& target) {
  const Schema& schema = session.view.schema();
  PathReader reader(path);
  PathStep step;
  std::string problem;
  const Node* node = &schema.root();
  const auto fail = [&](const std::string& text) { return FailPath(CONFD_ERR_BADPATH, path, text); };
  while (reader.Next(step)) {
    if (target.names_list) return fail(node->name + " is a list: it needs keys or a position before what is below it");
    node = cdb_store::ResolveStep(schema, *node, step, session.ns, problem);
    if (node == nullptr) return fail(problem);
    if (!node->config) return fail(schema.PathOf(*node) + " is operational data, which is not in the database");
    switch (step.selector) {
      case PathStep::Selector::kNone:
        target.names_list = node->IsKeyed();
        break;
      case PathStep::Selector::kKeys:
        if (!cdb_store::AppendStepKeys(schema, *node, step, target.key, problem)) return fail(problem);
        target.row_node = nullptr;
        break;
      case PathStep::Selector::kPosition:
        if (!node->IsKeyed()) return fail(node->name + " is no list and has no positions");
        if (!target.is_missing) target.is_missing = !GoToPosition(session, *node, step.position, target);
        break;
    }
  }
  if (reader.problem() != nullptr) return fail(reader.problem());
  target.node = node;
  return CONFD_OK;
}

}  // namespace confd
