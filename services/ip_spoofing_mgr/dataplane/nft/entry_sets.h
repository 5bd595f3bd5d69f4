#pragma once

#include <functional>
#include <unordered_map>
#include <vector>

#include "dataplane/dataplane.h"
#include "dataplane/memory_dataplane.h"
#include "dataplane/nft/netlink.h"
#include "dataplane/nft/table.h"

namespace mgr::nft {

/// The entries in the sets of a table, changed in transactions as large as this process may send.
class EntrySets final {
 public:
  using Failed = std::function<void(size_t index, int error)>;

  /// Both are borrowed.
  EntrySets(Socket& socket, const Table& table) : socket_{&socket}, table_{&table} {}

  /// The table holds these already.
  void Load(const std::vector<Entry>& entries);
  /// Adds entries, or replaces their MACs; each one has its old MAC or its new one at every moment. Calls `failed` for
  /// single ones that are refused.
  void Put(const std::vector<Entry>& puts, const Failed& failed);
  /// Absent ones are no failure.
  void Remove(const std::vector<EntryKey>& removes, const Failed& failed);
  void RemoveAllOf(PortId port);
  void Clear() { entries_.clear(); }

  /// Adds every entry to a new table, as a part of a transaction.
  void AddAll(Batch& batch) const;
  /// Adds every entry to a table that has none of them yet, in transactions as large as may be sent.
  void Refill();
  using Map = std::unordered_map<EntryKey, MacAddress, EntryKeyHash>;
  [[nodiscard]] const Map& all() const noexcept { return entries_; }

 private:
  /// Calls `commit(begin, end)` for pieces of `count` items until all are tried, smaller ones where a piece fails;
  /// reports single items that fail.
  template <class Commit>
  void InPieces(size_t count, const Commit& commit, const Failed& failed);
  int CommitPuts(const std::vector<Entry>& puts, size_t begin, size_t end);
  int CommitRemoves(const std::vector<EntryKey>& removes, size_t begin, size_t end);

  Socket* socket_;
  const Table* table_;
  size_t piece_ = 32'768;  ///< entries a transaction; less where this process may not send that much
  Map entries_;
};

}  // namespace mgr::nft
