#include "edit/editor.h"

#include <algorithm>

#include "model/data_path.h"
#include "model/leaf_value.h"

namespace cdbd {
namespace {

using cdb_store::NodeId;
using cdb_store::NodeKind;

bool Removes(Operation operation) { return operation == Operation::kDelete || operation == Operation::kRemove; }

}  // namespace

std::optional<Operation> ParseOperation(std::string_view name) {
  if (name == "merge") return Operation::kMerge;
  if (name == "replace") return Operation::kReplace;
  if (name == "create") return Operation::kCreate;
  if (name == "delete") return Operation::kDelete;
  if (name == "remove") return Operation::kRemove;
  if (name == "none") return Operation::kNone;
  return std::nullopt;
}

DataErrors Editor::Apply(const Element& config) {
  Operation inherited = options_.default_operation;
  if (inherited == Operation::kReplace) {
    for (const NodeId child : schema_.root().children)
      if (schema_.node(child).config && !Store(txn_.Delete(schema_.node(child), {}))) return errors_;
    inherited = Operation::kMerge;
  }
  Children(schema_.root(), config, inherited);
  return std::move(errors_);
}

void Editor::Children(const Node& parent, const Element& holder, Operation inherited) {
  if (!holder.text.empty() && !netconf::Trim(holder.text).empty()) {
    DataError error{.tag = "bad-element", .message = "text where only elements are expected"};
    error.details = {{"bad-element", std::string{holder.name->local}}};
    return Fail(parent, std::move(error));
  }
  std::vector<Item> items;
  bool any_removal = false;
  for (const Element* child = holder.first_child; child != nullptr; child = child->next) {
    Item item{};
    if (Resolve(parent, *child, inherited, &item)) {
      any_removal |= Removes(item.operation);
      if (item.node != nullptr) items.push_back(item);
    } else if (Stopped()) {
      return;
    }
  }
  if (!CheckTogether(items)) return;
  // Removals first, so that the order of siblings in the edit does not matter.
  for (const bool removals : {true, false}) {
    if (removals && !any_removal) continue;
    for (const Item& item : items) {
      if (Removes(item.operation) != removals) continue;
      One(item);
      if (Stopped()) return;
    }
  }
}

// A key leaf of the parent, which has been read with the instance, leaves `node` null.
bool Editor::Resolve(const Node& parent, const Element& element, Operation inherited, Item* item) {
  const netconf::XmlName& name = *element.name;
  const int ns = model_.NamespaceIndex(name.ns);
  const Node* node = ns < 0 ? nullptr : schema_.FindChild(parent, name.local, ns);
  if (node == nullptr || schema_.ns(*node).uri != name.ns || !node->config) {
    DataError error{.tag = "unknown-element"};
    error.details = {{"bad-element", std::string{name.local}}};
    if (!model_.KnowsNamespace(name.ns)) {
      error.tag = "unknown-namespace";
      error.message = name.ns.empty() ? "'" + std::string{name.local} + "' is in no namespace"
                                      : "no data model has the namespace '" + std::string{name.ns} + "'";
      error.details.push_back({"bad-namespace", std::string{name.ns}});
    } else if (node != nullptr && !node->config) {
      error.message = "'" + node->name + "' is not configuration";
    } else {
      error.message = "the data model has no '" + std::string{name.local} + "' here";
    }
    Fail(parent, std::move(error));
    return false;
  }
  *item = {&element, node, inherited};
  for (const netconf::XmlAttribute* a = element.attributes; a != nullptr; a = a->next) {
    DataError error{.tag = "bad-attribute"};
    error.details = {{"bad-attribute", std::string{a->name->local}}, {"bad-element", std::string{name.local}}};
    if (a->name->ns == netconf::kBaseNs && a->name->local == "operation") {
      const auto operation = ParseOperation(a->value);
      if (operation && *operation != Operation::kNone && !(node->IsKeyLeaf() && Removes(*operation))) {
        item->operation = *operation;
        continue;
      }
      error.message = node->IsKeyLeaf() ? "a key cannot be deleted from its list entry"
                                        : "'" + std::string{a->value} + "' is not an operation";
    } else {
      error.tag = "unknown-attribute";
      error.message = "unexpected attribute '" + std::string{a->name->local} + "'";
    }
    Fail(parent, std::move(error));
    return false;
  }
  if (node->IsKeyLeaf()) item->node = nullptr;
  return true;
}

// One parent has at most one of each leaf and container, and of a choice only one case.
bool Editor::CheckTogether(const std::vector<Item>& items) {
  std::vector<NodeId> seen;
  std::vector<NodeId> kept;
  const auto in = [](const std::vector<NodeId>& all, NodeId id) {
    return std::find(all.rbegin(), all.rend(), id) != all.rend();
  };
  for (const Item& item : items) {
    const Node& node = *item.node;
    if (!in(seen, node.id)) {
      seen.push_back(node.id);
    } else if (!node.IsKeyed()) {
      DataError error{.tag = "bad-element", .message = "'" + node.name + "' is there more than once"};
      error.details = {{"bad-element", node.name}};
      Fail(node, std::move(error));
      return false;
    }
    if (Removes(item.operation) || in(kept, node.id)) continue;
    for (const NodeId rival : model_.extras(node).rivals) {
      if (!in(kept, rival)) continue;
      DataError error{.tag = "bad-element"};
      error.message = "'" + node.name + "' and '" + schema_.node(rival).name + "' are in different cases of one choice";
      error.details = {{"bad-element", node.name}};
      Fail(node, std::move(error));
      return false;
    }
    kept.push_back(node.id);
  }
  return true;
}

void Editor::One(const Item& item) {
  path_.push_back({item.node, keys_.size(), model_.extras(*item.node).rivals.empty()});
  switch (item.node->kind) {
    case NodeKind::kLeaf:
      Leaf(item);
      break;
    case NodeKind::kContainer:
      Container(item);
      break;
    default:
      Instance(item);
      break;
  }
  keys_.Truncate(path_.back().keys_size);
  path_.pop_back();
}

void Editor::Leaf(const Item& item) {
  const Node& node = *item.node;
  std::optional<std::string_view> present;
  if (!Read(txn_.Running().Leaf(node, keys_.keys()), &present)) return;
  const bool exists = present.has_value();
  if (item.operation == Operation::kCreate && exists) return Exists(node);
  if ((item.operation == Operation::kDelete || item.operation == Operation::kNone) && !exists) return Missing(node);
  if (Removes(item.operation)) {
    Store(txn_.Delete(node, keys_.keys()));
    return;
  }
  DataError error;
  const auto stored = StoredValue(model_, node, *item.element, &error);
  if (!stored) return Fail(node, std::move(error));
  if (item.operation == Operation::kNone) return;
  DecideChoices();
  Store(txn_.SetLeaf(node, keys_.keys(), *stored));
}

void Editor::Container(const Item& item) {
  const Node& node = *item.node;
  bool exists = false;
  switch (item.operation) {
    case Operation::kCreate:
      if (!Read(txn_.Running().Exists(node, keys_.keys()), &exists)) return;
      if (exists) return Exists(node);
      break;
    case Operation::kDelete:
      if (!Read(txn_.Running().Exists(node, keys_.keys()), &exists)) return;
      if (!exists) return Missing(node);
      [[fallthrough]];
    case Operation::kRemove:
      Store(txn_.Delete(node, keys_.keys()));
      return;
    case Operation::kReplace:
      if (!Store(txn_.Delete(node, keys_.keys()))) return;
      break;
    case Operation::kMerge:
    case Operation::kNone:
      break;
  }
  Children(node, *item.element, item.operation);
}

void Editor::Instance(const Item& item) {
  const Node& node = *item.node;
  if (!AppendKeys(item)) return;
  std::optional<std::string_view> present;
  if (!Read(txn_.Running().Row(node, keys_.keys()), &present)) return;
  const bool exists = present.has_value();
  if (item.operation == Operation::kCreate && exists) return Exists(node);
  if ((item.operation == Operation::kDelete || item.operation == Operation::kNone) && !exists) return Missing(node);
  if (Removes(item.operation) || (item.operation == Operation::kReplace && exists)) {
    if (exists && !Store(txn_.Delete(node, keys_.keys()))) return;
    if (Removes(item.operation)) return;
  }
  if (item.operation != Operation::kNone) {
    DecideChoices();
    if (!Store(txn_.Create(node, keys_.keys()))) return;
  }
  if (node.kind != NodeKind::kLeafList) Children(node, *item.element, item.operation);
}

bool Editor::AppendKeys(const Item& item) {
  const Node& node = *item.node;
  const auto append = [&](const Node& key, const Element& element) {
    DataError error;
    const auto stored = StoredValue(model_, key, element, &error);
    if (stored && keys_.Append(key.type, *stored)) return true;
    if (stored) error = {.tag = "invalid-value", .message = "the keys are too long to be stored"};
    keys_.Truncate(path_.back().keys_size);
    Fail(key, std::move(error));
    return false;
  };
  if (node.kind == NodeKind::kLeafList) return append(node, *item.element);
  for (const NodeId id : node.keys) {
    const Node& key = schema_.node(id);
    const std::string& ns = schema_.ns(key).uri;
    const Element* element = item.element->Child(ns, key.name);
    const Element* again = element;
    while (again != nullptr && (again == element || !again->Is(ns, key.name))) again = again->next;
    if (element == nullptr || again != nullptr) {
      DataError error{.tag = element == nullptr ? "missing-element" : "bad-element"};
      error.message = "key '" + key.name + "' of list '" + node.name + "' is " +
                      (element == nullptr ? "missing" : "there more than once");
      error.details = {{"bad-element", key.name}};
      keys_.Truncate(path_.back().keys_size);
      Fail(node, std::move(error));
      return false;
    }
    if (!append(key, *element)) return false;
  }
  return true;
}

// What is created decides the choices it and what it stands in belong to: the other cases go.
void Editor::DecideChoices() {
  for (Step& step : path_) {
    if (step.decided) continue;
    step.decided = true;
    const std::string_view parent = keys_.keys().substr(0, step.keys_size);
    for (const NodeId rival : model_.extras(*step.node).rivals)
      if (!Store(txn_.Delete(schema_.node(rival), parent))) return;
  }
}

bool Editor::Store(const common::Status& status) {
  if (status.ok()) return true;
  fatal_ = true;
  errors_.push_back({.message = status.error().Text()});
  return false;
}

void Editor::Fail(const Node& node, DataError error) {
  SetPath(model_, node, keys_.keys(), &error);
  errors_.push_back(std::move(error));
}

void Editor::Exists(const Node& node) { Fail(node, {.tag = "data-exists", .message = "it exists already"}); }
void Editor::Missing(const Node& node) { Fail(node, {.tag = "data-missing", .message = "it does not exist"}); }

}  // namespace cdbd
