#include "dataplane/nft/ruleset.h"

#include <net/if.h>

#include <cerrno>
#include <vector>

#include "dataplane/nft/layout.h"
#include "dataplane/nft/port_rules.h"

namespace mgr::nft {

void Ruleset::Use(Table table, size_t room) {
  table_ = std::move(table);
  room_ = room;
}

void Ruleset::Load(const Snapshot& snapshot, const std::set<std::string>& chains) {
  for (const PortConfig& port : snapshot.ports) {
    ports_.emplace(port.id, port);
    if (chains.contains(ChainNames(port.id).front())) with_rules_.insert(port.id);
  }
  entries_.Load(snapshot.entries);
}

void Ruleset::Clear() {
  ports_.clear();
  with_rules_.clear();
  entries_.Clear();
}

void Ruleset::WriteRecord(Batch& batch, const PortConfig& port) const {
  if (ports_.contains(port.id)) table_.DeleteElements(batch, kPorts, {{Host32(port.id)}});
  table_.AddElements(batch, kPorts, {RecordElement(port)});
}

void Ruleset::AddRules(Batch& batch, const PortConfig& port, Base base, const Counts& counts) const {
  for (int reason = VERDICT_NOT_ENABLED + 1; reason < VERDICT_REASONS; ++reason) {
    for (const bool monitored : {false, true}) {
      const std::string name = CounterName(port.id, static_cast<verdict_reason>(reason), monitored);
      const auto count = counts.find(name);
      table_.AddCounter(batch, name, count == counts.end() ? 0 : count->second);
    }
  }
  const std::vector<std::string> names = ChainNames(port.id);
  for (size_t i = 1; i < names.size(); ++i) {
    table_.AddChain(batch, names[i], {});
    table_.FlushChain(batch, names[i]);
  }
  if (base == Base::kAdd) table_.AddChain(batch, names.front(), port.name);
  for (const Rule& rule : PortRules(port)) table_.AddRule(batch, rule);
}

common::Status Ruleset::SetPort(const PortConfig& port) {
  const auto chains = table_.Chains();
  if (!chains.ok()) return chains.error();
  const std::string base = ChainNames(port.id).front();
  const auto bound = chains.value().find(base);
  const auto known = ports_.find(port.id);
  const bool same_interface = bound != chains.value().end() && bound->second == port.name && known != ports_.end() &&
                              known->second.ifindex == port.ifindex;
  Batch batch;
  WriteRecord(batch, port);
  if (bound != chains.value().end()) {
    table_.FlushChain(batch, base);
    if (!same_interface || !port.enabled) table_.DeleteChain(batch, base);
  }
  if (port.enabled) AddRules(batch, port, same_interface ? Base::kKeep : Base::kAdd, {});
  bool has_rules = port.enabled;
  int error = socket_.Commit(std::move(batch));
  if (error == ENOENT && port.enabled && if_nametoindex(port.name.c_str()) != port.ifindex) {
    // This kernel binds no chain to an interface that does not exist: only the record of the port is kept.
    Batch record;
    WriteRecord(record, port);
    error = socket_.Commit(std::move(record));
    has_rules = false;
  }
  if (error != 0) return common::SystemError("set the rules of port", port.name, error);
  ports_.insert_or_assign(port.id, port);
  with_rules_.erase(port.id);
  if (has_rules) with_rules_.insert(port.id);
  return common::Ok();
}

common::Status Ruleset::Forget(PortId port) {
  if (!ports_.contains(port)) return common::Ok();
  const auto chains = table_.Chains();
  const auto counters = table_.Counters();
  if (!chains.ok()) return chains.error();
  if (!counters.ok()) return counters.error();
  Batch batch;
  const std::vector<std::string> names = ChainNames(port);
  for (const std::string& name : names)
    if (chains.value().contains(name)) table_.FlushChain(batch, name);
  for (const std::string& name : names)
    if (chains.value().contains(name)) table_.DeleteChain(batch, name);
  for (const auto& [name, packets] : counters.value())
    if (name.starts_with(names.front() + ".")) table_.DeleteCounter(batch, name);
  table_.DeleteElements(batch, kPorts, {{Host32(port)}});
  if (const int error = socket_.Commit(std::move(batch)); error != 0)
    return common::SystemError("forget port", std::to_string(port), error);
  ports_.erase(port);
  with_rules_.erase(port);
  entries_.RemoveAllOf(port);
  return common::Ok();
}

common::Status Ruleset::SetBlind(bool blind) {
  if (blind_ == blind) return common::Ok();
  Batch batch;
  if (blind)
    table_.AddChain(batch, kBlind, {});
  else
    table_.DeleteChain(batch, kBlind);
  if (const int error = socket_.Commit(std::move(batch)); error != 0)
    return common::SystemError(blind ? "mark the table" : "unmark the table", table_.name(), error);
  blind_ = blind;
  return common::Ok();
}

common::Status Ruleset::Rebuild() {
  const auto counters = table_.Counters();
  const Counts counts = counters.ok() ? counters.value() : Counts{};
  int error = CommitAll(Content::kWithEntries, counts);
  if (error == EMSGSIZE || error == ENOBUFS) {
    error = CommitAll(Content::kRulesOnly, counts);
    if (error == 0) entries_.Refill();
  }
  return error == 0 ? common::Ok() : common::SystemError("make the table", table_.name(), error);
}

int Ruleset::CommitAll(Content content, const Counts& counts) {
  // A second attempt, where the kernel binds no chain to an interface that does not exist.
  for (const bool absent_too : {true, false}) {
    std::set<PortId> with_rules;
    Batch batch;
    table_.Create(batch);  // so that there is one to delete
    table_.Delete(batch);
    AddSets(batch, table_, room_);
    if (blind_) table_.AddChain(batch, kBlind, {});
    for (const auto& [id, port] : ports_) {
      table_.AddElements(batch, kPorts, {RecordElement(port)});
      if (!port.enabled || (!absent_too && if_nametoindex(port.name.c_str()) == 0)) continue;
      AddRules(batch, port, Base::kAdd, counts);
      with_rules.insert(id);
    }
    if (content == Content::kWithEntries) entries_.AddAll(batch);
    const int error = socket_.Commit(std::move(batch));
    if (error == 0) with_rules_ = std::move(with_rules);
    if (error != ENOENT) return error;
  }
  return ENOENT;
}

}  // namespace mgr::nft
