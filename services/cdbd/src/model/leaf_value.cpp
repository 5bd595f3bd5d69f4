#include "model/leaf_value.h"

#include <charconv>

#include "yang/last_error.h"

namespace cdbd {
namespace {

using cdb_store::Node;

const lysc_type* TypeOf(const lysc_node& node) {
  if (node.nodetype == LYS_LEAF) return reinterpret_cast<const lysc_node_leaf&>(node).type;
  return reinterpret_cast<const lysc_node_leaflist&>(node).type;
}

/// The number is in a range of the type; without a range, in that of its basic type.
bool InRange(const lysc_type& type, int64_t number) {
  const bool is_signed = type.basetype >= LY_TYPE_INT8 && type.basetype <= LY_TYPE_INT32;
  const auto* range = reinterpret_cast<const lysc_type_num&>(type).range;
  if (range == nullptr) {
    const int bits = type.basetype == LY_TYPE_INT8 || type.basetype == LY_TYPE_UINT8     ? 8
                     : type.basetype == LY_TYPE_INT16 || type.basetype == LY_TYPE_UINT16 ? 16
                                                                                         : 32;
    const int64_t least = is_signed ? -(int64_t{1} << (bits - 1)) : 0;
    const int64_t most = (int64_t{1} << (is_signed ? bits - 1 : bits)) - 1;
    return number >= least && number <= most;
  }
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(range->parts, i) {
    const auto& part = range->parts[i];
    if (is_signed ? number >= part.min_64 && number <= part.max_64
                  : number >= 0 && static_cast<uint64_t>(number) >= part.min_u64 &&
                        static_cast<uint64_t>(number) <= part.max_u64)
      return true;
  }
  return false;
}

/// `text` is a value of an integer type of at most 32 bits, in canonical form, as most are: asking libyang costs some
/// 0.5 us each. False says nothing.
bool IsCanonicalInteger(const lysc_type& type, std::string_view text) {
  const bool is_integer = (type.basetype >= LY_TYPE_INT8 && type.basetype <= LY_TYPE_INT32) ||
                          (type.basetype >= LY_TYPE_UINT8 && type.basetype <= LY_TYPE_UINT32);
  if (!is_integer) return false;
  int64_t number = 0;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (code != std::errc{} || end != text.data() + text.size()) return false;
  const std::string_view digits = text.substr(text.front() == '-' ? 1 : 0);
  if (digits.front() == '0' && text.size() > 1) return false;  // a leading zero, or -0
  return InRange(type, number);
}

/// Values of the type may hold names with a prefix.
bool HasPrefixes(const lysc_type* type) {
  if (type->basetype == LY_TYPE_IDENT || type->basetype == LY_TYPE_INST) return true;
  if (type->basetype == LY_TYPE_LEAFREF) return HasPrefixes(reinterpret_cast<const lysc_type_leafref*>(type)->realtype);
  if (type->basetype != LY_TYPE_UNION) return false;
  const auto* members = reinterpret_cast<const lysc_type_union*>(type);
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(members->types, i) {
    if (HasPrefixes(members->types[i])) return true;
  }
  return false;
}

bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
}

/// Calls `with` for every name in `text`, outside of quotes, that a colon follows, and copies the rest.
template <class Replace>
std::string MapPrefixes(std::string_view text, Replace with) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const char c = text[at];
    size_t end = at + 1;
    if (c == '\'' || c == '"') {
      end = std::min(text.find(c, at + 1), text.size() - 1) + 1;
    } else if (IsNameChar(c)) {
      while (end < text.size() && IsNameChar(text[end])) ++end;
      if (end + 1 < text.size() && text[end] == ':' && IsNameChar(text[end + 1])) {
        out += with(text.substr(at, end - at));
        at = end;
        continue;
      }
    }
    out += text.substr(at, end - at);
    at = end;
  }
  return out;
}

}  // namespace

