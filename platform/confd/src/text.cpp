// Keypaths and values as text.
#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "cdb_store/instance_key.h"
#include "cdb_store/value.h"
#include "client.h"
#include "values.h"

using cdb_store::Node;
using cdb_store::Schema;

namespace {

int CopyText(const std::string& text, char* buf, int size) {
  if (buf != nullptr && size > 0) {
    const size_t cut = std::min(text.size(), static_cast<size_t>(size) - 1);
    std::memcpy(buf, text.data(), cut);
    buf[cut] = '\0';
  }
  return static_cast<int>(text.size());
}

/// The top node's or a child's name; with its prefix where the bare name would not parse back.
std::string NodeText(const Schema& schema, const Node& parent, const Node& node) {
  const auto same_name = [&](cdb_store::NodeId id) { return schema.node(id).name == node.name; };
  const bool bare =
      parent.id == cdb_store::kRootId ? std::ranges::count_if(parent.children, same_name) == 1 : parent.ns == node.ns;
  return bare ? node.name : schema.ns(node).prefix + ":" + node.name;
}

std::string KeyText(const Node* leaf, const confd_value_t& value) {
  confd_wire::Value wire;
  if (leaf == nullptr || !confd::ToWire(value, wire) || wire.type != leaf->type) return confd::ValueText(value);
  if (wire.type == cdb_store::ValueType::kDecimal64) wire.stored.pop_back();
  return cdb_store::ValueToText(*leaf, wire.stored);
}

/// Nothing when a list is without a place for keys, or the keys' end is missing.
std::optional<std::string> KeysText(const Schema& schema, const Node& node, const confd_value_t (&keys)[MAXKEYLEN]) {
  std::string text = "{";
  for (size_t k = 0; k < MAXKEYLEN; ++k) {
    if (keys[k].type == C_NOEXISTS) return text + "}";
    const Node* leaf = node.kind == cdb_store::NodeKind::kLeafList ? &node : nullptr;
    if (k < node.keys.size()) leaf = &schema.node(node.keys[k]);
    text += (k > 0 ? " " : "") + cdb_store::QuoteKey(KeyText(leaf, keys[k]));
  }
  return std::nullopt;
}

}  // namespace

int confd_pp_kpath(char* buf, int size, const confd_hkeypath_t* path) {
  const auto bad = [](const std::string& why) { return confd::Fail(CONFD_ERR_BADPATH, "keypath: " + why); };
  const Schema* const schema = confd::Client::Get().schema();
  if (schema == nullptr) return bad("the data model is not known before the first connection");
  if (path == nullptr || path->len < 0 || path->len > MAXDEPTH) return bad("its length is out of range");
  const Node* node = &schema->root();
  std::string text;
  for (int i = path->len - 1; i >= 0; --i) {
    const auto& element = path->v[i];
    if (element[0].type == C_XMLTAG) {
      const Node* const child = schema->FindChildByTag(*node, element[0].val.xmltag.tag, element[0].val.xmltag.ns);
      if (child == nullptr) return bad("there is no such node below " + schema->PathOf(*node));
      text += "/" + NodeText(*schema, *node, *child);
      node = child;
    } else if (node->IsKeyed() && i + 1 < path->len && path->v[i + 1][0].type == C_XMLTAG) {
      const auto keys = KeysText(*schema, *node, element);
      if (!keys) return bad("the keys of " + node->name + " have no end");
      text += *keys;
    } else {
      return bad(node->name + " is followed by keys but is no list");
    }
  }
  return CopyText(text.empty() ? "/" : text, buf, size);
}

int confd_pp_value(char* buf, int size, const confd_value_t* value) {
  if (value == nullptr) return confd::Fail(CONFD_ERR_PROTOUSAGE, "the value is a null pointer");
  return CopyText(confd::ValueText(*value), buf, size);
}
