#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cdb_store/schema.h"

namespace cdb_store {

/// What a new node is told; what does not apply to its kind stays at its default.
struct NodeSpec {
  NodeKind kind = NodeKind::kLeaf;
  std::string name{};
  std::optional<uint32_t> tag{};  ///< NameHash(name) without one
  bool config = true;             ///< false is inherited
  std::string callpoint{};
  ValueType type = ValueType::kNone;
  BinaryText binary_text = BinaryText::kBase64;
  uint8_t fraction_digits = 0;
  std::vector<EnumName> enums{};
  std::vector<std::string> keys{};  ///< of a list: names of its key leaves, in key order; none only with config false
};

/// Builds a schema in schema order: a node's parent is the last added node or one of its ancestors.
///
///   SchemaBuilder builder;
///   const uint16_t ns = builder.AddNamespace({0x41fef11b, "ais", "anti-ip-spoofing", "urn:..."});
///   const NodeId config = builder.Add(kRootId, ns, {.kind = NodeKind::kContainer, .name = "config"});
///   ...
///   Result<Schema> schema = builder.Build();
class SchemaBuilder final {
 public:
  SchemaBuilder();

  /// Index for Add(). A hash of 0 stands for NameHash(uri).
  uint16_t AddNamespace(Namespace ns);
  /// The node's id. Mistakes are remembered and told by Build().
  NodeId Add(NodeId parent, uint16_t ns, NodeSpec spec);
  /// The schema, or the first mistake: a key that is no leaf, two siblings with one tag or name, more elements on a
  /// path or keys in a list than a keypath can hold, too many nodes, ...
  common::Result<Schema> Build();

 private:
  Schema schema_;
  std::vector<std::vector<std::string>> key_names_;  ///< by node
  std::optional<common::Error> error_;
};

}  // namespace cdb_store
