#include "control/status.h"

#include <cstring>
#include <unordered_map>

#include "dataplane/verdict.h"

namespace mgr {
namespace {

using ip_spoofing_mgr::AllowedIpStatusEntry;

struct Words {
  std::string_view name;
  const char* text;  ///< null: it depends
};
constexpr std::array<Words, kHindrances> kWords = {{
    {"none", ""},
    {"unknown-interface", "the logical interface id names no interface"},
    {"port-refused", nullptr},
    {"no-interface", "no such interface"},
    {"alternative-name", nullptr},
    {"port-not-enabled", "the port is not enabled"},
    {"entry-refused", nullptr},
    {"beyond-capacity", "beyond the capacity of the table"},
    {"ipv6", "IPv6 sources cannot be filtered one by one"},
    {"vlan", nullptr},
    {"group-mac", "a group MAC address is the source of no frame"},
    {"martian", "0/8, 127/8, 224/4 and 240/4 are dropped whatever is allowed"},
    {"being-changed", "being changed"},
    {"not-guarded", nullptr},
}};

std::string TextOf(Hindrance hindrance) { return kWords.at(static_cast<size_t>(hindrance)).text; }

/// Of a port, or of an entry on it.
std::string TextOf(Hindrance hindrance, const Port& port) {
  if (hindrance == Hindrance::kPortRefused) return port.failure;
  if (hindrance == Hindrance::kNotGuarded) return port.unguarded;
  if (hindrance != Hindrance::kAlternativeName) return TextOf(hindrance);
  return "an alternative name of " + port.main_name + ": configure " + port.main_name;
}

/// Of an entry on a port that has `port`.
Hindrance HindranceOf(Hindrance port, const EntryKey& key, const EntryRow& row) {
  uint8_t first = 0;  // of the address
  std::memcpy(&first, &key.address_be, sizeof first);
  if (verdict_is_martian(first) != 0) return Hindrance::kMartian;
  if ((row.wanted_mac[0] & 1U) != 0) return Hindrance::kGroupMac;
  if (row.failed) return Hindrance::kEntryRefused;
  if (row.waiting) return Hindrance::kBeyondCapacity;
  if (port != Hindrance::kNone) return port;
  return row.installed && row.installed_mac == row.wanted_mac ? Hindrance::kNone : Hindrance::kBeingChanged;
}

Hindrance HindranceOf(const Table& table, const OddKey& key) {
  if (table.Find(key.port)->name.empty()) return Hindrance::kUnknownInterface;
  return key.ipv6 ? Hindrance::kIpv6 : Hindrance::kVlan;
}

AllowedIpStatusEntry RowOf(const Port& port, bool in_force) {
  AllowedIpStatusEntry row{};
  row.limid = port.limid;
  row.state = in_force ? 1 : 0;
  const bool filters = port.installed && port.installed->enabled && port.installed->ifindex != 0 &&
                       !port.installed->monitor && port.failure.empty() && port.unguarded.empty();
  row.flag = filters ? 0 : 1;
  return row;
}

}  // namespace

std::string_view NameOf(Hindrance hindrance) { return kWords.at(static_cast<size_t>(hindrance)).name; }

Hindrance HindranceOf(const Port& port) {
  if (port.name.empty()) return Hindrance::kUnknownInterface;
  if (!port.failure.empty()) return Hindrance::kPortRefused;
  if (!port.main_name.empty()) return Hindrance::kAlternativeName;
  if (port.ifindex == 0) return Hindrance::kNoInterface;
  if (!port.wanted_enabled) return Hindrance::kPortNotEnabled;
  if (!port.installed || *port.installed != port.WantedConfig()) return Hindrance::kBeingChanged;
  return port.unguarded.empty() ? Hindrance::kNone : Hindrance::kNotGuarded;
}

std::string ReasonOf(const Port& port) { return TextOf(HindranceOf(port), port); }

std::string ReasonOf(const Table& table, const Engine& engine, const EntryKey& key, const EntryRow& row) {
  const Port& port = *table.Find(key.port);
  const Hindrance hindrance = HindranceOf(HindranceOf(port), key, row);
  return hindrance == Hindrance::kEntryRefused ? engine.FailureOf(key) : TextOf(hindrance, port);
}

std::string ReasonOf(const Table& table, const OddKey& key) {
  const Hindrance hindrance = HindranceOf(table, key);
  return hindrance == Hindrance::kVlan ? "VLAN " + std::to_string(key.vlan) + " is above 4094" : TextOf(hindrance);
}

EntryTally TallyEntries(const Table& table) {
  EntryTally tally;
  const auto add = [&tally](Hindrance hindrance) {
    ++tally.wanted;
    ++tally.by_hindrance.at(static_cast<size_t>(hindrance));
  };
  std::unordered_map<PortId, Hindrance> of_port;
  for (const auto& [id, port] : table.ports()) of_port.emplace(id, HindranceOf(port));
  for (const auto& [key, row] : table.entries()) {
    if (row.wanted) add(HindranceOf(of_port.at(key.port), key, row));
  }
  for (const auto& [key, row] : table.odd_entries()) add(HindranceOf(table, key));
  return tally;
}

std::vector<AllowedIpStatusEntry> StatusRows(const Table& table, const Engine& engine) {
  std::vector<AllowedIpStatusEntry> rows;
  rows.reserve(table.entries().size() + table.odd_entries().size() + table.ports().size());
  for (const auto& [id, port] : table.ports()) {
    if (port.wanted_mode == AllowAll::kNone) continue;
    AllowedIpStatusEntry row = RowOf(port, ReasonOf(port).empty());
    row.type = TypeOf(port.wanted_mode);
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
