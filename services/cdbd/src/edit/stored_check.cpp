#include "edit/stored_check.h"

#include <algorithm>

#include "cdb_store/instance_key.h"
#include "edit/validator.h"
#include "model/leaf_value.h"

namespace cdbd {
namespace {

using cdb_store::Node;

common::Status CheckValue(const Model& model, const Node& leaf, std::string_view stored, std::string_view keys) {
  DataError error;
  if (CanonicalValue(model, leaf, cdb_store::ValueToText(leaf, stored), &error)) return common::Ok();
  return common::Error{"", cdb_store::InstanceText(model.schema(), leaf, keys), error.message};
}

common::Status CheckRow(const Model& model, const Node& node, std::string_view keys, std::string_view row) {
  const cdb_store::Schema& schema = model.schema();
  const common::Error damaged{"", cdb_store::InstanceText(schema, node, keys), "its record is malformed"};
  const std::vector<std::string> own = cdb_store::OwnKeys(schema, node, keys);
  const size_t expected = node.kind == cdb_store::NodeKind::kLeafList ? 1 : node.keys.size();
  if (own.size() != expected) return damaged;
  for (size_t i = 0; i < own.size(); ++i) {
    const Node& leaf = node.kind == cdb_store::NodeKind::kLeafList ? node : schema.node(node.keys[i]);
    if (auto status = CheckValue(model, leaf, own[i], keys); !status) return status;
  }
  cdb_store::PackedRowReader reader{row};
  while (const auto leaf = reader.Next()) {
    if (leaf->id >= schema.size() || schema.node(leaf->id).row != node.id) return damaged;
    if (auto status = CheckValue(model, schema.node(leaf->id), leaf->value, keys); !status) return status;
  }
  if (!reader.ok()) return damaged;
  return common::Ok();
}

/// Of the cases of a choice only one may have data.
common::Status CheckChoices(const Model& model, const cdb_store::View& view, const Node& node, std::string_view keys) {
  const cdb_store::Schema& schema = model.schema();
  const cdb_store::Answer<bool> exists = view.Exists(node, keys);
  if (!exists.ok()) return exists.error();
  if (!exists.value()) return common::Ok();
  for (const cdb_store::NodeId rival : model.extras(node).rivals) {
    const cdb_store::Answer<bool> both = view.Exists(schema.node(rival), keys);
    if (!both.ok()) return both.error();
    if (both.value())
      return common::Error{"", cdb_store::InstanceText(schema, node, keys),
                           "\"" + schema.node(rival).name + "\" of another case of its choice is there too"};
  }
  return common::Ok();
}

/// Calls `check(keys, row)` for every instance of `node`, which has rows.
template <class Check>
common::Status ForEachInstance(const cdb_store::View& view, const Node& node, Check check) {
  cdb_store::RowCursor rows{view, node, {}};
  auto found = rows.Next();
  for (; found.ok() && found.value(); found = rows.Next())
    if (const common::Status status = check(rows.keys(), rows.row()); !status) return status;
  if (!found.ok()) return common::Error{"", view.schema().PathOf(node), found.error().reason, found.error().code};
  return common::Ok();
}

}  // namespace

common::Status CheckStored(const Model& model, const cdb_store::View& view) {
  const cdb_store::Schema& schema = model.schema();
  for (size_t id = 0; id < schema.size(); ++id) {
    const Node& node = schema.node(static_cast<cdb_store::NodeId>(id));
    if (!node.config) continue;
    common::Status status = common::Ok();
    if (node.HasRow())
      status = ForEachInstance(view, node, [&](auto keys, auto row) { return CheckRow(model, node, keys, row); });
    if (status && !model.extras(node).rivals.empty()) {
      const Node& holder = schema.node(schema.node(node.parent).row);
      const auto check = [&](std::string_view keys, std::string_view) { return CheckChoices(model, view, node, keys); };
      // The root need not have a row for what is below it.
      status = holder.id == cdb_store::kRootId ? check({}, {}) : ForEachInstance(view, holder, check);
    }
    if (!status) return status;
  }
  if (!model.has_constraints()) return common::Ok();
  const DataErrors errors = Validate(model, view, nullptr);
  if (errors.empty()) return common::Ok();
  return common::Error{"", errors.front().path.empty() ? "/" : errors.front().path, errors.front().message};
}

}  // namespace cdbd
