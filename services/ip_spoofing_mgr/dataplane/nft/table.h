#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"
#include "dataplane/dataplane.h"
#include "dataplane/nft/netlink.h"
#include "dataplane/nft/rule.h"

/// The manager's nf_tables table, message by message.
namespace mgr::nft {

/// One element of a set.
struct Element {
  Data key;
  Data user_data{};
};

/// Writes messages about one table into batches, and reads what it holds.
class Table final {
 public:
  Table(Socket& socket, std::string name) : socket_{&socket}, name_{std::move(name)} {}
  [[nodiscard]] const std::string& name() const noexcept { return name_; }

  void Create(Batch& batch) const;
  void Delete(Batch& batch) const;
  /// In a transaction of its own; one that is absent is no error.
  [[nodiscard]] common::Status DeleteNow() const;
  /// `room` 0: as it grows. Existing sets of the same form stay.
  void AddSet(Batch& batch, const std::string& set, uint32_t key_size, uint32_t room) const;
  void AddElements(Batch& batch, const std::string& set, const std::vector<Element>& elements) const;
  void DeleteElements(Batch& batch, const std::string& set, const std::vector<Element>& elements) const;
  /// `interface` empty: a chain that others jump to. Else bound to that interface's ingress.
  void AddChain(Batch& batch, const std::string& chain, const std::string& interface) const;
  void DeleteChain(Batch& batch, const std::string& chain) const;
  void FlushChain(Batch& batch, const std::string& chain) const;
  void AddRule(Batch& batch, const Rule& rule) const;
  void AddCounter(Batch& batch, const std::string& counter, uint64_t packets) const;
  void DeleteCounter(Batch& batch, const std::string& counter) const;

  [[nodiscard]] common::Result<std::vector<Element>> Elements(const std::string& set) const;
  /// Chains by name, with the interface they are bound to ("": none).
  [[nodiscard]] common::Result<std::map<std::string, std::string>> Chains() const;
  [[nodiscard]] common::Result<std::map<std::string, uint64_t>> Counters() const;
  /// NFT_TABLE_F_...; nothing when there is no such table.
  [[nodiscard]] common::Result<std::optional<uint32_t>> Flags() const;
  /// Chains by name, each with all that decides what it does: type, hook, priority, policy, interface.
  [[nodiscard]] common::Result<std::map<std::string, std::string>> ChainForms() const;
  /// The form of a chain that AddChain() makes.
  [[nodiscard]] static std::string FormOf(const std::string& interface);
  /// The rules of a chain in their order, as TextOf() writes them.
  [[nodiscard]] common::Result<std::vector<std::string>> RuleTexts(const std::string& chain) const;
  /// The elements of a set in steps, as Socket::StartDump() and ContinueDump() do, over a socket of the caller's.
  int StartElements(Socket& socket, const std::string& set) const;
  static int ContinueElements(Socket& socket, const std::function<void(Element)>& take);
  /// The netdev tables of this network namespace.
  static common::Result<std::vector<std::string>> Names(Socket& socket);

 private:
  void PutElements(Batch& batch, uint16_t type, uint16_t flags, const std::string& set,
                   const std::vector<Element>& elements) const;
  Socket* socket_;
  std::string name_;
};

}  // namespace mgr::nft
