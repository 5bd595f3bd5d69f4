#include "cdb_store/instance_key.h"

#include <cassert>
#include <cstring>

namespace cdb_store {
namespace {

void PutU16(char* at, uint16_t value) {
  at[0] = static_cast<char>(value >> 8);
  at[1] = static_cast<char>(value);
}

uint16_t GetU16(std::string_view bytes) {
  return static_cast<uint16_t>(static_cast<uint8_t>(bytes[0]) << 8 | static_cast<uint8_t>(bytes[1]));
}

/// Size of the encoded keys of one instance of `node` at the front of `keys`; nothing when malformed.
std::optional<size_t> OwnKeysSize(const Schema& schema, const Node& node, std::string_view keys) {
  if (node.kind == NodeKind::kLeafList) {
    const size_t size = EncodedKeySize(node.type, keys);
    return size > 0 ? std::optional(size) : std::nullopt;
  }
  size_t total = 0;
  for (const NodeId id : node.keys) {
    const ValueType type = schema.node(id).type;
    const size_t size = EncodedKeySize(type, keys.substr(total));
    if (size == 0 && type != ValueType::kEmpty) return std::nullopt;
    total += size;
  }
  return total;
}

}  // namespace

bool InstanceKey::Append(ValueType type, std::string_view stored) {
  if (FixedSize(type) >= 0) return AppendEncoded(stored);
  size_t at = size_;
  char* const out = buffer_.data() + 4;
  for (const char c : stored) {
    if (at + 2 > kMaxKeys) return false;
    out[at++] = c;
    if (c == '\0') out[at++] = '\xff';
  }
  if (at + 2 > kMaxKeys) return false;
  out[at++] = '\0';
  out[at++] = '\1';
  size_ = at;
  return true;
}

bool InstanceKey::AppendEncoded(std::string_view keys) {
  if (size_ + keys.size() > kMaxKeys) return false;
  if (!keys.empty()) std::memcpy(buffer_.data() + 4 + size_, keys.data(), keys.size());  // data() may be null
  size_ += keys.size();
  return true;
}

void InstanceKey::Assign(std::string_view keys) {
  assert(keys.size() <= kMaxKeys);
  if (!keys.empty()) std::memmove(buffer_.data() + 4, keys.data(), keys.size());  // data() may be null
  size_ = keys.size();
}

std::string_view InstanceKey::Row(NodeId id) {
  PutU16(buffer_.data() + 2, id);
  return {buffer_.data() + 2, size_ + 2};
}

std::string_view InstanceKey::Count(NodeId id) {
  PutU16(buffer_.data(), kCountMark);
  PutU16(buffer_.data() + 2, id);
  return {buffer_.data(), size_ + 4};
}

std::optional<RecordKey> ParseRecordKey(std::string_view record_key) {
  if (record_key.size() < 2) return std::nullopt;
  RecordKey key;
  key.node = GetU16(record_key);
  record_key.remove_prefix(2);
  if (key.node == kCountMark) {
    if (record_key.size() < 2) return std::nullopt;
    key.is_count = true;
    key.node = GetU16(record_key);
    record_key.remove_prefix(2);
  }
  key.keys = record_key;
  return key;
}

size_t EncodedKeySize(ValueType type, std::string_view keys) {
  if (const int size = FixedSize(type); size >= 0) {
    return keys.size() >= static_cast<size_t>(size) ? static_cast<size_t>(size) : 0;
  }
  for (size_t at = 0; at + 1 < keys.size(); ++at) {
    if (keys[at] != '\0') continue;
    if (keys[at + 1] == '\1') return at + 2;
    ++at;
  }
  return 0;
}

std::string DecodeKey(ValueType type, std::string_view encoded) {
  if (FixedSize(type) >= 0) return std::string(encoded);
  encoded.remove_suffix(encoded.size() >= 2 ? 2 : encoded.size());
  std::string out;
  out.reserve(encoded.size());
  for (size_t at = 0; at < encoded.size(); ++at) {
    out.push_back(encoded[at]);
    if (encoded[at] == '\0') ++at;
  }
  return out;
}

std::optional<size_t> KeysSizeAt(const Schema& schema, const Node& node, std::string_view keys) {
  if (node.id == kRootId) return 0;
  const std::optional<size_t> above = KeysSizeAt(schema, schema.node(node.parent), keys);
  if (!above || !node.IsKeyed()) return above;
  const std::optional<size_t> own = OwnKeysSize(schema, node, keys.substr(*above));
  if (!own) return std::nullopt;
  return *above + *own;
}

std::vector<std::string> OwnKeys(const Schema& schema, const Node& node, std::string_view keys) {
  std::vector<std::string> values;
  const std::optional<size_t> above = KeysSizeAt(schema, schema.node(node.parent), keys);
  if (!above) return values;
  keys.remove_prefix(*above);
  const auto take = [&](ValueType type) {
    const size_t size = EncodedKeySize(type, keys);
    values.push_back(DecodeKey(type, keys.substr(0, size)));
    keys.remove_prefix(size);
  };
  if (node.kind == NodeKind::kLeafList) take(node.type);
  for (const NodeId id : node.keys) take(schema.node(id).type);
  return values;
}

std::string_view OwnKey(const Schema& schema, const Node& node, std::string_view own_keys, size_t index,
                        std::string& buffer) {
  const auto type_of = [&](size_t key) {
    return node.kind == NodeKind::kLeafList ? node.type : schema.node(node.keys[key]).type;
  };
  for (size_t key = 0; key < index; ++key) own_keys.remove_prefix(EncodedKeySize(type_of(key), own_keys));
  const ValueType type = type_of(index);
  const std::string_view encoded = own_keys.substr(0, EncodedKeySize(type, own_keys));
  if (FixedSize(type) >= 0 || encoded.empty()) return encoded;
  const std::string_view plain = encoded.substr(0, encoded.size() - 2);
  if (plain.find('\0') == std::string_view::npos) return plain;
  buffer = DecodeKey(type, encoded);
  return buffer;
}

std::string Successor(std::string_view prefix) {
  std::string next(prefix);
  while (!next.empty() && next.back() == '\xff') next.pop_back();
  if (!next.empty()) next.back() = static_cast<char>(next.back() + 1);
  return next;
}

std::string QuoteKey(std::string_view text) {
  if (!text.empty() && text.find_first_of(std::string_view(" \t\r\n\f\v{}\"'\\\0", 12)) == std::string_view::npos) {
    return std::string(text);
  }
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '"':
      case '\\':
        out.push_back('\\');
        out.push_back(c);
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\0':
        out += "\\0";
        break;
      default:
        out.push_back(c);
    }
  }
  return out + "\"";
}

std::string InstanceText(const Schema& schema, const Node& node, std::string_view keys) {
  if (node.id == kRootId) return "/";
  const Node& parent = schema.node(node.parent);
  std::string text = parent.id == kRootId ? "" : InstanceText(schema, parent, keys);
  text += "/";
  if (parent.id == kRootId || parent.ns != node.ns) text += schema.ns(node).prefix + ":";
  text += node.name;
  if (!node.IsKeyed() || !KeysSizeAt(schema, node, keys)) return text;
  const std::vector<std::string> values = OwnKeys(schema, node, keys);
  if (values.empty()) return text;
  text += "{";
  for (size_t i = 0; i < values.size(); ++i) {
    const Node& leaf = node.kind == NodeKind::kLeafList ? node : schema.node(node.keys[i]);
    text += (i > 0 ? " " : "") + QuoteKey(ValueToText(leaf, values[i]));
  }
  return text + "}";
}

}  // namespace cdb_store
