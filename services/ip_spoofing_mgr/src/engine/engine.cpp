#include "engine/engine.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <spdlog/spdlog.h>

namespace mgr {
namespace {

using ip_spoofing_mgr::wire::RequestKind;

uint32_t AddressBe(const Engine::Request& request) {
  uint32_t address = 0;
  std::memcpy(&address, request.address, sizeof address);
  return address;
}

MacAddress MacOf(const Engine::Request& request) {
  MacAddress mac{};
  std::memcpy(mac.data(), request.mac, mac.size());
  return mac;
}

}  // namespace

Engine::Engine(Table& table, Dataplane& dataplane, const Interfaces& interfaces, std::chrono::milliseconds hold)
    : table_{table}, dataplane_{dataplane}, interfaces_{interfaces}, hold_{hold} {}

common::Status Engine::TakeOver(std::function<common::Status()> end_others) {
  auto snapshot = dataplane_.TakeOver();
  if (!snapshot) return snapshot.error();
  for (const std::string& text : snapshot.value().unreadable) spdlog::warn("not read and not trusted: {}", text);
  if (snapshot.value().held) {
    spdlog::warn("it stays in force until a client has sent its complete configuration");
    inherited_ = Held::kUntilFullBatch;
  }
  if (end_others) inherited_ = Held::kUntilFullBatch;
  end_others_ = std::move(end_others);
  for (const PortConfig& config : snapshot.value().ports) {
    Port* port = table_.Adopt(config);
    if (port == nullptr) {
      spdlog::error("port {} ({}) of an earlier process cannot be taken over", config.id, config.name);
      continue;
    }
    port->wanted_enabled = config.enabled;
    port->wanted_mode = config.mode;
    Locate(port);
  }
  for (const Entry& entry : snapshot.value().entries) {
    Port* port = table_.Find(entry.key.port);
    if (port == nullptr) continue;
    EntryRow& row = table_.entries().FindOrMake(entry.key)->second;
    row.installed = true;
    row.installed_mac = row.wanted_mac = entry.mac;
    SetWanted(port, &row, true);
    ++port->installed_entries;
    ++installed_;
  }
  Objects ports;  // interfaces may have come and gone meanwhile
  for (const auto& [id, port] : table_.ports()) ports.ports.push_back(id);
  Make(ports, Phase::kFinal);
  return common::Ok();
}

Engine::Ticket Engine::Submit(std::span<const Request> requests, bool full, Clock::time_point now) {
  ++batch_;
  Objects touched;
  touched.entries.reserve(requests.size());
  if (full) {
    for (auto& [id, port] : table_.ports()) {
      port.wanted_enabled = false;
      port.wanted_mode = AllowAll::kNone;
      TouchPort(&port, &touched);
    }
  }
  if (requests.size() > table_.entries().size()) table_.entries().Reserve(requests.size());
  for (const Request& request : requests) Want(request, &touched);
  if (inherited_ == Held::kUntilFullBatch && !full) return batch_;
  if (inherited_ == Held::kUntilFullBatch) inherited_ = Held::kUntilInForce;
  if (full) WantNothingElse(&touched);
  Objects narrowing = Make(touched, Phase::kWiden);
  SettleHeld(batch_);
  Hold(std::move(narrowing), now);
  FillRoom();
  ReleaseHeld();
  if (HasFailures()) retry_at_ = now + kRetry;
  if (hold_.count() == 0) Advance(now);
  return batch_;
}

std::optional<Engine::Clock::time_point> Engine::Deadline() const {
  if (Holding()) return HasFailures() ? std::min(held_until_, retry_at_) : held_until_;
  return HasFailures() ? std::optional{retry_at_} : std::nullopt;
}

void Engine::Advance(Clock::time_point now) {
  if (Holding() && now >= held_until_) {
    SettleHeld(0);
    FillRoom();
    ReleaseHeld();
  }
  if (HasFailures() && now >= retry_at_) {
    Retry();
    ReleaseHeld();
    retry_at_ = now + kRetry;
  }
}

void Engine::InterfacesChanged(std::span<const std::string> names, Clock::time_point now) {
  Objects steady;
  Objects held;
  for (const std::string& name : names) {
    Port* port = table_.FindByName(name);
    if (port == nullptr) continue;
    Locate(port);
    (port->held ? held : steady).ports.push_back(port->id);
  }
  if (inherited_ == Held::kUntilFullBatch) return;
  Make(steady, Phase::kFinal);
  Make(held, Phase::kWiden);
  if (HasFailures()) retry_at_ = now + kRetry;
}

bool Engine::SetMonitor(const std::string& name, bool on, Clock::time_point now) {
  Port* port = table_.FindByName(name);
  if (port == nullptr) return false;
  port->monitor = on;
  if (inherited_ == Held::kUntilFullBatch) return true;
  Make({.ports = {port->id}, .entries = {}}, port->held ? Phase::kWiden : Phase::kFinal);
  if (HasFailures()) retry_at_ = now + kRetry;
  return true;
}

/// A port under an alternative name is not put in force: its interface may be configured under its main name too, and
/// the kernel reports filters under that one.
void Engine::Locate(Port* port) const {
  port->ifindex = interfaces_.IndexOf(port->name);
  std::string main_name = port->ifindex == 0 ? interfaces_.MainNameOf(port->name) : "";
  if (!main_name.empty() && main_name != port->main_name)
    spdlog::warn("port {} is not filtered: it is an alternative name of {}", port->name, main_name);
  port->main_name = std::move(main_name);
}

void Engine::Want(const Request& request, Objects* touched) {
  Port* port = table_.PortOf(request.limid);
  if (port == nullptr) {
    spdlog::error("more than {} ports: a request is ignored", kMaxPortId);
    return;
  }
  if (port->ifindex == 0 && !port->name.empty()) Locate(port);
  switch (request.kind) {
    case RequestKind::kPort:
      TouchPort(port, touched);
      port->wanted_enabled = request.value != 0;
      return;
    case RequestKind::kMode:
      TouchPort(port, touched);
      port->wanted_mode = ModeOfRequest(request.value);
      return;
    case RequestKind::kPut:
    case RequestKind::kRemove:
      return WantEntry(request, port, touched);
  }
}

void Engine::WantEntry(const Request& request, Port* port, Objects* touched) {
  const bool put = request.kind == RequestKind::kPut;
  if (request.family != 0 || request.vlan > kMaxVlan) {
    touched->ports.push_back(port->id);  // not as an object of this batch: it may have become needless
    OddKey key{.port = port->id, .vlan = request.vlan, .ipv6 = request.family != 0};
    std::memcpy(key.address.data(), request.address, key.address.size());
    const auto it = table_.odd_entries().find(key);
    if (put) {
      port->wanted_entries += it == table_.odd_entries().end() ? 1 : 0;
      table_.odd_entries()[key] = {MacOf(request), batch_};
    } else if (it != table_.odd_entries().end()) {
      table_.odd_entries().erase(it);
      --port->wanted_entries;
    }
    return;
  }
  const EntryKey key{.port = port->id, .vlan = request.vlan, .address_be = AddressBe(request)};
  Node* node = put ? table_.entries().FindOrMake(key) : table_.entries().Find(key);
  if (node == nullptr) {
    touched->ports.push_back(port->id);  // a port that only this request has named is forgotten again
    return;
  }
  TouchEntry(node, touched);
  if (put) node->second.wanted_mac = MacOf(request);
  SetWanted(port, &node->second, put);
}

void Engine::WantNothingElse(Objects* touched) {
  for (Node& node : table_.entries()) {
    if (node.second.batch == batch_) continue;
    TouchEntry(&node, touched);
    SetWanted(table_.Find(node.first.port), &node.second, false);
  }
  std::erase_if(table_.odd_entries(), [&](const auto& entry) {
    if (entry.second.batch == batch_) return false;
    --table_.Find(entry.first.port)->wanted_entries;
    return true;
  });
}

void Engine::TouchPort(Port* port, Objects* touched) const {
  if (port->batch == batch_) return;
  port->batch = batch_;
  touched->ports.push_back(port->id);
}

void Engine::TouchEntry(Node* node, Objects* touched) const {
  if (node->second.batch == batch_) return;
  node->second.batch = batch_;
  touched->entries.push_back(node);
}

void Engine::SetWanted(Port* port, EntryRow* row, bool wanted) {
  if (row->wanted == wanted) return;
  row->wanted = wanted;
  port->wanted_entries += wanted ? 1 : -1;
}

}  // namespace mgr
