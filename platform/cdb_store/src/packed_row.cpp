#include "cdb_store/packed_row.h"

namespace cdb_store {
namespace {

void PutVarint(std::string& out, size_t value) {
  for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>(value | 0x80));
  out.push_back(static_cast<char>(value));
}

bool GetVarint(std::string_view& in, size_t& value) {
  value = 0;
  for (size_t i = 0; i < in.size() && i < 5; ++i) {
    const auto byte = static_cast<uint8_t>(in[i]);
    value |= static_cast<size_t>(byte & 0x7f) << (7 * i);
    if ((byte & 0x80) == 0) {
      in.remove_prefix(i + 1);
      return true;
    }
  }
  return false;
}

void PutLeaf(std::string& out, NodeId id, std::string_view value) {
  PutVarint(out, id);
  PutVarint(out, value.size());
  out.append(value);
}

}  // namespace

std::optional<PackedLeaf> PackedRowReader::Next() {
  if (rest_.empty() || !ok_) return std::nullopt;
  size_t id = 0;
  size_t size = 0;
  ok_ = GetVarint(rest_, id) && GetVarint(rest_, size) && size <= rest_.size() && id <= kMaxNodeId;
  if (!ok_) return std::nullopt;
  const PackedLeaf leaf{static_cast<NodeId>(id), rest_.substr(0, size)};
  rest_.remove_prefix(size);
  return leaf;
}

std::optional<std::string_view> FindLeaf(std::string_view row, NodeId leaf) {
  PackedRowReader reader(row);
  while (const std::optional<PackedLeaf> next = reader.Next()) {
    if (next->id == leaf) return next->value;
    if (next->id > leaf) break;
  }
  return std::nullopt;
}

std::string WithLeaf(std::string_view row, NodeId leaf, std::string_view value) {
  std::string out;
  out.reserve(row.size() + value.size() + 6);
  bool placed = false;
  PackedRowReader reader(row);
  while (const std::optional<PackedLeaf> next = reader.Next()) {
    if (!placed && next->id >= leaf) {
      PutLeaf(out, leaf, value);
      placed = true;
    }
    if (next->id != leaf) PutLeaf(out, next->id, next->value);
  }
  if (!placed) PutLeaf(out, leaf, value);
  return out;
}

std::string WithoutLeaves(std::string_view row, NodeId first, NodeId end) {
  std::string out;
  PackedRowReader reader(row);
  while (const std::optional<PackedLeaf> next = reader.Next()) {
    if (next->id < first || next->id >= end) PutLeaf(out, next->id, next->value);
  }
  return out;
}

bool HasLeafIn(std::string_view row, NodeId first, NodeId end) {
  PackedRowReader reader(row);
  while (const std::optional<PackedLeaf> next = reader.Next()) {
    if (next->id >= first && next->id < end) return true;
  }
  return false;
}

}  // namespace cdb_store
