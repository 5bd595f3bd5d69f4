#include "table/table.h"

#include <cstring>

namespace mgr {
namespace {

uint32_t Word(limid_t limid) {
  uint32_t word = 0;
  std::memcpy(&word, &limid, sizeof word);
  return word;
}

}  // namespace

AllowAll ModeOfRequest(uint8_t value) { return (value & 3U) == 3 ? AllowAll::kAll : static_cast<AllowAll>(value & 3U); }

uint8_t TypeOf(AllowAll mode) { return mode == AllowAll::kAll ? uint8_t{3} : static_cast<uint8_t>(mode); }

Port* Table::PortOf(limid_t limid) {
  if (const auto it = id_of_limid_.find(Word(limid)); it != id_of_limid_.end()) return Find(it->second);
  const std::string name = names_.NameOf(limid).value_or("");
  Port* port = name.empty() ? nullptr : FindByName(name);
  if (port == nullptr) {
    const PortId id = NewId();
    if (id == 0) return nullptr;
    port = &Add(id, name);
  }
  port->limid = limid;
  id_of_limid_[Word(limid)] = port->id;
  return port;
}

Port& Table::Add(PortId id, const std::string& name) {
  Port& port = ports_[id];
  port.id = id;
  port.name = name;
  if (!name.empty()) id_of_name_[name] = id;
  if (port_of_id_.size() <= id) port_of_id_.resize(id + 1);
  port_of_id_[id] = &port;
  return port;
}

Port* Table::FindByName(const std::string& name) {
  const auto it = id_of_name_.find(name);
  return it == id_of_name_.end() ? nullptr : Find(it->second);
}

Port* Table::Adopt(const PortConfig& config) {
  if (config.name.empty() || config.id == 0 || config.id > kMaxPortId) return nullptr;
  if (ports_.contains(config.id) || id_of_name_.contains(config.name)) return nullptr;
  Port& port = Add(config.id, config.name);
  port.monitor = config.monitor;
  port.installed = config;
  if (const auto limid = names_.IdOf(config.name)) {
    port.limid = *limid;
    id_of_limid_[Word(*limid)] = config.id;
  }
  return &port;
}

void Table::Erase(PortId id) {
  const auto it = ports_.find(id);
  if (it == ports_.end()) return;
  id_of_limid_.erase(Word(it->second.limid));
  id_of_name_.erase(it->second.name);
  port_of_id_[id] = nullptr;
  ports_.erase(it);
}

PortId Table::NewId() {
  if (ports_.size() >= kMaxPortId) return 0;
  do {
    last_id_ = last_id_ % kMaxPortId + 1;
  } while (ports_.contains(last_id_));
  return last_id_;
}

}  // namespace mgr
