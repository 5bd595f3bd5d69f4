#include "cdb_store/value.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
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

std::string AddressToText(int family, std::string_view bytes) {
  std::array<char, INET6_ADDRSTRLEN> buffer{};
  return inet_ntop(family, bytes.data(), buffer.data(), buffer.size()) != nullptr ? buffer.data() : "";
}

common::Result<std::string> AddressFromText(ValueType type, int family, std::string_view text) {
  std::string out(static_cast<size_t>(FixedSize(type)), '\0');
  if (inet_pton(family, std::string(text).c_str(), out.data()) != 1 || text.find('\0') != std::string_view::npos) {
    return Bad(type, text);
  }
  return out;
}

}  // namespace

int FixedSize(ValueType type) {
  switch (type) {
    case ValueType::kNone:
    case ValueType::kEmpty:
      return 0;
    case ValueType::kInt8:
    case ValueType::kUint8:
    case ValueType::kBool:
      return 1;
    case ValueType::kInt16:
    case ValueType::kUint16:
      return 2;
    case ValueType::kInt32:
    case ValueType::kUint32:
    case ValueType::kEnum:
    case ValueType::kIpv4:
      return 4;
    case ValueType::kInt64:
    case ValueType::kUint64:
    case ValueType::kDecimal64:
      return 8;
    case ValueType::kIpv6:
      return 16;
    case ValueType::kString:
    case ValueType::kBinary:
      break;
  }
  return -1;
}

const char* TypeName(ValueType type) {
  switch (type) {
    case ValueType::kNone:
      return "no value";
    case ValueType::kEmpty:
      return "empty";
    case ValueType::kString:
      return "string";
    case ValueType::kInt8:
      return "int8";
    case ValueType::kInt16:
      return "int16";
    case ValueType::kInt32:
      return "int32";
    case ValueType::kInt64:
      return "int64";
    case ValueType::kUint8:
      return "uint8";
    case ValueType::kUint16:
      return "uint16";
    case ValueType::kUint32:
      return "uint32";
    case ValueType::kUint64:
      return "uint64";
    case ValueType::kBool:
      return "boolean";
    case ValueType::kEnum:
      return "enumeration";
    case ValueType::kBinary:
      return "binary";
    case ValueType::kIpv4:
      return "IPv4 address";
    case ValueType::kIpv6:
      return "IPv6 address";
    case ValueType::kDecimal64:
      return "decimal64";
  }
  return "unknown type";
}

common::Result<std::string> ValueFromText(const Node& leaf, std::string_view text) {
  switch (leaf.type) {
    case ValueType::kNone:
      break;
    case ValueType::kEmpty:
      if (!text.empty()) return Bad(leaf.type, text);
      return std::string{};
    case ValueType::kString:
      return std::string(text);
    case ValueType::kInt8:
      return IntFromText<int8_t>(leaf.type, text);
    case ValueType::kInt16:
      return IntFromText<int16_t>(leaf.type, text);
    case ValueType::kInt32:
      return IntFromText<int32_t>(leaf.type, text);
    case ValueType::kInt64:
      return IntFromText<int64_t>(leaf.type, text);
    case ValueType::kUint8:
      return IntFromText<uint8_t>(leaf.type, text);
    case ValueType::kUint16:
      return IntFromText<uint16_t>(leaf.type, text);
    case ValueType::kUint32:
      return IntFromText<uint32_t>(leaf.type, text);
    case ValueType::kUint64:
      return IntFromText<uint64_t>(leaf.type, text);
    case ValueType::kBool:
      if (text != "true" && text != "false") return Bad(leaf.type, text);
      return StoreInt<uint8_t>(text == "true" ? 1 : 0);
    case ValueType::kEnum:
      for (const EnumName& name : leaf.enums) {
        if (name.name == text) return StoreInt(name.value);
      }
      return common::Error{"", "\"" + std::string(text) + "\"", "not one of the names of " + leaf.name};
    case ValueType::kBinary: {
      auto bytes = leaf.binary_text == BinaryText::kOctets ? FromOctets(text) : FromBase64(text);
      if (!bytes) return Bad(leaf.type, text);
      return *std::move(bytes);
    }
    case ValueType::kIpv4:
      return AddressFromText(leaf.type, AF_INET, text);
    case ValueType::kIpv6:
      return AddressFromText(leaf.type, AF_INET6, text);
    case ValueType::kDecimal64:
      return DecimalFromText(text, leaf.fraction_digits);
  }
  return common::Error{"", leaf.name, "is no leaf"};
}

std::string ValueToText(const Node& leaf, std::string_view stored) { return ValueToText(leaf, leaf.type, stored); }

std::string ValueToText(const Node& leaf, ValueType type, std::string_view stored) {
  if (const int size = FixedSize(type); size > 0 && stored.size() != static_cast<size_t>(size)) return "";
  switch (type) {
    case ValueType::kNone:
    case ValueType::kEmpty:
      return "";
    case ValueType::kString:
      return std::string(stored);
    case ValueType::kInt8:
      return std::to_string(LoadInt<int8_t>(stored));
    case ValueType::kInt16:
      return std::to_string(LoadInt<int16_t>(stored));
    case ValueType::kInt32:
      return std::to_string(LoadInt<int32_t>(stored));
    case ValueType::kInt64:
      return std::to_string(LoadInt<int64_t>(stored));
    case ValueType::kUint8:
      return std::to_string(LoadInt<uint8_t>(stored));
    case ValueType::kUint16:
      return std::to_string(LoadInt<uint16_t>(stored));
    case ValueType::kUint32:
      return std::to_string(LoadInt<uint32_t>(stored));
    case ValueType::kUint64:
      return std::to_string(LoadInt<uint64_t>(stored));
    case ValueType::kBool:
      return LoadInt<uint8_t>(stored) != 0 ? "true" : "false";
    case ValueType::kEnum: {
      const auto value = LoadInt<int32_t>(stored);
      for (const EnumName& name : leaf.enums) {
        if (name.value == value) return name.name;
      }
      return std::to_string(value);
    }
    case ValueType::kBinary:
      return leaf.binary_text == BinaryText::kOctets ? ToOctets(stored) : ToBase64(stored);
    case ValueType::kIpv4:
      return AddressToText(AF_INET, stored);
    case ValueType::kIpv6:
      return AddressToText(AF_INET6, stored);
    case ValueType::kDecimal64:
      return DecimalToText(LoadInt<int64_t>(stored), leaf.fraction_digits);
  }
  return "";
}

}  // namespace cdb_store
