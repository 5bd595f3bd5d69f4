#include "cdb_store/schema_builder.h"

#include <utility>

namespace cdb_store {

SchemaBuilder::SchemaBuilder() : key_names_(1) { schema_.nodes_.emplace_back(); }

uint16_t SchemaBuilder::AddNamespace(Namespace ns) {
  if (ns.hash == 0) ns.hash = NameHash(ns.uri);
  if (schema_.FindNamespace(ns.hash) >= 0 && !error_) error_ = {"schema", ns.uri, "has another namespace's hash"};
  schema_.namespaces_.push_back(std::move(ns));
  return static_cast<uint16_t>(schema_.namespaces_.size() - 1);
}

NodeId SchemaBuilder::Add(NodeId parent, uint16_t ns, NodeSpec spec) {
  const auto fail = [&](const char* reason) {
    if (!error_) error_ = {"schema", spec.name, reason};
    return kRootId;
  };
  auto& nodes = schema_.nodes_;
  if (nodes.size() >= kMaxNodeId) return fail("is one node too many");
  if (parent >= nodes.size() || ns >= schema_.namespaces_.size()) return fail("has an unknown parent or namespace");
  // Schema order needs the parent on the way from the root to the node added last.
  NodeId last = static_cast<NodeId>(nodes.size() - 1);
  while (last != parent && last != kRootId) last = nodes[last].parent;
  if (last != parent) return fail("comes after its parent's subtree was left");

  Node node;
  node.id = static_cast<NodeId>(nodes.size());
  node.parent = parent;
  node.kind = spec.kind;
  node.config = spec.config;
  node.ns = ns;
  node.tag = spec.tag.value_or(NameHash(spec.name));
  node.name = std::move(spec.name);
  node.callpoint = std::move(spec.callpoint);
  node.type = spec.type;
  node.binary_text = spec.binary_text;
  node.fraction_digits = spec.fraction_digits;
  node.enums = std::move(spec.enums);
  nodes[parent].children.push_back(node.id);
  nodes.push_back(std::move(node));
  key_names_.push_back(std::move(spec.keys));
  return static_cast<NodeId>(nodes.size() - 1);
}

common::Result<Schema> SchemaBuilder::Build() {
  if (error_) return *error_;
  Schema schema = schema_;
  for (Node& node : schema.nodes_) {
    for (const std::string& name : key_names_[node.id]) {
      NodeId key = kRootId;
      for (const NodeId id : node.children) {
        if (schema.nodes_[id].name == name && schema.nodes_[id].ns == node.ns) key = id;
      }
      if (key == kRootId) return common::Error{"schema", schema.PathOf(node), "has no leaf for its key " + name};
      node.keys.push_back(key);
    }
  }
  if (auto status = schema.Complete(); !status) return status.error();
  return schema;
}

}  // namespace cdb_store
