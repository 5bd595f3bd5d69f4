// From what is wanted to the dataplane, and what it answers.
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <unordered_map>
#include <utility>

#include "engine/engine.h"

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

bool Engine::PlanPort(const Port& port, Phase phase, size_t removing, Plan* plan) const {
  if (port.name.empty() || port.Unused()) return true;
  const PortConfig wanted = port.WantedConfig();
  if (phase == Phase::kFinal && !port.Wanted() && port.installed_entries == removing) {
    plan->changes.drop_ports.push_back(port.id);
    return true;
  }
  const PortConfig next = phase == Phase::kFinal ? wanted : Widened(port.installed, wanted);
  if (!port.installed || next != *port.installed) plan->changes.ports.push_back(next);
  return phase == Phase::kFinal || (port.Wanted() && next == wanted);
}

bool Engine::PlanEntry(Node* node, Phase phase, Plan* plan) {
  const auto& [key, row] = *node;
  if (!row.wanted || row.installed) SetWaiting(node, false);
  if (!row.wanted && !row.installed) return true;
  if (!row.wanted) {
    if (phase == Phase::kWiden) return false;
    plan->changes.removes.push_back(key);
    plan->removes.push_back(node);
    return true;
  }
  if (row.installed) {
    if (row.wanted_mac == row.installed_mac) return true;
    if (row.installed_mac == kAnyMac && phase == Phase::kWiden) return false;
  } else {
    if (table_.Find(key.port)->name.empty()) return true;
    const bool room = installed_ + planned_ < dataplane_.Capacity();
    SetWaiting(node, !room);
    if (!room) return true;
    ++planned_;
  }
  plan->changes.puts.push_back({key, row.wanted_mac});
  plan->puts.push_back(node);
  return true;
}

Engine::Objects Engine::Make(const Objects& objects, Phase phase) {
  Plan plan;
  plan.changes.puts.reserve(objects.entries.size());
  plan.puts.reserve(objects.entries.size());
  Objects left;
  std::map<PortId, size_t> removing;  // of every port that the changes may make needless
  for (const PortId id : objects.ports) removing.try_emplace(id, 0);
  for (Node* node : objects.entries) {
    const size_t removes = plan.removes.size();
    if (!PlanEntry(node, phase, &plan)) left.entries.push_back(node);
    const PortId id = node->first.port;
    if (plan.removes.size() > removes) ++removing[id];
    // An entry is no request about its port, but may make it known or needless.
    const Port* port = table_.Find(id);
    if (port != nullptr && (!port->installed || !port->Wanted())) removing.try_emplace(id, 0);
  }
  for (const auto& [id, removes] : removing) {
    const Port* port = table_.Find(id);
    if (port != nullptr && !PlanPort(*port, phase, removes, &plan)) left.ports.push_back(id);
  }
  Apply(plan);
  Forget(objects);
  return left;
}

void Engine::Hold(Objects objects, Clock::time_point now) {
  held_ = std::move(objects);
  held_until_ = now + hold_;
  for (const PortId id : held_.ports) {
    if (Port* port = table_.Find(id)) port->held = true;
  }
  for (Node* node : held_.entries) node->second.held = true;
}

void Engine::SettleHeld(Ticket but) {
  Objects due = std::exchange(held_, {});
  std::erase_if(due.ports, [&](PortId id) {
    Port* port = table_.Find(id);
    if (port != nullptr) port->held = false;
    return port == nullptr || port->batch == but;
  });
  std::erase_if(due.entries, [&](Node* node) {
    node->second.held = false;
    return node->second.batch == but;
  });
  if (!due.empty()) Make(due, Phase::kFinal);
}

void Engine::FillRoom() {
  Plan plan;
  while (!waiting_.empty() && installed_ + planned_ < dataplane_.Capacity()) {
    Node* node = table_.entries().Find(waiting_.front());
    waiting_.pop_front();
    if (node != nullptr && node->second.waiting) PlanEntry(node, Phase::kWiden, &plan);
  }
  Apply(plan);
}

void Engine::Retry() {
  Objects again;
  for (const PortId id : std::exchange(failed_ports_, {})) {
    if (const Port* port = table_.Find(id); port != nullptr && !port->held) again.ports.push_back(id);
  }
  for (const auto& [key, text] : std::exchange(failed_entries_, {})) {
    Node* node = table_.entries().Find(key);
    node->second.failed = false;
    if (!node->second.held) again.entries.push_back(node);
  }
  retrying_ = true;
  Make(again, Phase::kFinal);
  retrying_ = false;
  FillRoom();
}

