#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "dataplane/dataplane.h"

namespace mgr {

/// One IPv4 source of a port.
struct EntryRow {
  MacAddress wanted_mac{};
  MacAddress installed_mac{};
  bool wanted : 1 = false;
  bool installed : 1 = false;
  bool waiting : 1 = false;  ///< beyond the capacity
  bool failed : 1 = false;   ///< the dataplane refused it
  bool held : 1 = false;     ///< its narrowing waits
  uint64_t batch = 0;        ///< the last one that named it
};

/// The rows of all entries, by key. A row stays where it is until it is erased. Rows that were made one after the other
/// lie side by side, and so do the index slots of neighbouring addresses: a full configuration is one pass through
/// memory, not a cache miss per row and step. Rows of the largest number of entries so far are kept. Loop thread only.
class EntryTable final {
 public:
  using Node = std::pair<EntryKey, EntryRow>;  ///< the key is not to be changed

  template <class Table, class Value>
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Node;
    using difference_type = std::ptrdiff_t;
    using pointer = Value*;
    using reference = Value&;
    Iterator(Table* table, uint32_t row) : table_{table}, row_{table->NextUsed(row)} {}
    reference operator*() const { return table_->At(row_); }
    pointer operator->() const { return &table_->At(row_); }
    Iterator& operator++() {
      row_ = table_->NextUsed(row_ + 1);
      return *this;
    }
    bool operator==(const Iterator& other) const { return row_ == other.row_; }

   private:
    Table* table_;
    uint32_t row_;
  };
  using iterator = Iterator<EntryTable, Node>;
  using const_iterator = Iterator<const EntryTable, const Node>;

  /// Null when there is none.
  [[nodiscard]] Node* Find(const EntryKey& key);
  [[nodiscard]] const Node* Find(const EntryKey& key) const;
  /// The row of the key, made when there is none.
  Node* FindOrMake(const EntryKey& key);
  /// The row must be one of this table.
  void Erase(Node* node);
  /// Room for so many rows, so that making them costs nothing else.
  void Reserve(size_t rows);

  [[nodiscard]] size_t size() const noexcept { return size_; }
  [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
  [[nodiscard]] iterator begin() { return {this, 0}; }
  [[nodiscard]] iterator end() { return {this, rows_}; }
  [[nodiscard]] const_iterator begin() const { return {this, 0}; }
  [[nodiscard]] const_iterator end() const { return {this, rows_}; }

 private:
  static constexpr uint32_t kChunk = 1024;
  using Chunk = std::array<Node, kChunk>;
  /// Of the index: open addressing, the next free slot behind the one that the hash names.
  struct Slot {
    uint32_t row = kNone;
    uint32_t tag = 0;  ///< of the key: most rows that are not the wanted one are not looked at
  };
  static constexpr uint32_t kNone = ~0U;

  [[nodiscard]] Node& At(uint32_t row) { return (*chunks_[row / kChunk])[row % kChunk]; }
  [[nodiscard]] const Node& At(uint32_t row) const { return (*chunks_[row / kChunk])[row % kChunk]; }
  [[nodiscard]] uint32_t NextUsed(uint32_t row) const;
  [[nodiscard]] size_t HomeOf(const EntryKey& key) const;
  /// The slot of the key, or the free one where it belongs.
  [[nodiscard]] size_t SlotOf(const EntryKey& key) const;
  void Resize(size_t slots);

  std::vector<std::unique_ptr<Chunk>> chunks_;
  uint32_t rows_ = 0;           ///< rows in use or free again; those behind were never used
  std::vector<uint32_t> free_;  ///< rows; their key is that of no port
  std::vector<Slot> slots_;     ///< a power of two, at most half of them in use
  size_t size_ = 0;
};

}  // namespace mgr
