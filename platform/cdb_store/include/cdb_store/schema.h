#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/value.h"
#include "common/result.h"

namespace cdb_store {

/// Number of a node in its schema, in schema order (depth first). 0 is the root, which is no data node.
using NodeId = uint16_t;
inline constexpr NodeId kRootId = 0;
inline constexpr NodeId kMaxNodeId = 0xfffe;  ///< 0xffff marks count records in the store

enum class NodeKind : uint8_t {
  kRoot,
  kContainer,  ///< without presence: exists when it has content
  kPresenceContainer,
  kList,
  kLeaf,
  kLeafList
};

struct Namespace {
  uint32_t hash = 0;
  std::string prefix;
  std::string module;
  std::string uri;
};

struct EnumName {
  std::string name;
  int32_t value = 0;
};

/// One data node of the model; choices and cases are not nodes. Owned by its Schema, never changes.
struct Node {
  NodeId id = 0;
  NodeId parent = 0;
  NodeKind kind = NodeKind::kRoot;
  bool config = true;
  uint16_t ns = 0;   ///< index into Schema::namespaces()
  uint32_t tag = 0;  ///< by which programs name the node
  std::string name;
  std::string callpoint;  ///< of a config false list; empty when nobody provides it

  ValueType type = ValueType::kNone;
  BinaryText binary_text = BinaryText::kBase64;
  uint8_t fraction_digits = 0;
  std::vector<EnumName> enums;  ///< of an enumeration, or of a union with an enumeration in it

  std::vector<NodeId> keys;      ///< of a list: its key leaves in key order
  std::vector<NodeId> children;  ///< in schema order

  /* Filled in by the schema. */
  NodeId end = 0;             ///< first id past this node's subtree
  NodeId row = 0;             ///< the node whose row holds this one: itself for what has rows, else the nearest above
  int8_t key_index = -1;      ///< of a key leaf: its place among the list's keys
  uint8_t path_elements = 0;  ///< elements of the keypath of an instance (a list counts 2)
  std::vector<NodeId> rows_below;        ///< row nodes (HasRow) in the subtree, this one included
  std::vector<NodeId> children_by_name;  ///< ordered for FindChild()

  /// Every instance has a row of its own in the store: lists, leaf-lists, presence containers (and the root, for
  /// leaves outside of them).
  [[nodiscard]] bool HasRow() const noexcept { return kind != NodeKind::kContainer && kind != NodeKind::kLeaf; }
  /// Instances are counted and have keys of their own.
  [[nodiscard]] bool IsKeyed() const noexcept { return kind == NodeKind::kList || kind == NodeKind::kLeafList; }
  [[nodiscard]] bool IsKeyLeaf() const noexcept { return key_index >= 0; }
};

/// The data model as programs and the store see it: a compact tree, built once by SchemaBuilder and kept in the store,
/// so that clients need no compiler for it. Immutable; copying is cheap enough for start-up only.
class Schema final {
 public:
  Schema() = default;

  [[nodiscard]] const Node& node(NodeId id) const { return nodes_[id]; }
  [[nodiscard]] const Node& root() const { return nodes_[kRootId]; }
  [[nodiscard]] size_t size() const noexcept { return nodes_.size(); }
  [[nodiscard]] const std::vector<Namespace>& namespaces() const noexcept { return namespaces_; }
  [[nodiscard]] const Namespace& ns(const Node& node) const { return namespaces_[node.ns]; }

  /// Index of the namespace, or -1.
  [[nodiscard]] int FindNamespace(uint32_t hash) const;
  [[nodiscard]] int FindNamespaceByPrefix(std::string_view prefix) const;  ///< prefix or module name

  /// The child of that name; `ns` is an index or -1 for any. Null when there is none. A name that two modules give to
  /// children of one node is found only with its namespace (the parent's own is preferred).
  [[nodiscard]] const Node* FindChild(const Node& parent, std::string_view name, int ns = -1) const;
  /// The child with that tag; `ns_hash` 0 stands for any namespace.
  [[nodiscard]] const Node* FindChildByTag(const Node& parent, uint32_t tag, uint32_t ns_hash) const;
  /// The node at a keyless path, "/ais:config/anti-ip-spoofing/interface". Null when there is none.
  [[nodiscard]] const Node* FindPath(std::string_view path) const;

  /// `ancestor` is `node` or above it.
  [[nodiscard]] static bool IsAtOrAbove(const Node& ancestor, const Node& node) noexcept {
    return ancestor.id <= node.id && node.id < ancestor.end;
  }
  /// The lists and the leaf-list whose keys an instance of `node` needs, from the top down, `node` included.
  [[nodiscard]] std::vector<const Node*> KeyedNodesTo(const Node& node) const;
  /// "/ais:config/anti-ip-spoofing/interface/allowed-ip": prefixes where the namespace changes.
  [[nodiscard]] std::string PathOf(const Node& node) const;

  [[nodiscard]] std::string Serialise() const;
  /// Fails on bytes that are no schema of this version.
  static common::Result<Schema> Parse(std::string_view bytes);
  /// Hash over everything that says how data is stored: two schemas with the same one read each other's rows.
  [[nodiscard]] uint64_t Fingerprint() const;

 private:
  friend class SchemaBuilder;
  common::Status Complete();  ///< fills in what is derived, and checks the whole

  std::vector<Namespace> namespaces_;
  std::vector<Node> nodes_;
};

/// Hash for nodes and namespaces that are given no number of their own (32-bit FNV-1a).
uint32_t NameHash(std::string_view name);

/// Hash for telling long texts apart (64-bit FNV-1a).
uint64_t TextHash(std::string_view text);

}  // namespace cdb_store
