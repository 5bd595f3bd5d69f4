#include "status.h"

#include <cstring>

namespace mgr {
namespace {

using ip_spoofing_mgr::AllowedIpStatusEntry;

AllowedIpStatusEntry RowOf(const Port& port, bool in_force) {
  AllowedIpStatusEntry row{};
  row.limid = port.limid;
  row.state = in_force ? 1 : 0;
  const bool filters = port.installed && port.installed->enabled && port.installed->ifindex != 0 &&
                       !port.installed->monitor && port.failure.empty();
  row.flag = filters ? 0 : 1;
  return row;
}

}  // namespace

std::string ReasonOf(const Port& port) {
  if (port.name.empty()) return "the logical interface id names no interface";
  if (!port.failure.empty()) return port.failure;
  if (port.ifindex == 0) return "no such interface";
  if (!port.wanted_enabled) return "the port is not enabled";
  if (!port.installed || *port.installed != port.WantedConfig()) return "being changed";
  return "";
}

std::string ReasonOf(const Table& table, const Engine& engine, const EntryKey& key, const EntryRow& row) {
  if (row.failed) return engine.FailureOf(key);
  if (row.waiting) return "beyond the capacity of the table";
  std::string reason = ReasonOf(*table.Find(key.port));
  if (reason.empty() && (!row.installed || row.installed_mac != row.wanted_mac)) reason = "being changed";
  return reason;
}

std::string ReasonOf(const Table& table, const OddKey& key) {
  if (table.Find(key.port)->name.empty()) return ReasonOf(*table.Find(key.port));
  return key.ipv6 ? "IPv6 sources cannot be filtered one by one"
                  : "VLAN " + std::to_string(key.vlan) + " is above 4094";
}

std::vector<AllowedIpStatusEntry> StatusRows(const Table& table, const Engine& engine) {
  std::vector<AllowedIpStatusEntry> rows;
  rows.reserve(table.entries().size() + table.odd_entries().size() + table.ports().size());
  for (const auto& [id, port] : table.ports()) {
    if (port.wanted_mode == AllowAll::kNone) continue;
    AllowedIpStatusEntry row = RowOf(port, ReasonOf(port).empty());
    row.type = static_cast<uint32_t>(port.wanted_mode);
    rows.push_back(row);
  }
  for (const auto& [key, entry] : table.entries()) {
    if (!entry.wanted) continue;
    AllowedIpStatusEntry row = RowOf(*table.Find(key.port), ReasonOf(table, engine, key, entry).empty());
    std::memcpy(row.address, &key.address_be, sizeof key.address_be);
    row.vlan = key.vlan;
    std::memcpy(row.mac, entry.wanted_mac.data(), entry.wanted_mac.size());
    rows.push_back(row);
  }
  for (const auto& [key, entry] : table.odd_entries()) {
    AllowedIpStatusEntry row = RowOf(*table.Find(key.port), false);
    row.family = key.ipv6 ? 1 : 0;
    std::memcpy(row.address, key.address.data(), key.address.size());
    row.vlan = key.vlan;
    std::memcpy(row.mac, entry.mac.data(), entry.mac.size());
    rows.push_back(row);
  }
  return rows;
}

}  // namespace mgr
