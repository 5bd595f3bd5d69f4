#include "dataplane/nft/nft_dataplane.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <set>
#include <utility>

#include "dataplane/nft/comparison.h"
#include "dataplane/nft/events.h"
#include "dataplane/nft/layout.h"
#include "dataplane/nft/netlink.h"
#include "dataplane/nft/port_rules.h"
#include "dataplane/nft/ruleset.h"
#include "dataplane/nft/table.h"
#include "dataplane/verdict_text.h"

namespace mgr {
namespace {

using nft::Batch;

constexpr std::chrono::milliseconds kCheckStep{5};

class NftDataplane final : public Dataplane {
 public:
  NftDataplane(nft::Socket socket, nft::Socket compare_socket, nft::Events events, const DataplaneOptions& options)
      : socket_{std::move(socket)},
        events_{std::move(events)},
        capacity_{options.capacity},
        prefix_{nft::TablePrefix(options.run_dir)},
        ruleset_{socket_, nft::Table{socket_, nft::TableName(prefix_, 2 * options.capacity)}},
        comparison_{std::move(compare_socket), ruleset_} {}

  [[nodiscard]] std::string_view Name() const override { return "nft"; }
  [[nodiscard]] size_t Capacity() const override { return capacity_; }
  common::Result<Snapshot> TakeOver() override;
  common::Status ReleaseHeld() override;
  std::vector<Failure> Apply(const Changes& changes) override;
  common::Status RemoveEverything() override;
  [[nodiscard]] bool HidesTaggedLength() const override { return true; }
  common::Result<std::vector<PortCounter>> Counters() override;
  [[nodiscard]] int ChangeEventFd() const override { return events_.fd(); }
  std::vector<Deviation> ReadChangeEvents() override;
  CheckStep Check() override;

  /// Makes a table like the real one and deletes it: shows what the system allows.
  common::Status Probe();

 private:
  /// Sorts the tables of this run directory into those that can be read and the others, and makes the one to use.
  common::Status ChooseTable(const std::vector<std::string>& names, Snapshot* taken);
  common::Status Migrate(const nft::Table& from);
  common::Result<Snapshot> Load();
  [[nodiscard]] Deviation PutBack(const std::string& what);