void Engine::ReleaseHeld() {
  if (inherited_ != Held::kUntilInForce || Holding() || !failed_ports_.empty()) return;
  common::Status released = dataplane_.ReleaseHeld();
  if (released && end_others_) released = end_others_();
  if (!released && !release_failed_) spdlog::warn("an earlier manager's filters: {}", released.error().Text());
  release_failed_ = !released;
  if (release_failed_) return;
  inherited_ = Held::kNothing;
  spdlog::info("the complete configuration is in force, and nothing of earlier managers any more");
}

void Engine::Forget(const Objects& objects) {
  const auto forget_port = [this](PortId id) {
    const Port* port = table_.Find(id);
    if (port != nullptr && port->Unused()) table_.Erase(id);
  };
  for (Node* node : objects.entries) {
    const EntryRow& row = node->second;
    if (row.wanted || row.installed || row.held) continue;
    EntryMade(node);
    const PortId port = node->first.port;
    table_.entries().Erase(node);
    forget_port(port);
  }
  for (const PortId id : objects.ports) forget_port(id);
}

void Engine::Apply(const Plan& plan) {
  const Changes& changes = plan.changes;
  if (changes.empty()) return;
  const std::vector<Failure> failures = dataplane_.Apply(changes);
  const FailureIndex failed{failures};
  planned_ = 0;
  for (size_t i = 0; i < changes.ports.size(); ++i) PortMade(changes.ports[i], failed.Of(Failure::Of::kPort, i));
  for (size_t i = 0; i < changes.puts.size(); ++i) {
    PutMade(plan.puts[i], changes.puts[i].mac, failed.Of(Failure::Of::kPut, i));
  }
  for (size_t i = 0; i < changes.removes.size(); ++i) RemoveMade(plan.removes[i], failed.Of(Failure::Of::kRemove, i));
  for (size_t i = 0; i < changes.drop_ports.size(); ++i) {
    DropMade(changes.drop_ports[i], failed.Of(Failure::Of::kDropPort, i));
  }
}

void Engine::PutMade(Node* node, const MacAddress& mac, const common::Error* error) {
  if (error != nullptr) return EntryFailed(node, *error);
  EntryMade(node);
  EntryRow& row = node->second;
  row.installed_mac = mac;
  if (row.installed) return;
  row.installed = true;
  ++installed_;
  ++table_.Find(node->first.port)->installed_entries;
}

void Engine::RemoveMade(Node* node, const common::Error* error) {
  if (error != nullptr) return EntryFailed(node, *error);
  EntryMade(node);
  node->second.installed = false;
  --installed_;
  --table_.Find(node->first.port)->installed_entries;
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
  Port& port = *table_.Find(id);
  if (error != nullptr) return PortMade(port.WantedConfig(), error);
  if (port.installed_entries > 0) {  // their own removal was refused, but they went with the port
    installed_ -= port.installed_entries;
    for (Node& node : table_.entries()) {
      if (node.first.port == id) node.second.installed = false;
    }
  }
  failed_ports_.erase(id);
  table_.Erase(id);
}

void Engine::EntryFailed(Node* node, const common::Error& error) {
  if (failed_entries_.empty() && !retrying_) spdlog::warn("an entry is not in force: {}", error.Text());
  node->second.failed = true;
  failed_entries_[node->first] = error.Text();
}

void Engine::EntryMade(Node* node) {
  if (!node->second.failed) return;
  node->second.failed = false;
  failed_entries_.erase(node->first);
}

void Engine::SetWaiting(Node* node, bool waiting) {
  EntryRow& row = node->second;
  if (row.waiting == waiting) return;
  row.waiting = waiting;
  waiting ? ++waiting_count_ : --waiting_count_;
  if (!waiting) return;
  if (waiting_.size() > 2 * waiting_count_ + 1024) {
    std::erase_if(waiting_, [&](const EntryKey& old) {
      const Node* known = table_.entries().Find(old);
      return known == nullptr || !known->second.waiting;
    });
  }
  waiting_.push_back(node->first);
}

std::string Engine::FailureOf(const EntryKey& key) const {
  const auto it = failed_entries_.find(key);
  return it == failed_entries_.end() ? "" : it->second;
}

}  // namespace mgr
