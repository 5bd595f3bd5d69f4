#include "values.h"

#include <cstring>

#include "cdb_store/value.h"

namespace confd {
namespace {

using cdb_store::LoadInt;
using cdb_store::Node;
using cdb_store::Schema;
using cdb_store::StoreInt;
using cdb_store::ValueType;

static_assert(static_cast<int>(ValueType::kEmpty) == C_XMLTAG && static_cast<int>(ValueType::kString) == C_BUF);
static_assert(static_cast<int>(ValueType::kInt8) == C_INT8 && static_cast<int>(ValueType::kInt16) == C_INT16);
static_assert(static_cast<int>(ValueType::kInt32) == C_INT32 && static_cast<int>(ValueType::kInt64) == C_INT64);
static_assert(static_cast<int>(ValueType::kUint8) == C_UINT8 && static_cast<int>(ValueType::kUint16) == C_UINT16);
static_assert(static_cast<int>(ValueType::kUint32) == C_UINT32 && static_cast<int>(ValueType::kUint64) == C_UINT64);
static_assert(static_cast<int>(ValueType::kBool) == C_BOOL && static_cast<int>(ValueType::kEnum) == C_ENUM_VALUE);
static_assert(static_cast<int>(ValueType::kBinary) == C_BINARY && static_cast<int>(ValueType::kIpv4) == C_IPV4);
static_assert(static_cast<int>(ValueType::kIpv6) == C_IPV6 && static_cast<int>(ValueType::kDecimal64) == C_DECIMAL64);

std::string Bytes(const void* data, size_t size) { return {static_cast<const char*>(data), size}; }

}  // namespace

confd_value_t BorrowValue(const Schema& schema, const Node& leaf, std::string_view stored) {
  confd_value_t value;
  std::memset(&value, 0, sizeof value);
  value.type = static_cast<confd_vtype>(leaf.type);
  if (const int size = cdb_store::FixedSize(leaf.type); size > 0 && stored.size() != static_cast<size_t>(size)) {
    value.type = C_NOEXISTS;
    return value;
  }
  switch (leaf.type) {
    case ValueType::kNone:
      break;
    case ValueType::kEmpty:
      CONFD_SET_XMLTAG(&value, leaf.tag, schema.ns(leaf).hash);
      break;
    case ValueType::kString:
    case ValueType::kBinary:
      value.val.c_buf.ptr = reinterpret_cast<const unsigned char*>(stored.data());
      value.val.c_buf.size = static_cast<unsigned>(stored.size());
      break;
    case ValueType::kInt8:
      value.val.i8 = LoadInt<int8_t>(stored);
      break;
    case ValueType::kInt16:
      value.val.i16 = LoadInt<int16_t>(stored);
      break;
    case ValueType::kInt32:
      value.val.i32 = LoadInt<int32_t>(stored);
      break;
    case ValueType::kInt64:
      value.val.i64 = LoadInt<int64_t>(stored);
      break;
    case ValueType::kUint8:
      value.val.u8 = LoadInt<uint8_t>(stored);
      break;
    case ValueType::kUint16:
      value.val.u16 = LoadInt<uint16_t>(stored);
      break;
    case ValueType::kUint32:
      value.val.u32 = LoadInt<uint32_t>(stored);
      break;
    case ValueType::kUint64:
      value.val.u64 = LoadInt<uint64_t>(stored);
      break;
    case ValueType::kBool:
      value.val.boolean = LoadInt<uint8_t>(stored);
      break;
    case ValueType::kEnum:
      value.val.enumvalue = LoadInt<int32_t>(stored);
      break;
    case ValueType::kIpv4:
      std::memcpy(&value.val.ip, stored.data(), sizeof value.val.ip);
      break;
    case ValueType::kIpv6:
      std::memcpy(&value.val.ip6, stored.data(), sizeof value.val.ip6);
      break;
    case ValueType::kDecimal64:
      value.val.d64.value = LoadInt<int64_t>(stored);
      value.val.d64.fraction_digits = leaf.fraction_digits;
      break;
  }
  return value;
}

confd_value_t CopyValue(const Schema& schema, const Node& leaf, std::string_view stored) {
  confd_value_t value = BorrowValue(schema, leaf, stored);
  if (value.type != C_BUF && value.type != C_BINARY) return value;
  auto* const copy = static_cast<unsigned char*>(std::malloc(stored.size() + 1));
  if (copy == nullptr) std::abort();
  std::memcpy(copy, stored.data(), stored.size());
  copy[stored.size()] = '\0';
  value.val.buf.ptr = copy;
  return value;
}

bool ToWire(const confd_value_t& value, confd_wire::Value& wire) {
  wire.type = static_cast<ValueType>(value.type);
  switch (value.type) {
    case C_NOEXISTS:
      return false;
    case C_XMLTAG:
      wire.stored.clear();
      break;
    case C_STR:
      wire.type = ValueType::kString;
      if (value.val.s == nullptr) return false;
      wire.stored = value.val.s;
      break;
    case C_BUF:
    case C_BINARY:
      if (value.val.c_buf.ptr == nullptr && value.val.c_buf.size > 0) return false;
      wire.stored = Bytes(value.val.c_buf.ptr, value.val.c_buf.size);
      break;
    case C_INT8:
      wire.stored = StoreInt(value.val.i8);
      break;
    case C_INT16:
      wire.stored = StoreInt(value.val.i16);
      break;
    case C_INT32:
      wire.stored = StoreInt(value.val.i32);
      break;
    case C_INT64:
      wire.stored = StoreInt(value.val.i64);
      break;
    case C_UINT8:
      wire.stored = StoreInt(value.val.u8);
      break;
    case C_UINT16:
      wire.stored = StoreInt(value.val.u16);
      break;
    case C_UINT32:
      wire.stored = StoreInt(value.val.u32);
      break;
    case C_UINT64:
      wire.stored = StoreInt(value.val.u64);
      break;
    case C_BOOL:
      wire.stored = StoreInt<uint8_t>(value.val.boolean != 0 ? 1 : 0);
      break;
    case C_ENUM_VALUE:
      wire.stored = StoreInt(value.val.enumvalue);
      break;
    case C_IPV4:
      wire.stored = Bytes(&value.val.ip, sizeof value.val.ip);
      break;
    case C_IPV6:
      wire.stored = Bytes(&value.val.ip6, sizeof value.val.ip6);
      break;
    case C_DECIMAL64:
      wire.stored = StoreInt(value.val.d64.value) + StoreInt(value.val.d64.fraction_digits);
      break;
    default:
      return false;
  }
  return true;
}

std::string ValueText(const confd_value_t& value) {
  confd_wire::Value wire;
  if (!ToWire(value, wire)) return "";
  if (value.type == C_ENUM_VALUE) return std::to_string(value.val.enumvalue);
  Node leaf;
  leaf.binary_text = cdb_store::BinaryText::kOctets;
  if (value.type == C_DECIMAL64) {
    leaf.fraction_digits = value.val.d64.fraction_digits;
    wire.stored.pop_back();
  }
  return cdb_store::ValueToText(leaf, wire.type, wire.stored);
}

}  // namespace confd
