#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

#include "dataplane/dataplane.h"
#include "dataplane/nft/entry_sets.h"
#include "dataplane/nft/netlink.h"
#include "dataplane/nft/table.h"

namespace mgr::nft {

/// What the table of this process holds, and the transactions that change it. Loop thread only.
class Ruleset final {
 public:
  /// `socket` is borrowed.
  Ruleset(Socket& socket, Table table) : socket_{socket}, table_{std::move(table)} {}
  Ruleset(const Ruleset&) = delete;
  Ruleset& operator=(const Ruleset&) = delete;

  /// Works on another table from now on, which holds that many entries at most.
  void Use(Table table, size_t room);
  /// The table holds these already.
  void Load(const Snapshot& snapshot, const std::set<std::string>& chains);
  void Clear();

  /// One transaction: the port has its old rules or its new ones, never none.
  common::Status SetPort(const PortConfig& port);
  common::Status Forget(PortId port);
  /// Marks the table as not complete yet, or as complete.
  common::Status SetBlind(bool blind);

  /// Makes the whole table again in one transaction, whatever others have made of it; counters that can still be read
  /// keep their counts. Where this process may not send that much at once, the rules come first and the entries after.
  common::Status Rebuild();

  [[nodiscard]] const Table& table() const noexcept { return table_; }
  [[nodiscard]] const std::map<PortId, PortConfig>& ports() const noexcept { return ports_; }
  [[nodiscard]] EntrySets& entries() noexcept { return entries_; }
  [[nodiscard]] const EntrySets& entries() const noexcept { return entries_; }
  [[nodiscard]] bool blind() const noexcept { return blind_; }
  /// Whether the table has the rules of the port. Older kernels keep none for an interface that does not exist.
  [[nodiscard]] bool HasRules(PortId port) const { return with_rules_.contains(port); }

 private:
  enum class Content : uint8_t { kWithEntries, kRulesOnly };
  using Counts = std::map<std::string, uint64_t>;
  int CommitAll(Content content, const Counts& counts);
  void WriteRecord(Batch& batch, const PortConfig& port) const;
  /// The counters, inner chains and rules of a port; `base`: its bound chain too.
  enum class Base : uint8_t { kAdd, kKeep };
  void AddRules(Batch& batch, const PortConfig& port, Base base, const Counts& counts) const;

  Socket& socket_;
  Table table_;
  size_t room_ = 0;
  std::map<PortId, PortConfig> ports_;
  std::set<PortId> with_rules_;
  bool blind_ = false;
  EntrySets entries_{socket_, table_};
};

}  // namespace mgr::nft
