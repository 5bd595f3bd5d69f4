#include "data_printer.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace cli {
namespace {

constexpr size_t kFlushSize = 65536;

void AppendQuoted(std::string_view text, std::string* out) {
  const bool plain = std::all_of(text.begin(), text.end(),
                                 [](char c) { return static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\'; });
  if (!plain) {
    *out += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return;
  }
  *out += '"';
  *out += text;
  *out += '"';
}

bool IsArray(const lysc_node& schema) { return (schema.nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0; }
bool IsLeaf(const lysc_node& schema) { return (schema.nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0; }

}  // namespace

void XmlPrinter::OnStart(size_t level, const netconf::XmlName& name) {
  if (tag_open_) text_ += ">\n";
  text_.append(2 * (level - 1), ' ').append("<").append(name.local);
  if (namespaces_.empty() || namespaces_.back() != name.ns)
    text_.append(" xmlns=\"").append(netconf::EscapedAttribute(name.ns)).append("\"");
  namespaces_.emplace_back(name.ns);
  tag_open_ = true;
}

void XmlPrinter::OnEnd(size_t level, const netconf::XmlName& name, std::string_view text) {
  namespaces_.pop_back();
  if (tag_open_ && text.empty()) {
    text_ += "/>\n";
  } else {
    if (tag_open_) {
      text_ += '>';
      netconf::AppendEscaped(text, &text_);
    } else {
      text_.append(2 * (level - 1), ' ');
    }
    text_.append("</").append(name.local).append(">\n");
  }
  tag_open_ = false;
  if (text_.size() >= kFlushSize) Flush();
}

void XmlPrinter::Flush() {
  if (!text_.empty()) write_(text_);
  text_.clear();
}

const lysc_node* JsonPrinter::Find(const netconf::XmlName& name) const {
  const lys_module* module = ly_ctx_get_module_implemented_ns(&models_, std::string{name.ns}.c_str());
  if (module == nullptr) return nullptr;
  return lys_find_child(open_.back().schema, module, name.local.data(), name.local.size(), 0, 0);
}

void JsonPrinter::OnStart(size_t /*level*/, const netconf::XmlName& name) {
  if (!error_.empty()) return;
  const lysc_node* schema = Find(name);
  if (schema == nullptr) {
    error_ = "no node '" + std::string{name.local} + "' of namespace '" + std::string{name.ns} + "'";
    return;
  }
  OpenMember(*schema, &open_.back());
  open_.push_back({.schema = schema});
  if (IsLeaf(*schema)) return;
  text_ += '{';
  ++indent_;
}

void JsonPrinter::OnEnd(size_t /*level*/, const netconf::XmlName& /*name*/, std::string_view text) {
  if (!error_.empty()) return;
  Node node = open_.back();
  open_.pop_back();
  if (IsLeaf(*node.schema)) {
    AppendValue(*node.schema, text);
  } else {
    CloseArray(&node);
    --indent_;
    if (node.any) NewLine();
    text_ += '}';
  }
  if (text_.size() >= kFlushSize) Flush();
}

void JsonPrinter::OnComplete() {
  if (!error_.empty()) return;
  CloseArray(&open_.back());
  text_ = (open_.back().any ? "" : "{") + text_ + (open_.back().any ? "\n}\n" : "}\n");
  Flush();
}

/// Up to where the value of the member stands.
void JsonPrinter::OpenMember(const lysc_node& schema, Node* parent) {
  if (parent->array == &schema) {
    text_ += ',';
    return NewLine();
  }
  CloseArray(parent);
  text_ += parent->any ? "," : open_.size() == 1 ? "{" : "";
  parent->any = true;
  NewLine();
  const bool qualified = parent->schema == nullptr || parent->schema->module != schema.module;
  AppendQuoted((qualified ? std::string{schema.module->name} + ":" : "") + schema.name, &text_);
  text_ += ": ";
  if (!IsArray(schema)) return;
  text_ += '[';
  ++indent_;
  parent->array = &schema;
  NewLine();
}

void JsonPrinter::CloseArray(Node* node) {
  if (node->array == nullptr) return;
  --indent_;
  NewLine();
  text_ += ']';
  node->array = nullptr;
}

void JsonPrinter::NewLine() { text_.append("\n").append(2 * indent_, ' '); }

void JsonPrinter::AppendValue(const lysc_node& schema, std::string_view text) {
  const lysc_type& type = (schema.nodetype & LYS_LEAF) != 0 ? *reinterpret_cast<const lysc_node_leaf&>(schema).type
                                                            : *reinterpret_cast<const lysc_node_leaflist&>(schema).type;
  if (type.basetype == LY_TYPE_EMPTY) {
    text_ += "[null]";
  } else if (IsBare(type, schema, text)) {
    text_ += text;
  } else {
    AppendQuoted(text, &text_);
  }
}

/// Numbers of up to 32 bits and booleans are written as they are, everything else as a string.
bool JsonPrinter::IsBare(const lysc_type& type, const lysc_node& schema, std::string_view text) const {
  switch (type.basetype) {
    case LY_TYPE_INT8:
    case LY_TYPE_INT16:
    case LY_TYPE_INT32:
    case LY_TYPE_UINT8:
    case LY_TYPE_UINT16:
    case LY_TYPE_UINT32:
    case LY_TYPE_BOOL:
      return true;
    case LY_TYPE_LEAFREF:
      return IsBare(*reinterpret_cast<const lysc_type_leafref&>(type).realtype, schema, text);
    case LY_TYPE_UNION:
      break;
    default:
      return false;
  }
  const auto& members = reinterpret_cast<const lysc_type_union&>(type);
  LY_ARRAY_COUNT_TYPE i = 0;
  bool may_be_bare = false;
  LY_ARRAY_FOR(members.types, i) { may_be_bare = may_be_bare || IsBare(*members.types[i], schema, text); }
  if (!may_be_bare) return false;
  const lysc_type* real = nullptr;
  const LY_ERR found = lyd_value_validate(&models_, &schema, text.data(), text.size(), nullptr, &real, nullptr);
  return found == LY_SUCCESS && real != nullptr && real->basetype != LY_TYPE_UNION && IsBare(*real, schema, text);
}

void JsonPrinter::Flush() {
  if (!text_.empty()) write_(text_);
  text_.clear();
}

}  // namespace cli
