#include "edit/validator.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "cdb_store/packed_row.h"
#include "model/data_path.h"
#include "read/stored_data.h"
#include "yang/last_error.h"

namespace cdbd {
namespace {

using cdb_store::InstanceKey;
using cdb_store::Node;

struct Located {
  const Node* node = nullptr;
  InstanceKey keys;
};

/// The store's name for a node of a data tree.
bool Locate(const Model& model, const lyd_node& at, Located* out) {
  const cdb_store::NodeId id = Model::IdOf(*at.schema);
  if (id == cdb_store::kRootId) return false;
  out->node = &model.schema().node(id);
  std::vector<const lyd_node*> way;
  for (const lyd_node* up = &at; up != nullptr; up = lyd_parent(up)) way.push_back(up);
  for (auto step = way.rbegin(); step != way.rend(); ++step) {
    const Node& node = model.schema().node(Model::IdOf(*(*step)->schema));
    const auto append = [&](const Node& key, const lyd_node* value) {
      const auto stored = cdb_store::ValueFromText(key, lyd_get_value(value));
      return stored.ok() && out->keys.Append(key.type, stored.value());
    };
    if (node.kind == cdb_store::NodeKind::kLeafList && !append(node, *step)) return false;
    const lyd_node* child = lyd_child(*step);
    for (const cdb_store::NodeId key : node.keys) {
      if (child == nullptr || !append(model.schema().node(key), child)) return false;
      child = child->next;
    }
  }
  return true;
}

cdb_store::Answer<bool> ExistedBefore(const Model& model, const cdb_store::WriteTxn& txn, const lyd_node& node) {
  Located at;
  if (!Locate(model, node, &at)) return false;
  const Node& holder = model.schema().node(at.node->row);
  const auto read = txn.OldRow(holder, at.keys.keys());
  if (!read.ok()) return read.error();
  const std::optional<std::string>& row = read.value();
  if (at.node->kind == cdb_store::NodeKind::kLeaf) return row && cdb_store::FindLeaf(*row, at.node->id).has_value();
  if (at.node->kind != cdb_store::NodeKind::kContainer) return row.has_value();
  if (row && cdb_store::HasLeafIn(*row, at.node->id, at.node->end)) return true;
  for (const lyd_node* child = lyd_child(&node); child != nullptr; child = child->next)
    if (auto existed = ExistedBefore(model, txn, *child); !existed.ok() || existed.value()) return existed;
  return false;
}

/// Marks what libyang may delete by itself when its "when" does not hold.
common::Status MarkOld(const Model& model, const cdb_store::WriteTxn& txn, lyd_node* first) {
  for (lyd_node* node = first; node != nullptr; node = node->next) {
    if (node->schema == nullptr) continue;
    if (lysc_has_when(node->schema) != nullptr) {
      const cdb_store::Answer<bool> existed = ExistedBefore(model, txn, *node);
      if (!existed.ok()) return existed.error();
      if (existed.value()) node->flags |= LYD_WHEN_TRUE;
    }
    if (common::Status below = MarkOld(model, txn, lyd_child_no_keys(node)); !below) return below;
  }
  return common::Ok();
}

common::Status DeleteVanished(const Model& model, cdb_store::WriteTxn& txn, const lyd_node* first) {
  for (const lyd_node* node = first; node != nullptr; node = node->next) {
    const lyd_meta* operation = lyd_find_meta(node->meta, nullptr, "yang:operation");
    Located at;
    if (operation != nullptr && std::strcmp(lyd_get_meta_value(operation), "delete") == 0) {
      if ((node->flags & LYD_DEFAULT) == 0 && Locate(model, *node, &at))
        if (const common::Status deleted = txn.Delete(*at.node, at.keys.keys()); !deleted) return deleted;
      continue;
    }
    if (const common::Status below = DeleteVanished(model, txn, lyd_child_no_keys(node)); !below) return below;
  }
  return common::Ok();
}

/// The schema node of a path as libyang writes it; null if the model has no such node.
const lysc_node* FindSchema(const Model& model, std::string_view path) {
  const lysc_node* found = nullptr;
  while (!path.empty()) {
    path.remove_prefix(1);
    std::string_view step = path.substr(0, path.find('/'));
    path.remove_prefix(step.size());
    const size_t colon = step.find(':');
    const lysc_node* at = found != nullptr ? lysc_node_child(found) : nullptr;
    if (found == nullptr) {
      const lys_module* module =
          ly_ctx_get_module_implemented(model.context(), std::string{step.substr(0, colon)}.c_str());
      if (module == nullptr || module->compiled == nullptr) return nullptr;
      at = module->compiled->data;
    }
    if (colon != std::string_view::npos) step.remove_prefix(colon + 1);
    while (at != nullptr && step != at->name) at = at->next;
    if (at == nullptr) return nullptr;
    found = at;
  }
  return found;
}

/// How many nodes of `schema` (of a choice: of any of its cases) are among the siblings.
uint32_t CountOf(const lysc_node& schema, const lyd_node* first) {
  uint32_t count = 0;
  for (const lyd_node* node = first; node != nullptr; node = node->next) {
    const lysc_node* at = node->schema;
    while (at != nullptr && at != &schema && at->parent != nullptr &&
           (at->parent->nodetype & (LYS_CHOICE | LYS_CASE)) != 0)
      at = at->parent;
    count += at == &schema ? 1 : 0;
  }
  return count;
}

/// The first instance that lacks what `missing` asks for; null if none does.
const lyd_node* FindLacking(const lysc_node& missing, const lysc_node& parent, uint32_t least, const lyd_node* first) {
  for (const lyd_node* node = first; node != nullptr; node = node->next) {
    if (node->schema == &parent && CountOf(missing, lyd_child(node)) < least) return node;
    if (const lyd_node* below = FindLacking(missing, parent, least, lyd_child_no_keys(node))) return below;
  }
  return nullptr;
}

// libyang names only the schema node of what is missing: the instance has to be looked for.
void SetPathOfMissing(const Model& model, const std::string& schema_path, const lyd_node* tree, DataError* error) {
  const lysc_node* missing = FindSchema(model, schema_path);
  if (missing == nullptr) return;
  const lysc_node* parent = missing->parent;
  while (parent != nullptr && (parent->nodetype & (LYS_CHOICE | LYS_CASE)) != 0) parent = parent->parent;
  uint32_t least = 1;
  if (missing->nodetype == LYS_LIST) least = reinterpret_cast<const lysc_node_list*>(missing)->min;
  if (missing->nodetype == LYS_LEAFLIST) least = reinterpret_cast<const lysc_node_leaflist*>(missing)->min;
  const lyd_node* holder = parent == nullptr ? nullptr : FindLacking(*missing, *parent, least, tree);
  const bool choice = missing->nodetype == LYS_CHOICE;
  Located at;
  if (holder != nullptr && Locate(model, *holder, &at))
    SetPath(model, choice ? *at.node : model.schema().node(Model::IdOf(*missing)), at.keys.keys(), error);
  else if (parent == nullptr && !choice)
    SetPath(model, model.schema().node(Model::IdOf(*missing)), {}, error);
  if (choice) error->details = {{"missing-choice", missing->name, "urn:ietf:params:xml:ns:yang:1"}};
}

DataError FromComplaint(const Model& model, const lyd_node* tree) {
  const yang::LastError complaint = yang::ReadLastError(model.context());
  DataError error{.tag = "operation-failed", .message = complaint.message};
  error.app_tag = complaint.app_tag;
  const auto says = [&](std::string_view words) { return complaint.message.find(words) != std::string::npos; };
  if (complaint.app_tag == "instance-required" || complaint.app_tag == "missing-choice" || says("Mandatory"))
    error.tag = "data-missing";
  if (says("When condition")) error.tag = "unknown-element";
  if (!complaint.data_path.empty())
    SetLibyangPath(model, complaint.data_path, &error);
  else
    SetPathOfMissing(model, complaint.schema_path, tree, &error);
  return error;
}

}  // namespace

DataErrors Validate(const Model& model, const cdb_store::View& view, cdb_store::WriteTxn* txn) {
  std::string xml;
  if (const auto written = WriteConfiguration(model, view, Selection::Everything(), &xml); !written)
    return {DataError{.message = written.error().Text()}};
  ly_err_clean(const_cast<ly_ctx*>(model.context()), nullptr);
  lyd_node* raw = nullptr;
  const LY_ERR parsed = lyd_parse_data_mem(model.context(), xml.c_str(), LYD_XML,
                                           LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0, &raw);
  TreePtr tree{raw};
  if (parsed != LY_SUCCESS) return {FromComplaint(model, tree.get())};
  if (txn != nullptr)
    if (const common::Status marked = MarkOld(model, *txn, raw); !marked)
      return {DataError{.message = marked.error().Text()}};
  lyd_node* raw_diff = nullptr;
  raw = tree.release();
  const LY_ERR valid = lyd_validate_all(&raw, model.context(), LYD_VALIDATE_NO_STATE, &raw_diff);
  tree.reset(raw);
  const TreePtr diff{raw_diff};
  if (valid != LY_SUCCESS) return {FromComplaint(model, tree.get())};
  if (txn == nullptr) return {};
  if (const common::Status deleted = DeleteVanished(model, *txn, diff.get()); !deleted)
    return {DataError{.message = deleted.error().Text()}};
  return {};
}

}  // namespace cdbd
