#include "dataplane/nft/nft_dataplane.h"

#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include "dataplane/nft/entry_sets.h"
#include "dataplane/nft/layout.h"
#include "dataplane/nft/netlink.h"
#include "dataplane/nft/port_rules.h"
#include "dataplane/nft/table.h"
#include "dataplane/verdict_text.h"

namespace mgr {
namespace {

using nft::Batch;

class NftDataplane final : public Dataplane {
 public:
  NftDataplane(nft::Socket socket, const DataplaneOptions& options)
      : socket_{std::move(socket)},
        capacity_{options.capacity},
        prefix_{nft::TablePrefix(options.run_dir)},
        table_{socket_, nft::TableName(prefix_, 2 * options.capacity)} {}

  [[nodiscard]] std::string_view Name() const override { return "nft"; }
  [[nodiscard]] size_t Capacity() const override { return capacity_; }
  common::Result<Snapshot> TakeOver() override;
  common::Status ReleaseHeld() override;
  std::vector<Failure> Apply(const Changes& changes) override;
  common::Status RemoveEverything() override;
  [[nodiscard]] bool HidesTaggedLength() const override { return true; }
  common::Result<std::vector<PortCounter>> Counters() override;

  /// Makes a table like the real one and takes it away: shows what the system allows.
  common::Status Probe();

 private:
  /// Sorts the tables of this run directory into those that can be read and the others, and makes the one to use.
  common::Status ChooseTable(const std::vector<std::string>& names, Snapshot* taken);
  common::Status Migrate(const nft::Table& from);
  common::Status SetPort(const PortConfig& port);
  common::Status Forget(PortId port);
  void WriteRecord(Batch& batch, const PortConfig& port) const;

