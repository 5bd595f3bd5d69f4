#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "common/result.h"

namespace cdb_store {

struct Node;

/// Type of a leaf's value. The numbers are those of `confd_vtype`.
enum class ValueType : uint8_t {
  kNone = 0,  ///< not a leaf
  kEmpty = 1,
  kString = 3,  ///< every type without one of its own (union, identityref, bits, ...) is its canonical text
  kInt8 = 4,
  kInt16 = 5,
  kInt32 = 6,
  kInt64 = 7,
  kUint8 = 8,
  kUint16 = 9,
  kUint32 = 10,
  kUint64 = 11,
  kBool = 12,
  kEnum = 13,
  kBinary = 14,
  kIpv4 = 15,
  kIpv6 = 16,
  kDecimal64 = 17
};

/// How the text of a kBinary leaf is written.
enum class BinaryText : uint8_t {
  kBase64,
  kOctets  ///< "00:1b:21:aa:00:ff"
};

/* A stored value is a string of bytes whose order is the order of the values: integers big-endian with the sign bit
 * flipped, enumerations as int32, decimal64 as int64, booleans one byte, addresses in network order, strings and
 * binaries as they are, empty nothing. */

/// The stored form of an integer (bool is stored as uint8_t 0 or 1).
template <class T>
requires std::is_integral_v<T> std::string StoreInt(T value) {
  using U = std::make_unsigned_t<T>;
  U bits = static_cast<U>(value);
  if constexpr (std::is_signed_v<T>) bits ^= static_cast<U>(U{1} << (sizeof(U) * 8 - 1));
  std::string out(sizeof(U), '\0');
  for (size_t i = 0; i < sizeof(U); ++i) out[i] = static_cast<char>(bits >> ((sizeof(U) - 1 - i) * 8));
  return out;
}

/// Reverse of StoreInt(). `stored` holds at least sizeof(T) bytes.
template <class T>
requires std::is_integral_v<T> T LoadInt(std::string_view stored) {
  using U = std::make_unsigned_t<T>;
  U bits = 0;
  for (size_t i = 0; i < sizeof(U); ++i) bits = static_cast<U>((uint64_t{bits} << 8) | static_cast<uint8_t>(stored[i]));
  if constexpr (std::is_signed_v<T>) bits ^= static_cast<U>(U{1} << (sizeof(U) * 8 - 1));
  return static_cast<T>(bits);
}

/// Size in bytes of every stored value of `type`, or -1 when it varies (kString, kBinary).
int FixedSize(ValueType type);

/// "int32", "string", ...: for messages.
const char* TypeName(ValueType type);

/// The stored form of `text` as a value of `leaf` (a leaf or leaf-list). Takes canonical text and what a person would
/// type for it; checks form and range of the type, not restrictions of the data model. The error says what is wrong.
common::Result<std::string> ValueFromText(const Node& leaf, std::string_view text);

/// Canonical text of a stored value of `leaf`.
std::string ValueToText(const Node& leaf, std::string_view stored);

/// As above for a value whose own `type` may differ from the leaf's (a provider's value for a union).
std::string ValueToText(const Node& leaf, ValueType type, std::string_view stored);

}  // namespace cdb_store
