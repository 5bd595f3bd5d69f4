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
  std::unordered_map<EntryKey, MacAddress, EntryKeyHash> entries_;
};

}  // namespace mgr::nft
