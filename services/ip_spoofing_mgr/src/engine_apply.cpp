// From what is wanted to the dataplane, and what it answers.
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <unordered_map>
#include <utility>

#include "engine.h"

namespace mgr {
namespace {

constexpr MacAddress kAnyMac{};

AllowAll Union(AllowAll a, AllowAll b) {
  return static_cast<AllowAll>(static_cast<uint8_t>(a) | static_cast<uint8_t>(b));
}

/// What a port can have at once, given what it has: everything that either lets pass.
PortConfig Widened(const std::optional<PortConfig>& installed, PortConfig wanted) {
  if (!installed) {
    wanted.enabled = false;
    return wanted;
  }
  wanted.enabled = installed->enabled && wanted.enabled;
  wanted.monitor = installed->monitor || wanted.monitor;
  wanted.mode = Union(installed->mode, wanted.mode);
  return wanted;
}

/// The failures of one call by list and index.
class FailureIndex final {
 public:
  explicit FailureIndex(const std::vector<Failure>& failures) {
    for (const Failure& failure : failures) lists_.at(static_cast<size_t>(failure.of)).emplace(failure.index, &failure);
  }
  [[nodiscard]] const common::Error* Of(Failure::Of list, size_t index) const {
    const auto& failures = lists_.at(static_cast<size_t>(list));
    const auto it = failures.find(index);
    return it == failures.end() ? nullptr : &it->second->error;
  }

