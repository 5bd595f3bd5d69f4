#include "table/entry_table.h"

#include <algorithm>
#include <bit>
#include <cassert>

namespace mgr {
namespace {

constexpr size_t kLeastSlots = 64;
constexpr uint64_t kNeighbours = 8;  ///< addresses that share a cache line of the index

/// All of the key: 20 bits of port, 12 of VLAN, 32 of address.
uint64_t Word(const EntryKey& key) {
  return (uint64_t{key.port} << 44U) | (uint64_t{key.vlan} << 32U) | __builtin_bswap32(key.address_be);
}

uint64_t Mix(uint64_t word) {
  word ^= word >> 32U;
  word *= 0x9E3779B97F4A7C15U;
  word ^= word >> 29U;
  word *= 0xBF58476D1CE4E5B9U;
  return word ^ (word >> 32U);
}

uint32_t Tag(const EntryKey& key) {
  const uint64_t word = Word(key);
  return static_cast<uint32_t>(word ^ (word >> 32U) * 0x85EBCA6BU);
}

}  // namespace

size_t EntryTable::HomeOf(const EntryKey& key) const {
  const uint64_t word = Word(key);
  return (Mix(word / kNeighbours) * kNeighbours + word % kNeighbours) & (slots_.size() - 1);
}

size_t EntryTable::SlotOf(const EntryKey& key) const {
  const uint32_t tag = Tag(key);
  size_t at = HomeOf(key);
  while (slots_[at].row != kNone && (slots_[at].tag != tag || At(slots_[at].row).first != key)) {
    at = (at + 1) & (slots_.size() - 1);
  }
  return at;
}

const EntryTable::Node* EntryTable::Find(const EntryKey& key) const {
  if (size_ == 0) return nullptr;
  const uint32_t row = slots_[SlotOf(key)].row;
  return row == kNone ? nullptr : &At(row);
}

EntryTable::Node* EntryTable::Find(const EntryKey& key) {
  return const_cast<Node*>(static_cast<const EntryTable*>(this)->Find(key));
}

EntryTable::Node* EntryTable::FindOrMake(const EntryKey& key) {
  assert(key.port != 0);
  if (2 * (size_ + 1) > slots_.size()) Resize(std::max(kLeastSlots, 2 * slots_.size()));
  Slot& slot = slots_[SlotOf(key)];
  if (slot.row != kNone) return &At(slot.row);
  uint32_t row = rows_;
  if (free_.empty()) {
    ++rows_;
    if (chunks_.size() * kChunk < rows_) chunks_.push_back(std::make_unique<Chunk>());
  } else {
    row = free_.back();
    free_.pop_back();
  }
  slot = {row, Tag(key)};
  ++size_;
  Node* node = &At(row);
  *node = {key, {}};
  return node;
}

void EntryTable::Erase(Node* node) {
  size_t hole = SlotOf(node->first);
  assert(slots_[hole].row != kNone && &At(slots_[hole].row) == node);
  free_.push_back(slots_[hole].row);
  *node = {};
  --size_;
  // What stands behind the hole and would not be found across it moves into it.
  const size_t mask = slots_.size() - 1;
  for (size_t at = (hole + 1) & mask; slots_[at].row != kNone; at = (at + 1) & mask) {
    const size_t home = HomeOf(At(slots_[at].row).first);
    if (((at - home) & mask) < ((at - hole) & mask)) continue;
    slots_[hole] = slots_[at];
    hole = at;
  }
  slots_[hole] = {};
  if (size_ > 0) return;
  rows_ = 0;
  free_.clear();
}

void EntryTable::Reserve(size_t rows) {
  if (2 * rows > slots_.size()) Resize(std::bit_ceil(std::max(kLeastSlots, 2 * rows)));
}

void EntryTable::Resize(size_t slots) {
  slots_.assign(slots, {});
  for (uint32_t row = NextUsed(0); row < rows_; row = NextUsed(row + 1)) {
    const EntryKey& key = At(row).first;
    slots_[SlotOf(key)] = {row, Tag(key)};
  }
}

uint32_t EntryTable::NextUsed(uint32_t row) const {
  while (row < rows_ && At(row).first.port == 0) ++row;
  return std::min(row, rows_);
}

}  // namespace mgr