  nft::Socket socket_;
  const size_t capacity_;
  const std::string prefix_;
  nft::Table table_;
  std::vector<std::string> readable_, unreadable_;  ///< tables of earlier processes
  bool blind_ = false;                              ///< `table_` is marked so
  std::map<PortId, PortConfig> ports_;
  nft::EntrySets entries_{socket_, table_};
};

common::Status NftDataplane::Probe() {
  const nft::Table probe{socket_, prefix_ + "probe"};
  if (const int error = nft::SetUp(socket_, probe, 2 * capacity_); error != 0)
    return common::SystemError("make a table", probe.name(), error);
  return probe.DeleteNow();
}

common::Status NftDataplane::ChooseTable(const std::vector<std::string>& names, Snapshot* taken) {
  for (const std::string& name : names) {
    if (!name.starts_with(prefix_)) continue;
    const nft::Table table{socket_, name};
    const auto room = nft::RoomOf(prefix_, name);
    const auto chains = table.Chains();
    if (room && chains.ok() && chains.value().contains(nft::kBlind)) {
      if (common::Status gone = table.DeleteNow(); !gone.ok()) return gone;
      continue;
    }
    const auto held = room ? nft::Read(table) : common::Error{"read", name, "another layout"};
    if (held.ok()) {
      readable_.push_back(name);
      continue;
    }
    unreadable_.push_back(name);
    taken->unreadable.push_back("table netdev " + name + ": " + held.error().reason);
    const auto is_bound = [](const auto& chain) { return !chain.second.empty(); };
    taken->held |= !chains.ok() || std::any_of(chains.value().begin(), chains.value().end(), is_bound);
  }
  taken->held = taken->held && readable_.empty();
  size_t room = 2 * capacity_;
  const auto roomy = std::find_if(readable_.begin(), readable_.end(),
                                  [&](const std::string& name) { return nft::RoomOf(prefix_, name) >= room; });
  if (roomy != readable_.end()) {
    room = *nft::RoomOf(prefix_, *roomy);
  } else {
    const auto is_taken = [this](const std::string& name) {  // by what cannot be read
      return std::find(unreadable_.begin(), unreadable_.end(), name) != unreadable_.end();
    };
    while (is_taken(nft::TableName(prefix_, room))) ++room;
  }
  table_ = nft::Table{socket_, nft::TableName(prefix_, room)};
  if (const int error = nft::SetUp(socket_, table_, room); error != 0)
    return common::SystemError("make the table", table_.name(), error);
  if (!taken->held) return common::Ok();
  Batch batch;
  table_.AddChain(batch, nft::kBlind, {});
  if (const int error = socket_.Commit(std::move(batch)); error != 0)
    return common::SystemError("mark the table", table_.name(), error);
  blind_ = true;
  return common::Ok();
}

common::Result<Snapshot> NftDataplane::TakeOver() {
  Snapshot taken;
  auto names = nft::Table::Names(socket_);
  if (!names.ok()) return names.error();
  if (common::Status chosen = ChooseTable(names.value(), &taken); !chosen.ok()) return chosen.error();
  for (const std::string& name : std::exchange(readable_, {})) {
    if (name == table_.name()) continue;
    if (common::Status migrated = Migrate(nft::Table{socket_, name}); !migrated.ok()) return migrated.error();
  }
  auto snapshot = nft::Read(table_);
  if (!snapshot.ok()) return snapshot;
  for (const PortConfig& port : snapshot.value().ports) ports_.emplace(port.id, port);
  entries_.Load(snapshot.value().entries);
  taken.ports = std::move(snapshot.value().ports);
  taken.entries = std::move(snapshot.value().entries);
  if (!taken.held) {
    if (common::Status released = ReleaseHeld(); !released.ok()) return released.error();
  }
  return taken;
}

common::Status NftDataplane::ReleaseHeld() {
  if (blind_) {
    Batch batch;
    table_.DeleteChain(batch, nft::kBlind);
    if (const int error = socket_.Commit(std::move(batch)); error != 0)
      return common::SystemError("unmark the table", table_.name(), error);
    blind_ = false;
  }
  while (!unreadable_.empty()) {
    if (common::Status gone = nft::Table{socket_, unreadable_.back()}.DeleteNow(); !gone.ok()) return gone;
    unreadable_.pop_back();
  }
  return common::Ok();
}

/// Both tables filter until the earlier one goes: what it allowed, this one allows before.
common::Status NftDataplane::Migrate(const nft::Table& from) {
  auto snapshot = nft::Read(from);
  auto counters = from.Counters();
  if (!snapshot.ok()) return snapshot.error();
  Changes changes;
  changes.puts = snapshot.value().entries;
  changes.ports = snapshot.value().ports;
  if (counters.ok()) {
    Batch batch;
    for (const auto& [name, packets] : counters.value()) table_.AddCounter(batch, name, packets);
    socket_.Commit(std::move(batch));  // a count that is lost is no reason to stay behind
  }
  const std::vector<Failure> failures = Apply(changes);
  if (!failures.empty()) return failures.front().error;
  ports_.clear();
  entries_.Clear();
  return from.DeleteNow();
}

std::vector<Failure> NftDataplane::Apply(const Changes& changes) {
  std::vector<Failure> failures;
  entries_.Put(changes.puts, [&failures](size_t index, int error) {
    failures.push_back({Failure::Of::kPut, index, common::SystemError("add element", {}, error)});
  });
  for (size_t i = 0; i < changes.ports.size(); ++i) {
    if (common::Status set = SetPort(changes.ports[i]); !set.ok())
      failures.push_back({Failure::Of::kPort, i, set.error()});
  }
  entries_.Remove(changes.removes, [&failures](size_t index, int error) {
    failures.push_back({Failure::Of::kRemove, index, common::SystemError("delete element", {}, error)});
  });
  for (size_t i = 0; i < changes.drop_ports.size(); ++i) {
    if (common::Status gone = Forget(changes.drop_ports[i]); !gone.ok())
      failures.push_back({Failure::Of::kDropPort, i, gone.error()});
  }
  return failures;
}

void NftDataplane::WriteRecord(Batch& batch, const PortConfig& port) const {
  if (ports_.contains(port.id)) table_.DeleteElements(batch, nft::kPorts, {{nft::Host32(port.id)}});
  table_.AddElements(batch, nft::kPorts, {nft::RecordElement(port)});
}

/// One transaction: the port has its old rules or its new ones, never none.
common::Status NftDataplane::SetPort(const PortConfig& port) {
  const auto chains = table_.Chains();
  if (!chains.ok()) return chains.error();
  const std::vector<std::string> names = nft::ChainNames(port.id);
  const std::string& base = names.front();
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
  if (port.enabled) {
    for (int reason = VERDICT_NOT_ENABLED + 1; reason < VERDICT_REASONS; ++reason) {
      for (const bool monitored : {false, true})
        table_.AddCounter(batch, nft::CounterName(port.id, static_cast<verdict_reason>(reason), monitored), 0);
    }
    for (size_t i = 1; i < names.size(); ++i) {
      table_.AddChain(batch, names[i], {});
      table_.FlushChain(batch, names[i]);
    }
    if (!same_interface) table_.AddChain(batch, base, port.name);
    for (const nft::Rule& rule : nft::PortRules(port)) table_.AddRule(batch, rule);
  }
  int error = socket_.Commit(std::move(batch));
  if (error == ENOENT && port.enabled && if_nametoindex(port.name.c_str()) != port.ifindex) {
    // This kernel binds no chain to an interface that is not there: what is known of the port is kept alone.
    Batch record;
    WriteRecord(record, port);
    error = socket_.Commit(std::move(record));
  }
  if (error != 0) return common::SystemError("set the rules of port", port.name, error);
  ports_.insert_or_assign(port.id, port);
  return common::Ok();
}

common::Status NftDataplane::Forget(PortId port) {
  if (!ports_.contains(port)) return common::Ok();
  const auto chains = table_.Chains();
  const auto counters = table_.Counters();
  if (!chains.ok()) return chains.error();
  if (!counters.ok()) return counters.error();
  Batch batch;
  const std::vector<std::string> names = nft::ChainNames(port);
  for (const std::string& name : names)
    if (chains.value().contains(name)) table_.FlushChain(batch, name);
  for (const std::string& name : names)
    if (chains.value().contains(name)) table_.DeleteChain(batch, name);
  for (const auto& [name, packets] : counters.value())
    if (name.starts_with(names.front() + ".")) table_.DeleteCounter(batch, name);
  table_.DeleteElements(batch, nft::kPorts, {{nft::Host32(port)}});
  if (const int error = socket_.Commit(std::move(batch)); error != 0)
    return common::SystemError("forget port", std::to_string(port), error);
  ports_.erase(port);
  entries_.RemoveAllOf(port);
  return common::Ok();
}

common::Status NftDataplane::RemoveEverything() {
  if (common::Status released = ReleaseHeld(); !released.ok()) return released;
  if (common::Status gone = table_.DeleteNow(); !gone.ok()) return gone;
  ports_.clear();
  entries_.Clear();
  return common::Ok();
}

common::Result<std::vector<PortCounter>> NftDataplane::Counters() {
  auto counters = table_.Counters();
  if (!counters.ok()) return counters.error();
  std::vector<PortCounter> result;
  for (const auto& [id, port] : ports_) {
    for (int i = VERDICT_NOT_ENABLED + 1; i < VERDICT_REASONS; ++i) {
      const auto reason = static_cast<verdict_reason>(i);
      for (const bool monitored : {false, true}) {
        const auto counter = counters.value().find(nft::CounterName(id, reason, monitored));
        if (counter == counters.value().end() || counter->second == 0) continue;
        result.push_back({id, std::string{ReasonName(reason)}, monitored || Passes(reason), counter->second});
      }
    }
  }
  return result;
}

}  // namespace

common::Result<std::unique_ptr<Dataplane>> OpenNft(const DataplaneOptions& options) {
  auto socket = nft::Socket::Open();
  if (!socket.ok()) return socket.error();
  auto plane = std::make_unique<NftDataplane>(std::move(socket).value(), options);
  if (common::Status probed = plane->Probe(); !probed.ok()) return probed.error();
  return std::unique_ptr<Dataplane>{std::move(plane)};
}

}  // namespace mgr
