#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/schema.h"

namespace cdb_store {

/* An instance of a node is named by its encoded keys: the keys of every list (and the value of the leaf-list) on the
 * way from the root, one after the other, each encoded so that bytewise order is key order and so that no encoding is
 * the beginning of another: fixed-size types as stored, strings and binaries with 00 written as 00 FF and ended by
 * 00 01. Cutting the end off gives the keys of an ancestor.
 *
 * Record keys of the store:  row    u16 node id, encoded keys
 *                            count  u16 0xffff, u16 node id, encoded keys of the parent
 * both numbers big-endian, so that a list's instances are neighbours, grouped by parent, in key order. */

inline constexpr size_t kMaxRecordKey = 511;           ///< LMDB's limit
inline constexpr size_t kMaxKeys = kMaxRecordKey - 4;  ///< longest encoded keys of an instance
inline constexpr uint16_t kCountMark = 0xffff;

/// Encoded keys in a buffer of their own, with room in front for the record's head. No allocation.
class InstanceKey final {
 public:
  InstanceKey() = default;
  explicit InstanceKey(std::string_view keys) { Assign(keys); }

  /// Appends one key's stored value. False when the result would be longer than kMaxKeys; nothing is appended then.
  [[nodiscard]] bool Append(ValueType type, std::string_view stored);
  /// Appends keys that are encoded already.
  [[nodiscard]] bool AppendEncoded(std::string_view keys);
  void Assign(std::string_view keys);
  void Truncate(size_t size) { size_ = size; }

  [[nodiscard]] std::string_view keys() const { return {buffer_.data() + 4, size_}; }
  [[nodiscard]] size_t size() const noexcept { return size_; }
  /// The record key of this instance's row. Valid until the next call on this object.
  [[nodiscard]] std::string_view Row(NodeId id);
  /// The record key of the number of instances of `id` below this instance. Valid until the next call.
  [[nodiscard]] std::string_view Count(NodeId id);

 private:
  std::array<char, 4 + kMaxKeys> buffer_;  // not initialised: on every read's path
  size_t size_ = 0;
};

/// A record key taken apart.
struct RecordKey {
  bool is_count = false;
  NodeId node = 0;
  std::string_view keys;
};
/// Nothing when the bytes are no record key.
std::optional<RecordKey> ParseRecordKey(std::string_view record_key);

/// Size of the first encoded key in `keys`, or 0 when it is malformed.
size_t EncodedKeySize(ValueType type, std::string_view keys);
/// The stored value of one encoded key. Copies only what was escaped.
std::string DecodeKey(ValueType type, std::string_view encoded);

/// Size of the leading part of `keys` that belongs to the instance of `node` (all lists down to and including it);
/// `keys` are those of an instance at or below `node`. Nothing when malformed or too short.
std::optional<size_t> KeysSizeAt(const Schema& schema, const Node& node, std::string_view keys);

/// Stored values of `node`'s own keys at the end of `keys` (a list's keys, a leaf-list's value).
std::vector<std::string> OwnKeys(const Schema& schema, const Node& node, std::string_view keys);

/// The stored value of the key `index` of `node` (of a leaf-list: 0, its value), where `own_keys` begins with the
/// encoded keys of `node` itself. A view into `own_keys`, or into `buffer` where bytes were escaped; empty when
/// malformed.
std::string_view OwnKey(const Schema& schema, const Node& node, std::string_view own_keys, size_t index,
                        std::string& buffer);

/// The smallest string greater than every string that begins with `prefix`; empty when there is none.
std::string Successor(std::string_view prefix);

/// "/ais:config/anti-ip-spoofing/interface{eth3}" for messages; keys are quoted where they have to be.
std::string InstanceText(const Schema& schema, const Node& node, std::string_view keys);

/// A key as it stands between braces: quoted and escaped when it has a blank, brace, quote or backslash or is empty.
std::string QuoteKey(std::string_view text);

}  // namespace cdb_store
