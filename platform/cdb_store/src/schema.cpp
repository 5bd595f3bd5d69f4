#include "cdb_store/schema.h"

#include <algorithm>
#include <set>
#include <utility>

#include "common/byte_io.h"

namespace cdb_store {
namespace {

constexpr uint32_t kSchemaVersion = 1;
constexpr size_t kMaxPathElements = 20;  // of a client's keypath
constexpr size_t kMaxListKeys = 8;

common::Error Invalid(const std::string& object, std::string reason) { return {"schema", object, std::move(reason)}; }

/// The order of a node's children for look-ups: most names differ in length, which costs less to compare than text.
bool ShorterFirst(std::string_view a, std::string_view b) { return a.size() != b.size() ? a.size() < b.size() : a < b; }

void PutNode(common::ByteWriter& out, const Node& node) {
  out.Put(node.parent);
  out.Put(static_cast<uint8_t>(node.kind));
  out.Put(static_cast<uint8_t>(node.config));
  out.Put(node.ns);
  out.Put(node.tag);
  out.PutString(node.name);
  out.PutString(node.callpoint);
  out.Put(static_cast<uint8_t>(node.type));
  out.Put(static_cast<uint8_t>(node.binary_text));
  out.Put(node.fraction_digits);
  out.Put(static_cast<uint32_t>(node.enums.size()));
  for (const EnumName& name : node.enums) {
    out.PutString(name.name);
    out.Put(name.value);
  }
  out.Put(static_cast<uint16_t>(node.keys.size()));
  for (const NodeId key : node.keys) out.Put(key);
}

Node GetNode(common::ByteReader& in) {
  Node node;
  node.parent = in.Get<NodeId>();
  node.kind = static_cast<NodeKind>(in.Get<uint8_t>());
  node.config = in.Get<uint8_t>() != 0;
  node.ns = in.Get<uint16_t>();
  node.tag = in.Get<uint32_t>();
  node.name = in.GetString();
  node.callpoint = in.GetString();
  node.type = static_cast<ValueType>(in.Get<uint8_t>());
  node.binary_text = static_cast<BinaryText>(in.Get<uint8_t>());
  node.fraction_digits = in.Get<uint8_t>();
  for (uint32_t n = in.Get<uint32_t>(); n > 0 && in.ok(); --n) {
    EnumName name;
    name.name = in.GetString();
    name.value = in.Get<int32_t>();
    node.enums.push_back(std::move(name));
  }
  for (uint16_t n = in.Get<uint16_t>(); n > 0 && in.ok(); --n) node.keys.push_back(in.Get<NodeId>());
  return node;
}

/// Bytes may hold numbers that no kind or type has.
bool IsKnown(const Node& node) {
  const bool kind = node.kind > NodeKind::kRoot && node.kind <= NodeKind::kLeafList;
  const bool type = node.type <= ValueType::kDecimal64 && node.type != static_cast<ValueType>(2);
  return kind && type && node.binary_text <= BinaryText::kOctets;
}

}  // namespace

uint32_t NameHash(std::string_view name) {
  uint32_t hash = 2166136261U;
  for (const char c : name) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619U;
  return hash == 0 ? 1 : hash;
}

uint64_t TextHash(std::string_view text) {
  uint64_t hash = 14695981039346656037U;
  for (const char c : text) hash = (hash ^ static_cast<uint8_t>(c)) * 1099511628211U;
  return hash;
}

int Schema::FindNamespace(uint32_t hash) const {
  const auto it = std::ranges::find(namespaces_, hash, &Namespace::hash);
  return it == namespaces_.end() ? -1 : static_cast<int>(it - namespaces_.begin());
}

int Schema::FindNamespaceByPrefix(std::string_view prefix) const {
  for (size_t i = 0; i < namespaces_.size(); ++i) {
    if (namespaces_[i].prefix == prefix || namespaces_[i].module == prefix) return static_cast<int>(i);
  }
  return -1;
}

const Node* Schema::FindChild(const Node& parent, std::string_view name, int ns) const {
  const auto& order = parent.children_by_name;
  auto it = std::ranges::lower_bound(order, name, ShorterFirst,
                                     [this](NodeId id) -> std::string_view { return nodes_[id].name; });
  const Node* found = nullptr;
  for (; it != order.end() && nodes_[*it].name == name; ++it) {
    const Node& child = nodes_[*it];
    if (ns >= 0 ? child.ns == ns : found == nullptr || child.ns == parent.ns) found = &child;
  }
  return found;
}

const Node* Schema::FindChildByTag(const Node& parent, uint32_t tag, uint32_t ns_hash) const {
  for (const NodeId id : parent.children) {
    const Node& child = nodes_[id];
    if (child.tag == tag && (ns_hash == 0 || ns(child).hash == ns_hash)) return &child;
  }
  return nullptr;
}

const Node* Schema::FindPath(std::string_view path) const {
  const Node* node = &root();
  while (!path.empty() && node != nullptr) {
    if (path.front() != '/') return nullptr;
    path.remove_prefix(1);
    std::string_view name = path.substr(0, path.find('/'));
    path.remove_prefix(name.size());
    int ns = -1;
    if (const size_t colon = name.find(':'); colon != std::string_view::npos) {
      ns = FindNamespaceByPrefix(name.substr(0, colon));
      if (ns < 0) return nullptr;
      name.remove_prefix(colon + 1);
    }
    node = FindChild(*node, name, ns);
  }
  return node == &root() ? nullptr : node;
}

std::vector<const Node*> Schema::KeyedNodesTo(const Node& node) const {
  std::vector<const Node*> nodes;
  for (const Node* n = &node; n->id != kRootId; n = &nodes_[n->parent]) {
    if (n->IsKeyed()) nodes.push_back(n);
  }
  std::ranges::reverse(nodes);
  return nodes;
}

std::string Schema::PathOf(const Node& node) const {
  if (node.id == kRootId) return "/";
  const Node& parent = nodes_[node.parent];
  std::string path = parent.id == kRootId ? "" : PathOf(parent);
  path += "/";
  if (parent.id == kRootId || parent.ns != node.ns) path += ns(node).prefix + ":";
  return path + node.name;
}

std::string Schema::Serialise() const {
  common::ByteWriter out;
  out.Put(kSchemaVersion);
  out.Put(static_cast<uint16_t>(namespaces_.size()));
  for (const Namespace& ns : namespaces_) {
    out.Put(ns.hash);
    out.PutString(ns.prefix);
    out.PutString(ns.module);
    out.PutString(ns.uri);
  }
  out.Put(static_cast<uint32_t>(nodes_.size()));
  for (size_t i = 1; i < nodes_.size(); ++i) PutNode(out, nodes_[i]);
  return out.Take();
}

common::Result<Schema> Schema::Parse(std::string_view bytes) {
  common::ByteReader in(bytes);
  if (const auto version = in.Get<uint32_t>(); !in.ok() || version != kSchemaVersion) {
    return Invalid("", "written by another version of this software");
  }
  Schema schema;
  for (uint16_t n = in.Get<uint16_t>(); n > 0 && in.ok(); --n) {
    Namespace ns;
    ns.hash = in.Get<uint32_t>();
    ns.prefix = in.GetString();
    ns.module = in.GetString();
    ns.uri = in.GetString();
    schema.namespaces_.push_back(std::move(ns));
  }
  const auto count = in.Get<uint32_t>();
  if (!in.ok() || count == 0 || count > kMaxNodeId) return Invalid("", "damaged");
  schema.nodes_.emplace_back();
  for (uint32_t i = 1; i < count && in.ok(); ++i) {
    Node node = GetNode(in);
    if (!in.ok() || !IsKnown(node) || node.parent >= i || node.ns >= schema.namespaces_.size()) {
      return Invalid("", "damaged");
    }
    node.id = static_cast<NodeId>(i);
    schema.nodes_[node.parent].children.push_back(node.id);
    schema.nodes_.push_back(std::move(node));
  }
  if (!in.AtEnd()) return Invalid("", "damaged");
  if (auto status = schema.Complete(); !status) return status.error();
  return schema;
}

uint64_t Schema::Fingerprint() const {
  common::ByteWriter out;
  for (const Node& node : nodes_) {
    if (node.id == kRootId || !node.config) continue;
    out.Put(node.id);
    out.Put(node.parent);
    out.Put(static_cast<uint8_t>(node.kind));
    out.Put(static_cast<uint8_t>(node.type));
    out.Put(node.fraction_digits);
    out.PutString(ns(node).uri);
    out.PutString(node.name);
    for (const NodeId key : node.keys) out.Put(key);
    for (const EnumName& name : node.enums) {
      out.PutString(name.name);
      out.Put(name.value);
    }
  }
  return TextHash(out.data());
}

common::Status Schema::Complete() {
  if (nodes_.size() > kMaxNodeId) return Invalid("", "too many nodes");
  for (size_t i = nodes_.size(); i-- > 0;) {
    Node& node = nodes_[i];
    node.end = node.children.empty() ? static_cast<NodeId>(i + 1) : nodes_[node.children.back()].end;
  }
  for (size_t i = 1; i < nodes_.size(); ++i) {
    Node& node = nodes_[i];
    const Node& parent = nodes_[node.parent];
    const std::string path = PathOf(node);
    if (parent.kind == NodeKind::kLeaf || parent.kind == NodeKind::kLeafList) return Invalid(path, "is below a leaf");
    if (node.id >= parent.end) return Invalid(path, "is out of schema order");
    node.config = node.config && parent.config;
    node.row = node.HasRow() ? node.id : parent.row;
    node.path_elements = static_cast<uint8_t>(parent.path_elements + (node.IsKeyed() ? 2 : 1));
    if (node.path_elements > kMaxPathElements) return Invalid(path, "is too deep");
    const bool is_leaf = node.kind == NodeKind::kLeaf || node.kind == NodeKind::kLeafList;
    if (is_leaf == (node.type == ValueType::kNone)) return Invalid(path, "has no type, or one that it cannot have");
    if (node.kind == NodeKind::kLeafList && node.type == ValueType::kEmpty)
      return Invalid(path, "a leaf-list of empty");
    if (node.kind == NodeKind::kList && node.config && node.keys.empty()) return Invalid(path, "has no key");
    if (node.kind != NodeKind::kList && !node.keys.empty()) return Invalid(path, "has a key, but is no list");
    if (node.keys.size() > kMaxListKeys) return Invalid(path, "has more than 8 keys");
  }
  for (Node& node : nodes_) {
    for (size_t k = 0; k < node.keys.size(); ++k) {
      if (node.keys[k] >= nodes_.size()) return Invalid(PathOf(node), "has a key that is no leaf of it");
      Node& key = nodes_[node.keys[k]];
      if (key.parent != node.id || key.kind != NodeKind::kLeaf || key.IsKeyLeaf()) {
        return Invalid(PathOf(node), "has a key that is no leaf of it");
      }
      key.key_index = static_cast<int8_t>(k);
    }
    std::set<std::pair<uint32_t, uint32_t>> tags;
    std::set<std::pair<uint16_t, std::string>> names;
    for (const NodeId id : node.children) {
      const Node& child = nodes_[id];
      if (!names.emplace(child.ns, child.name).second) return Invalid(PathOf(child), "exists twice");
      if (!tags.emplace(ns(child).hash, child.tag).second) return Invalid(PathOf(child), "has a sibling's tag");
    }
    node.children_by_name = node.children;
    std::ranges::sort(node.children_by_name, ShorterFirst,
                      [this](NodeId id) -> std::string_view { return nodes_[id].name; });
    node.rows_below.clear();
    for (NodeId id = node.id; id < node.end; ++id) {
      if (nodes_[id].HasRow()) node.rows_below.push_back(id);
    }
  }
  return common::Ok();
}

}  // namespace cdb_store