  nft::Socket socket_;
  nft::Events events_;
  const size_t capacity_;
  const std::string prefix_;
  nft::Ruleset ruleset_;
  nft::Comparison comparison_;
  std::optional<uint32_t> comparing_;  ///< the generation that is being compared
  /// In this generation the table was as it should be; changes by this process since then are accounted for.
  bool proven_ = false;
  std::vector<std::string> readable_, unreadable_;  ///< tables of earlier processes
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
  const nft::Table table{socket_, nft::TableName(prefix_, room)};
  if (const int error = nft::SetUp(socket_, table, room); error != 0)
    return common::SystemError("make the table", table.name(), error);
  ruleset_.Use(table, room);
  return ruleset_.SetBlind(taken->held);
}

common::Result<Snapshot> NftDataplane::TakeOver() {
  Snapshot taken;
  auto names = nft::Table::Names(socket_);
  if (!names.ok()) return names.error();
  if (common::Status chosen = ChooseTable(names.value(), &taken); !chosen.ok()) return chosen.error();
  for (const std::string& name : std::exchange(readable_, {})) {
    if (name == ruleset_.table().name()) continue;
    if (common::Status migrated = Migrate(nft::Table{socket_, name}); !migrated.ok()) return migrated.error();
  }
  auto snapshot = Load();
  if (!snapshot.ok()) return snapshot;
  taken.ports = std::move(snapshot.value().ports);
  taken.entries = std::move(snapshot.value().entries);
  if (!taken.held) {
    if (common::Status released = ReleaseHeld(); !released.ok()) return released.error();
  }
  return taken;
}

common::Result<Snapshot> NftDataplane::Load() {
  auto snapshot = nft::Read(ruleset_.table());
  if (!snapshot.ok()) return snapshot;
  const auto chains = ruleset_.table().Chains();
  if (!chains.ok()) return chains.error();
  std::set<std::string> names;
  for (const auto& [name, interface] : chains.value()) names.insert(name);
  ruleset_.Load(snapshot.value(), names);
  return snapshot;
}

common::Status NftDataplane::ReleaseHeld() {
  if (common::Status unmarked = ruleset_.SetBlind(false); !unmarked.ok()) return unmarked;
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
    for (const auto& [name, packets] : counters.value()) ruleset_.table().AddCounter(batch, name, packets);
    socket_.Commit(std::move(batch));  // counts that are lost do not stop the migration
  }
  const std::vector<Failure> failures = Apply(changes);
  if (!failures.empty()) return failures.front().error;
  ruleset_.Clear();
  return from.DeleteNow();
}

std::vector<Failure> NftDataplane::Apply(const Changes& changes) {
  std::vector<Failure> failures;
  ruleset_.entries().Put(changes.puts, [&failures](size_t index, int error) {
    failures.push_back({Failure::Of::kPut, index, common::SystemError("add element", {}, error)});
  });
  for (size_t i = 0; i < changes.ports.size(); ++i) {
    if (common::Status set = ruleset_.SetPort(changes.ports[i]); !set.ok())
      failures.push_back({Failure::Of::kPort, i, set.error()});
  }
  ruleset_.entries().Remove(changes.removes, [&failures](size_t index, int error) {
    failures.push_back({Failure::Of::kRemove, index, common::SystemError("delete element", {}, error)});
  });
  for (size_t i = 0; i < changes.drop_ports.size(); ++i) {
    if (common::Status gone = ruleset_.Forget(changes.drop_ports[i]); !gone.ok())
      failures.push_back({Failure::Of::kDropPort, i, gone.error()});
  }
  return failures;
}

common::Status NftDataplane::RemoveEverything() {
  if (common::Status released = ReleaseHeld(); !released.ok()) return released;
  if (common::Status gone = ruleset_.table().DeleteNow(); !gone.ok()) return gone;
  ruleset_.Clear();
  return common::Ok();
}

Deviation NftDataplane::PutBack(const std::string& what) {
  comparing_.reset();
  const common::Status made = ruleset_.Rebuild();
  proven_ = made.ok();
  return {.what = "table netdev " + ruleset_.table().name() + ": " + what,
          .error = made.ok() ? "" : made.error().Text()};
}

std::vector<Deviation> NftDataplane::ReadChangeEvents() {
  const nft::Events::Seen seen = events_.Read(ruleset_.table().name());
  if (seen.unclear) proven_ = false;
  if (seen.changes.empty()) return {};
  std::string what;
  for (const std::string& change : seen.changes) what += (what.empty() ? "" : "; ") + change;
  return {PutBack(what)};
}

/// A ruleset whose generation is accounted for needs no comparison: only a transaction changes it, and every one of
/// another process that names the table has been told.
Dataplane::CheckStep NftDataplane::Check() {
  CheckStep step{.complete = true, .found = ReadChangeEvents()};
  if (!step.found.empty()) return step;
  const auto generation = socket_.Generation();
  if (!generation.ok())
    return {.complete = true,
            .found = {{"table netdev " + ruleset_.table().name() + ": not compared", generation.error().Text()}}};
  if (proven_ && events_.generation() == generation.value()) return step;
  proven_ = false;
  if (comparing_ != generation.value()) {
    comparison_.Restart();
    comparing_ = generation.value();
  }
  const auto outcome = comparison_.Next(nft::Comparison::Clock::now() + kCheckStep);
  switch (outcome.result) {
    case nft::Comparison::Result::kUnfinished:
      return {.complete = false};
    case nft::Comparison::Result::kSame:
      comparing_.reset();
      events_.SetGeneration(generation.value());
      proven_ = true;
      return {};
    case nft::Comparison::Result::kDifferent:
      return {.complete = true, .found = {PutBack(outcome.difference)}};
  }
  return {};
}

common::Result<std::vector<PortCounter>> NftDataplane::Counters() {
  auto counters = ruleset_.table().Counters();
  if (!counters.ok()) return counters.error();
  std::vector<PortCounter> result;
  for (const auto& [id, port] : ruleset_.ports()) {
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
  auto compare_socket = nft::Socket::Open();
  if (!compare_socket.ok()) return compare_socket.error();
  auto events = nft::Events::Open(socket.value().port());
  if (!events.ok()) return events.error();
  auto plane = std::make_unique<NftDataplane>(std::move(socket).value(), std::move(compare_socket).value(),
                                              std::move(events).value(), options);
  if (common::Status probed = plane->Probe(); !probed.ok()) return probed.error();
  return std::unique_ptr<Dataplane>{std::move(plane)};
}

}  // namespace mgr
