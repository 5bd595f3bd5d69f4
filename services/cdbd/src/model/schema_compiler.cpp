#include "model/schema_compiler.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "yang/last_error.h"

namespace cdbd {
namespace {

using cdb_store::BinaryText;
using cdb_store::NodeId;
using cdb_store::NodeKind;
using cdb_store::NodeSpec;
using cdb_store::ValueType;
using common::Error;

constexpr const char* kExtensionModule = "cdb-extensions";

/// The argument of our extension `name` among `extensions`; null if it is not used.
const char* Extension(const lysc_ext_instance* extensions, const char* name) {
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(extensions, i) {
    const lysc_ext* def = extensions[i].def;
    if (def != nullptr && std::strcmp(def->name, name) == 0 && std::strcmp(def->module->name, kExtensionModule) == 0)
      return extensions[i].argument != nullptr ? extensions[i].argument : "";
  }
  return nullptr;
}

std::optional<uint32_t> ParseNumber(const char* text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || value > UINT32_MAX) return std::nullopt;
  return static_cast<uint32_t>(value);
}

Error Refuse(const lysc_node& node, std::string why) {
  char* path = lysc_path(&node, LYSC_PATH_DATA, nullptr, 0);
  Error error{"data model", path != nullptr ? path : node.name, std::move(why)};
  std::free(path);
  return error;
}

const lysc_type* TypeOf(const lysc_node& node) {
  if (node.nodetype == LYS_LEAF) return reinterpret_cast<const lysc_node_leaf&>(node).type;
  return reinterpret_cast<const lysc_node_leaflist&>(node).type;
}

void CollectEnums(const lysc_type* type, std::vector<cdb_store::EnumName>* enums) {
  if (type->basetype == LY_TYPE_ENUM) {
    const auto* enumeration = reinterpret_cast<const lysc_type_enum*>(type);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(enumeration->enums, i) enums->push_back({enumeration->enums[i].name, enumeration->enums[i].value});
  } else if (type->basetype == LY_TYPE_UNION) {
    const auto* members = reinterpret_cast<const lysc_type_union*>(type);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(members->types, i) CollectEnums(members->types[i], enums);
  }
}

ValueType PlainType(LY_DATA_TYPE type) {
  switch (type) {
    case LY_TYPE_EMPTY:
      return ValueType::kEmpty;
    case LY_TYPE_INT8:
      return ValueType::kInt8;
    case LY_TYPE_INT16:
      return ValueType::kInt16;
    case LY_TYPE_INT32:
      return ValueType::kInt32;
    case LY_TYPE_INT64:
      return ValueType::kInt64;
    case LY_TYPE_UINT8:
      return ValueType::kUint8;
    case LY_TYPE_UINT16:
      return ValueType::kUint16;
    case LY_TYPE_UINT32:
      return ValueType::kUint32;
    case LY_TYPE_UINT64:
      return ValueType::kUint64;
    case LY_TYPE_BOOL:
      return ValueType::kBool;
    case LY_TYPE_ENUM:
      return ValueType::kEnum;
    case LY_TYPE_BINARY:
      return ValueType::kBinary;
    case LY_TYPE_DEC64:
      return ValueType::kDecimal64;
    default:
      return ValueType::kString;
  }
}

/// The data nodes that stand directly in the case or choice, those in nested choices included.
void CollectData(const lysc_node* first, std::vector<NodeId>* out) {
  for (const lysc_node* node = first; node != nullptr; node = node->next) {
    if ((node->nodetype & (LYS_CHOICE | LYS_CASE)) != 0)
      CollectData(lysc_node_child(node), out);
    else if ((node->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST)) != 0)
      out->push_back(Model::IdOf(*node));
  }
}

}  // namespace

common::Status SchemaCompiler::Run() {
  model_.extras_.emplace_back();
  uint32_t index = 0;
  while (const lys_module* module = ly_ctx_get_module_iter(model_.context_.get(), &index)) {
    if (module->implemented == 0 || module->compiled == nullptr || module->compiled->data == nullptr) continue;
    if (const common::Status added = AddChildren(module->compiled->data, cdb_store::kRootId, false); !added)
      return added;
  }
  auto schema = builder_.Build();
  if (!schema) return schema.error();
  model_.schema_ = std::move(schema).value();
  std::string modules;
  index = 0;
  while (const lys_module* module = ly_ctx_get_module_iter(model_.context_.get(), &index))
    modules += std::string{module->name} + "@" + (module->revision != nullptr ? module->revision : "") +
               (module->implemented != 0 ? "+" : "") + "\n";
  model_.content_id_ = std::to_string(cdb_store::NameHash(modules));
  FindRivals();
  return SetVersion();
}

