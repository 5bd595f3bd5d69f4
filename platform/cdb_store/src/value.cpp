#include "cdb_store/value.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <iterator>
#include <limits>
#include <optional>

#include "cdb_store/schema.h"

namespace cdb_store {
namespace {

constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kHexDigits = "0123456789abcdef";

common::Error Bad(ValueType type, std::string_view text) {
  return {"", "\"" + std::string(text) + "\"", std::string("not a valid ") + TypeName(type)};
}

template <class T>
common::Result<std::string> IntFromText(ValueType type, std::string_view text) {
  std::string_view digits = text;
  if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
  T value{};
  const auto [end, code] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (code != std::errc{} || end != digits.data() + digits.size() || digits.empty()) return Bad(type, text);
  return StoreInt(value);
}

common::Result<std::string> DecimalFromText(std::string_view text, uint8_t fraction_digits) {
  const auto bad = [&] { return Bad(ValueType::kDecimal64, text); };
  const size_t dot = text.find('.');
  std::string digits(text.substr(0, dot));
  if (digits.empty() || digits == "-" || digits == "+") return bad();
  std::string fraction = dot == std::string_view::npos ? "" : std::string(text.substr(dot + 1));
  if (dot != std::string_view::npos && fraction.empty()) return bad();
  while (fraction.size() > fraction_digits && fraction.back() == '0') fraction.pop_back();
  if (fraction.size() > fraction_digits) return bad();
  fraction.resize(fraction_digits, '0');
  if (fraction.find_first_not_of("0123456789") != std::string::npos) return bad();
  auto stored = IntFromText<int64_t>(ValueType::kDecimal64, digits + fraction);
  if (!stored) return bad();
  return stored;
}

std::string DecimalToText(int64_t value, uint8_t fraction_digits) {
  const bool negative = value < 0;
  std::string digits = std::to_string(negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value));
  if (digits.size() <= fraction_digits) digits.insert(0, fraction_digits + 1 - digits.size(), '0');
  std::string fraction = digits.substr(digits.size() - fraction_digits);
  digits.resize(digits.size() - fraction_digits);
  while (fraction.size() > 1 && fraction.back() == '0') fraction.pop_back();
  return (negative ? "-" : "") + digits + "." + (fraction.empty() ? "0" : fraction);
}

std::optional<std::string> FromOctets(std::string_view text) {
  std::string out;
  const auto digit = [](char c) { return std::string_view("0123456789abcdefABCDEF").find(c); };
  for (size_t i = 0; i < text.size(); i += 3) {
    if (i + 1 >= text.size() || (i + 2 < text.size() && text[i + 2] != ':')) return std::nullopt;
    size_t high = digit(text[i]);
    size_t low = digit(text[i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos || i + 3 == text.size()) return std::nullopt;
    if (high > 15) high -= 6;
    if (low > 15) low -= 6;
    out.push_back(static_cast<char>(high << 4 | low));
  }
  return out;
}

std::string ToOctets(std::string_view bytes) {
  std::string out;
  for (const char c : bytes) {
    if (!out.empty()) out.push_back(':');
    out.push_back(kHexDigits[static_cast<uint8_t>(c) >> 4]);
    out.push_back(kHexDigits[static_cast<uint8_t>(c) & 15]);
  }
  return out;
}

std::optional<std::string> FromBase64(std::string_view text) {
  std::string digits;
  for (const char c : text) {
    if (c != '\n' && c != ' ' && c != '\r' && c != '\t') digits.push_back(c);
  }
  if (digits.size() % 4 != 0) return std::nullopt;
  std::string out;
  for (size_t i = 0; i < digits.size(); i += 4) {
    uint32_t bits = 0;
    size_t padding = 0;
    for (size_t j = 0; j < 4; ++j) {
      const bool may_pad = i + 4 == digits.size() && j >= 2;
      size_t value = 0;
      if (digits[i + j] == '=' && may_pad) {
        ++padding;
      } else {
        value = kBase64Digits.find(digits[i + j]);
        if (value == std::string_view::npos || padding > 0) return std::nullopt;
      }
      bits = bits << 6 | static_cast<uint32_t>(value);
    }
    for (size_t j = 0; j < 3 - padding; ++j) out.push_back(static_cast<char>(bits >> (16 - 8 * j)));
  }
  return out;
}

std::string ToBase64(std::string_view bytes) {
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t n = std::min<size_t>(3, bytes.size() - i);
    uint32_t bits = 0;
    for (size_t j = 0; j < 3; ++j) bits = bits << 8 | (j < n ? static_cast<uint8_t>(bytes[i + j]) : 0U);
    for (size_t j = 0; j < 4; ++j) out.push_back(j <= n ? kBase64Digits[bits >> (18 - 6 * j) & 63] : '=');
  }
  return out;
}

/* One row of the table below for a group of types: how text becomes a stored value, and the other way round. */

common::Result<std::string> NothingFromText(const Node& leaf, std::string_view) {
  return common::Error{"", leaf.name, "is not a leaf"};
}
std::string NothingToText(const Node&, std::string_view) { return ""; }

common::Result<std::string> EmptyFromText(const Node& leaf, std::string_view text) {
  if (!text.empty()) return Bad(leaf.type, text);
  return std::string{};
}

common::Result<std::string> StringFromText(const Node&, std::string_view text) { return std::string(text); }
std::string StringToText(const Node&, std::string_view stored) { return std::string(stored); }

template <class T>
common::Result<std::string> IntegerFromText(const Node& leaf, std::string_view text) {
  return IntFromText<T>(leaf.type, text);
}
template <class T>
std::string IntegerToText(const Node&, std::string_view stored) {
  return std::to_string(LoadInt<T>(stored));
}

common::Result<std::string> BoolFromText(const Node& leaf, std::string_view text) {
  if (text != "true" && text != "false") return Bad(leaf.type, text);
  return StoreInt<uint8_t>(text == "true" ? 1 : 0);
}
std::string BoolToText(const Node&, std::string_view stored) {
  return LoadInt<uint8_t>(stored) != 0 ? "true" : "false";
}

common::Result<std::string> EnumFromText(const Node& leaf, std::string_view text) {
  for (const EnumName& name : leaf.enums) {
    if (name.name == text) return StoreInt(name.value);
  }
  return common::Error{"", "\"" + std::string(text) + "\"", "not one of the names of " + leaf.name};
}
std::string EnumToText(const Node& leaf, std::string_view stored) {
  const auto value = LoadInt<int32_t>(stored);
  for (const EnumName& name : leaf.enums) {
    if (name.value == value) return name.name;
  }
  return std::to_string(value);
}

common::Result<std::string> BinaryFromText(const Node& leaf, std::string_view text) {
  auto bytes = leaf.binary_text == BinaryText::kOctets ? FromOctets(text) : FromBase64(text);
  if (!bytes) return Bad(leaf.type, text);
  return *std::move(bytes);
}
std::string BinaryToText(const Node& leaf, std::string_view stored) {
  return leaf.binary_text == BinaryText::kOctets ? ToOctets(stored) : ToBase64(stored);
}

template <int kFamily>
common::Result<std::string> AddressFromText(const Node& leaf, std::string_view text) {
  std::string out(static_cast<size_t>(FixedSize(leaf.type)), '\0');
  if (inet_pton(kFamily, std::string(text).c_str(), out.data()) != 1 || text.find('\0') != std::string_view::npos) {
    return Bad(leaf.type, text);
  }
  return out;
}
template <int kFamily>
std::string AddressToText(const Node&, std::string_view stored) {
  std::array<char, INET6_ADDRSTRLEN> buffer{};
  return inet_ntop(kFamily, stored.data(), buffer.data(), buffer.size()) != nullptr ? buffer.data() : "";
}

common::Result<std::string> Decimal64FromText(const Node& leaf, std::string_view text) {
  return DecimalFromText(text, leaf.fraction_digits);
}
std::string Decimal64ToText(const Node& leaf, std::string_view stored) {
  return DecimalToText(LoadInt<int64_t>(stored), leaf.fraction_digits);
}

/// Everything that differs from type to type.
struct TypeTraits {
  const char* name;
  int fixed_size;  ///< of every stored value, in bytes; -1: it varies
  common::Result<std::string> (*from_text)(const Node& leaf, std::string_view text);
  std::string (*to_text)(const Node& leaf, std::string_view stored);  ///< `stored` has the fixed size, if there is one
};

template <class T>
constexpr TypeTraits Integer(const char* name) {
  return {name, sizeof(T), IntegerFromText<T>, IntegerToText<T>};
}

constexpr TypeTraits kUnknownType{"unknown type", -1, NothingFromText, NothingToText};

/// By the number of the type.
constexpr TypeTraits kTypeTraits[] = {
    /* kNone */ {"no value", 0, NothingFromText, NothingToText},
    /* kEmpty */ {"empty", 0, EmptyFromText, NothingToText},
    /* 2 */ kUnknownType,
    /* kString */ {"string", -1, StringFromText, StringToText},
    /* kInt8 */ Integer<int8_t>("int8"),
    /* kInt16 */ Integer<int16_t>("int16"),
    /* kInt32 */ Integer<int32_t>("int32"),
    /* kInt64 */ Integer<int64_t>("int64"),
    /* kUint8 */ Integer<uint8_t>("uint8"),
    /* kUint16 */ Integer<uint16_t>("uint16"),
    /* kUint32 */ Integer<uint32_t>("uint32"),
    /* kUint64 */ Integer<uint64_t>("uint64"),
    /* kBool */ {"boolean", 1, BoolFromText, BoolToText},
    /* kEnum */ {"enumeration", 4, EnumFromText, EnumToText},
    /* kBinary */ {"binary", -1, BinaryFromText, BinaryToText},
    /* kIpv4 */ {"IPv4 address", 4, AddressFromText<AF_INET>, AddressToText<AF_INET>},
    /* kIpv6 */ {"IPv6 address", 16, AddressFromText<AF_INET6>, AddressToText<AF_INET6>},
    /* kDecimal64 */ {"decimal64", 8, Decimal64FromText, Decimal64ToText},
};
static_assert(std::size(kTypeTraits) == static_cast<size_t>(ValueType::kDecimal64) + 1);

/// The type may be a number that no type has: a program's message can hold it.
const TypeTraits& TraitsOf(ValueType type) {
  const auto number = static_cast<size_t>(type);
  return number < std::size(kTypeTraits) ? kTypeTraits[number] : kUnknownType;
}

}  // namespace

int FixedSize(ValueType type) { return TraitsOf(type).fixed_size; }

const char* TypeName(ValueType type) { return TraitsOf(type).name; }

common::Result<std::string> ValueFromText(const Node& leaf, std::string_view text) {
  return TraitsOf(leaf.type).from_text(leaf, text);
}

std::string ValueToText(const Node& leaf, std::string_view stored) { return ValueToText(leaf, leaf.type, stored); }

std::string ValueToText(const Node& leaf, ValueType type, std::string_view stored) {
  const TypeTraits& traits = TraitsOf(type);
  if (traits.fixed_size > 0 && stored.size() != static_cast<size_t>(traits.fixed_size)) return "";
  return traits.to_text(leaf, stored);
}

}  // namespace cdb_store