 private:
  std::array<std::unordered_map<size_t, const Failure*>, 4> lists_;
};

}  // namespace

bool Engine::PlanPort(const Port& port, Phase phase, size_t removing, Changes* changes) const {
  if (port.name.empty() || port.Unused()) return true;
  const PortConfig wanted = port.WantedConfig();
  if (phase == Phase::kFinal && !port.Wanted() && port.installed_entries == removing) {
    changes->drop_ports.push_back(port.id);
    return true;
  }
  const PortConfig next = phase == Phase::kFinal ? wanted : Widened(port.installed, wanted);
  if (!port.installed || next != *port.installed) changes->ports.push_back(next);
  return phase == Phase::kFinal || (port.Wanted() && next == wanted);
}

bool Engine::PlanEntry(const EntryKey& key, EntryRow* row, Phase phase, Changes* changes) {
  if (!row->wanted || row->installed) SetWaiting(key, row, false);
  if (!row->wanted && !row->installed) return true;
  if (!row->wanted) {
    if (phase == Phase::kWiden) return false;
    changes->removes.push_back(key);
    return true;
  }
  if (row->installed) {
    if (row->wanted_mac == row->installed_mac) return true;
    if (row->installed_mac == kAnyMac && phase == Phase::kWiden) return false;
  } else {
    if (table_.Find(key.port)->name.empty()) return true;
    if (installed_ + planned_ >= dataplane_.Capacity()) {
      SetWaiting(key, row, true);
      return true;
    }
    SetWaiting(key, row, false);
    ++planned_;
  }
  changes->puts.push_back({key, row->wanted_mac});
  return true;
}

Engine::Objects Engine::Make(const Objects& objects, Phase phase) {
  Changes changes;
  Objects left;
  std::map<PortId, size_t> removing;  // of every port that the changes may make needless
  for (const PortId id : objects.ports) removing.try_emplace(id, 0);
  for (const EntryKey& key : objects.entries) {
    const auto it = table_.entries().find(key);
    if (it == table_.entries().end()) continue;
    const size_t removes = changes.removes.size();
    if (!PlanEntry(key, &it->second, phase, &changes)) left.entries.push_back(key);
    if (changes.removes.size() > removes) ++removing[key.port];
    // An entry is no request about its port, but may make it known or needless.
    const Port* port = table_.Find(key.port);
    if (!port->installed || !port->Wanted()) removing.try_emplace(key.port, 0);
  }
  for (const auto& [id, removes] : removing) {
    const Port* port = table_.Find(id);
    if (port != nullptr && !PlanPort(*port, phase, removes, &changes)) left.ports.push_back(id);
  }
  Apply(changes);
  Forget(objects);
  return left;
}

void Engine::Hold(Objects objects, Clock::time_point now) {
  held_ = std::move(objects);
  held_until_ = now + hold_;
  for (const PortId id : held_.ports) {
    if (Port* port = table_.Find(id)) port->held = true;
  }
  for (const EntryKey& key : held_.entries) {
    if (const auto it = table_.entries().find(key); it != table_.entries().end()) it->second.held = true;
  }
}

void Engine::SettleHeld(Ticket but) {
  Objects due = std::exchange(held_, {});
  std::erase_if(due.ports, [&](PortId id) {
    Port* port = table_.Find(id);
    if (port != nullptr) port->held = false;
    return port == nullptr || port->batch == but;
  });
  std::erase_if(due.entries, [&](const EntryKey& key) {
    const auto it = table_.entries().find(key);
    if (it != table_.entries().end()) it->second.held = false;
    return it == table_.entries().end() || it->second.batch == but;
  });
  if (!due.empty()) Make(due, Phase::kFinal);
}

void Engine::FillRoom() {
  Changes changes;
  while (!waiting_.empty() && installed_ + planned_ < dataplane_.Capacity()) {
    const EntryKey key = waiting_.front();
    waiting_.pop_front();
    const auto it = table_.entries().find(key);
    if (it != table_.entries().end() && it->second.waiting) PlanEntry(key, &it->second, Phase::kWiden, &changes);
  }
  Apply(changes);
}

void Engine::Retry() {
  Objects again;
  for (const PortId id : std::exchange(failed_ports_, {})) {
    if (const Port* port = table_.Find(id); port != nullptr && !port->held) again.ports.push_back(id);
  }
  for (const auto& [key, text] : std::exchange(failed_entries_, {})) {
    const auto it = table_.entries().find(key);
    if (it == table_.entries().end()) continue;
    it->second.failed = false;
    if (!it->second.held) again.entries.push_back(key);
  }
  retrying_ = true;
  Make(again, Phase::kFinal);
  retrying_ = false;
  FillRoom();
}

void Engine::Forget(const Objects& objects) {
  const auto forget_port = [this](PortId id) {
    const Port* port = table_.Find(id);
    if (port == nullptr || !port->Unused()) return;
    failed_ports_.erase(id);
    table_.Erase(id);
  };
  for (const EntryKey& key : objects.entries) {
    const auto it = table_.entries().find(key);
    if (it == table_.entries().end() || it->second.wanted || it->second.installed) continue;
    failed_entries_.erase(key);
    table_.entries().erase(it);
    forget_port(key.port);
  }
  for (const PortId id : objects.ports) forget_port(id);
}

void Engine::Apply(const Changes& changes) {
  if (changes.empty()) return;
  const std::vector<Failure> failures = dataplane_.Apply(changes);
  const FailureIndex failed{failures};
  planned_ = 0;
  for (size_t i = 0; i < changes.ports.size(); ++i) PortMade(changes.ports[i], failed.Of(Failure::Of::kPort, i));
  for (size_t i = 0; i < changes.puts.size(); ++i) PutMade(changes.puts[i], failed.Of(Failure::Of::kPut, i));
  for (size_t i = 0; i < changes.removes.size(); ++i)
    RemoveMade(changes.removes[i], failed.Of(Failure::Of::kRemove, i));
  for (size_t i = 0; i < changes.drop_ports.size(); ++i) {
    DropMade(changes.drop_ports[i], failed.Of(Failure::Of::kDropPort, i));
  }
}

void Engine::PutMade(const Entry& entry, const common::Error* error) {
  EntryRow& row = table_.entries().at(entry.key);
  if (error != nullptr) return EntryFailed(entry.key, &row, *error);
  if (row.failed) failed_entries_.erase(entry.key);
  row.failed = false;
  row.installed_mac = entry.mac;
  if (row.installed) return;
  row.installed = true;
  ++installed_;
  ++table_.Find(entry.key.port)->installed_entries;
}

void Engine::RemoveMade(const EntryKey& key, const common::Error* error) {
  EntryRow& row = table_.entries().at(key);
  if (error != nullptr) return EntryFailed(key, &row, *error);
  if (row.failed) failed_entries_.erase(key);
  row.failed = false;
  row.installed = false;
  --installed_;
  --table_.Find(key.port)->installed_entries;
}

void Engine::PortMade(const PortConfig& config, const common::Error* error) {
  Port& port = *table_.Find(config.id);
  if (error == nullptr) {
    if (!port.failure.empty()) failed_ports_.erase(config.id);
    port.failure.clear();
    port.installed = config;
    return;
  }
  if (port.failure != error->Text()) spdlog::warn("port {}: {}", port.name, error->Text());
  port.failure = error->Text();
  failed_ports_.insert(config.id);
}

void Engine::DropMade(PortId id, const common::Error* error) {
  if (error != nullptr) return PortMade(table_.Find(id)->WantedConfig(), error);
  if (table_.Find(id)->installed_entries > 0) {  // their own removal was refused, but they went with the port
    installed_ -= table_.Find(id)->installed_entries;
    std::erase_if(table_.entries(), [&](const auto& entry) {
      if (entry.first.port == id) failed_entries_.erase(entry.first);
      return entry.first.port == id;
    });
  }
  failed_ports_.erase(id);
  table_.Erase(id);
}

void Engine::EntryFailed(const EntryKey& key, EntryRow* row, const common::Error& error) {
  if (failed_entries_.empty() && !retrying_) spdlog::warn("an entry is not in force: {}", error.Text());
  row->failed = true;
  failed_entries_[key] = error.Text();
}

void Engine::SetWaiting(const EntryKey& key, EntryRow* row, bool waiting) {
  if (row->waiting == waiting) return;
  row->waiting = waiting;
  waiting ? ++waiting_count_ : --waiting_count_;
  if (!waiting) return;
  if (waiting_.size() > 2 * waiting_count_ + 1024) {
    std::erase_if(waiting_, [&](const EntryKey& old) {
      const auto it = table_.entries().find(old);
      return it == table_.entries().end() || !it->second.waiting;
    });
  }
  waiting_.push_back(key);
}

std::string Engine::FailureOf(const EntryKey& key) const {
  const auto it = failed_entries_.find(key);
  return it == failed_entries_.end() ? "" : it->second;
}

}  // namespace mgr