std::optional<std::string> CanonicalValue(const Model& model, const Node& leaf, std::string_view text,
                                          DataError* error) {
  return CanonicalValue(model, *model.extras(leaf).schema, text, error);
}

std::optional<std::string> CanonicalValue(const Model& model, const lysc_node& leaf, std::string_view text,
                                          DataError* error) {
  if ((leaf.nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0 && IsCanonicalInteger(*TypeOf(leaf), text))
    return std::string{text};
  ly_err_clean(const_cast<ly_ctx*>(model.context()), nullptr);
  const char* canonical = nullptr;
  const LY_ERR valid =
      lyd_value_validate(model.context(), &leaf, text.data(), text.size(), nullptr, nullptr, &canonical);
  if (valid != LY_SUCCESS && valid != LY_EINCOMPLETE) {
    const yang::LastError complaint = yang::ReadLastError(model.context());
    error->message = complaint.message;
    error->app_tag = complaint.app_tag;
    return std::nullopt;
  }
  std::string value = canonical != nullptr ? canonical : "";
  lydict_remove(model.context(), canonical);
  return value;
}

std::string_view WithModuleNames(const Model& model, const Node& leaf, const netconf::XmlElement& element,
                                 std::string* buffer) {
  if (!HasPrefixes(TypeOf(*model.extras(leaf).schema))) return element.text;
  *buffer = MapPrefixes(netconf::Trim(element.text), [&](std::string_view prefix) {
    const std::string ns{element.Namespace(prefix)};
    const lys_module* module = ly_ctx_get_module_implemented_ns(model.context(), ns.c_str());
    return module != nullptr ? std::string{module->name} : std::string{prefix};
  });
  return *buffer;
}

std::optional<std::string> StoredValue(const Model& model, const Node& leaf, const netconf::XmlElement& element,
                                       DataError* error) {
  error->tag = "invalid-value";
  if (element.first_child != nullptr) {
    error->tag = "bad-element";
    error->message = "'" + leaf.name + "' is a leaf and holds no elements";
    error->details = {{"bad-element", leaf.name}};
    return std::nullopt;
  }
  std::string mapped;
  const std::string_view text = WithModuleNames(model, leaf, element, &mapped);
  const std::optional<std::string> canonical = CanonicalValue(model, leaf, text, error);
  if (!canonical) return std::nullopt;
  auto stored = cdb_store::ValueFromText(leaf, *canonical);
  if (!stored) {
    error->message = stored.error().Text();
    return std::nullopt;
  }
  return std::move(stored).value();
}

void AppendLeafElement(const Model& model, const Node& leaf, std::string_view xmlns, std::string_view text,
                       std::string* out) {
  std::string attributes{xmlns};
  const lysc_node* schema = model.extras(leaf).schema;
  if (schema != nullptr && HasPrefixes(TypeOf(*schema))) {
    std::string declared;
    MapPrefixes(text, [&](std::string_view prefix) {
      const lys_module* module = ly_ctx_get_module_implemented(model.context(), std::string{prefix}.c_str());
      const std::string declaration =
          module == nullptr ? ""
                            : " xmlns:" + std::string{prefix} + "=\"" + netconf::EscapedAttribute(module->ns) + "\"";
      if (declared.find(declaration) == std::string::npos) declared += declaration;
      return std::string{};
    });
    attributes += declared;
  }
  netconf::AppendTextElement(leaf.name, attributes, text, out);
}

std::string Xmlns(const cdb_store::Schema& schema, const Node& node) {
  const Node& parent = schema.node(node.parent);
  if (parent.id != cdb_store::kRootId && parent.ns == node.ns) return {};
  return " xmlns=\"" + netconf::EscapedAttribute(schema.ns(node).uri) + "\"";
}

bool SameValue(const Node& leaf, std::string_view canonical, std::string_view asked) {
  if (canonical == asked) return true;
  const auto stored = cdb_store::ValueFromText(leaf, asked);
  return stored.ok() && cdb_store::ValueToText(leaf, stored.value()) == canonical;
}

}  // namespace cdbd