// The compiled form has what augments, deviations, features and typedefs of other modules make of a module.
common::Status SchemaCompiler::SetVersion() {
  std::string text;
  uint32_t index = 0;
  while (const lys_module* module = ly_ctx_get_module_iter(model_.context_.get(), &index)) {
    if (module->implemented == 0 || module->compiled == nullptr || module->compiled->data == nullptr) continue;
    char* printed = nullptr;
    if (lys_print_mem(&printed, module, LYS_OUT_YANG_COMPILED, 0) != LY_SUCCESS)
      return Error{"read data model", module->name, yang::ReadLastError(model_.context_.get()).message};
    text += printed;
    std::free(printed);
  }
  model_.version_ = std::to_string(cdb_store::TextHash(text));
  return common::Ok();
}

uint16_t SchemaCompiler::NamespaceOf(const lys_module& module) {
  if (const auto found = namespaces_.find(&module); found != namespaces_.end()) return found->second;
  uint32_t hash = 0;
  if (const char* text = Extension(module.compiled->exts, "namespace-hash")) hash = ParseNumber(text).value_or(0);
  const uint16_t ns = builder_.AddNamespace({hash, module.prefix, module.name, module.ns});
  namespaces_.emplace(&module, ns);
  return ns;
}

common::Status SchemaCompiler::AddChildren(const lysc_node* first, NodeId parent, bool under_provider) {
  for (const lysc_node* node = first; node != nullptr; node = node->next)
    if (const common::Status added = AddNode(*node, parent, under_provider); !added) return added;
  return common::Ok();
}

common::Status SchemaCompiler::AddNode(const lysc_node& node, NodeId parent, bool under_provider) {
  const bool config = (node.flags & LYS_CONFIG_W) != 0;
  if (config) NoteConstraints(node);
  if ((node.nodetype & (LYS_CHOICE | LYS_CASE)) != 0)
    return AddChildren(lysc_node_child(&node), parent, under_provider);

  const char* callpoint = Extension(node.exts, "callpoint");
  if (callpoint != nullptr && (config || node.nodetype != LYS_LIST || under_provider))
    return Refuse(node, "a callpoint is for a config false list outside of another callpoint");
  if (under_provider && (node.nodetype & (LYS_LEAF | LYS_CONTAINER)) == 0)
    return Refuse(node, "a provided list may hold leaves and containers only");

  NodeSpec spec;
  spec.name = node.name;
  spec.config = config;
  if (callpoint != nullptr) spec.callpoint = callpoint;
  if (const char* tag = Extension(node.exts, "tag")) {
    spec.tag = ParseNumber(tag);
    if (!spec.tag) return Refuse(node, std::string{"tag "} + tag + " is not a 32-bit number");
  }
  switch (node.nodetype) {
    case LYS_CONTAINER:
      spec.kind = (node.flags & LYS_PRESENCE) != 0 ? NodeKind::kPresenceContainer : NodeKind::kContainer;
      break;
    case LYS_LIST:
      spec.kind = NodeKind::kList;
      break;
    case LYS_LEAF:
      spec.kind = NodeKind::kLeaf;
      break;
    case LYS_LEAFLIST:
      spec.kind = NodeKind::kLeafList;
      break;
    default:
      if (config) return Refuse(node, "anydata and anyxml cannot be configuration here");
      return common::Ok();
  }
  if (config && (node.nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0 && (node.flags & LYS_ORDBY_USER) != 0)
    return Refuse(node, "lists ordered by the user cannot be configuration here");
  if ((node.nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0)
    if (const common::Status filled = FillType(node, &spec); !filled) return filled;
  if (node.nodetype == LYS_LIST)
    for (const lysc_node* child = lysc_node_child(&node); child != nullptr; child = child->next)
      if (lysc_is_key(child)) spec.keys.emplace_back(child->name);

  const NodeId id = builder_.Add(parent, NamespaceOf(*node.module), std::move(spec));
  // The library's place for what its users attach: a number here, never followed as a pointer.
  const_cast<lysc_node&>(node).priv =
      reinterpret_cast<void*>(static_cast<uintptr_t>(id));  // NOLINT(performance-no-int-to-ptr)
  model_.extras_.resize(std::max<size_t>(model_.extras_.size(), size_t{id} + 1));
  model_.extras_[id].schema = &node;
  return AddChildren(lysc_node_child(&node), id, under_provider || callpoint != nullptr);
}

common::Status SchemaCompiler::FillType(const lysc_node& node, NodeSpec* spec) const {
  const lysc_type* type = TypeOf(node);
  while (type->basetype == LY_TYPE_LEAFREF) type = reinterpret_cast<const lysc_type_leafref*>(type)->realtype;
  spec->type = PlainType(type->basetype);
  CollectEnums(type, &spec->enums);
  if (type->basetype == LY_TYPE_DEC64)
    spec->fraction_digits = reinterpret_cast<const lysc_type_dec*>(type)->fraction_digits;
  const char* form = Extension(node.exts, "stored-as");
  if (form == nullptr) return common::Ok();
  const std::string_view name{form};
  if (type->basetype == LY_TYPE_UNION && !spec->config && name == "octets") {
    spec->binary_text = BinaryText::kOctets;  // of the values that are octets; each has a type of its own
    return common::Ok();
  }
  if (type->basetype != LY_TYPE_STRING) return Refuse(node, "stored-as is for strings");
  if (name == "octets") {
    spec->type = ValueType::kBinary;
    spec->binary_text = BinaryText::kOctets;
  } else if (name == "ipv4") {
    spec->type = ValueType::kIpv4;
  } else if (name == "ipv6") {
    spec->type = ValueType::kIpv6;
  } else {
    return Refuse(node, "stored-as " + std::string{name} + " is not octets, ipv4 or ipv6");
  }
  return common::Ok();
}

// A rule on a leaf's own value is checked when the value is; any other needs the data around it.
void SchemaCompiler::NoteConstraints(const lysc_node& node) {
  bool found = lysc_has_when(&node) != nullptr || (node.flags & LYS_MAND_TRUE) != 0;
  if (const lysc_must* musts = lysc_node_musts(&node)) found |= LY_ARRAY_COUNT(musts) > 0;
  if (node.nodetype == LYS_LIST) {
    const auto& list = reinterpret_cast<const lysc_node_list&>(node);
    found |= list.min > 0 || (list.max != 0 && list.max != UINT32_MAX) || LY_ARRAY_COUNT(list.uniques) > 0;
  } else if (node.nodetype == LYS_LEAFLIST) {
    const auto& list = reinterpret_cast<const lysc_node_leaflist&>(node);
    found |= list.min > 0 || (list.max != 0 && list.max != UINT32_MAX);
  }
  const lysc_node* self = &node;
  if (lysc_is_key(self)) found = lysc_has_when(&node) != nullptr;  // a key is always there
  if ((node.nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0) {
    std::vector<const lysc_type*> open{TypeOf(node)};
    while (!open.empty()) {
      const lysc_type* type = open.back();
      open.pop_back();
      if (type->basetype == LY_TYPE_LEAFREF || type->basetype == LY_TYPE_INST) found = true;
      if (type->basetype != LY_TYPE_UNION) continue;
      const auto* members = reinterpret_cast<const lysc_type_union*>(type);
      LY_ARRAY_COUNT_TYPE i;
      LY_ARRAY_FOR(members->types, i) open.push_back(members->types[i]);
    }
  }
  model_.has_constraints_ |= found;
}

void SchemaCompiler::FindRivals() {
  for (NodeExtras& extras : model_.extras_) {
    if (extras.schema == nullptr || (extras.schema->flags & LYS_CONFIG_W) == 0) continue;
    for (const lysc_node* at = extras.schema; at->parent != nullptr; at = at->parent) {
      if ((at->parent->nodetype & (LYS_CHOICE | LYS_CASE)) == 0) break;
      if (at->nodetype != LYS_CASE) continue;
      for (const lysc_node* other = lysc_node_child(at->parent); other != nullptr; other = other->next)
        if (other != at) CollectData(lysc_node_child(other), &extras.rivals);
    }
  }
}

}  // namespace cdbd
