#include "dataplane/verdict_text.h"

#include <cassert>
#include <cstring>

namespace mgr {
namespace {

struct Reason {
  std::string_view name;
  bool passes;
};

constexpr std::array<Reason, VERDICT_REASONS> kReasons = {{
    {"not-enabled", true},   {"allow-all", true},     {"malformed", false}, {"bad-source-mac", false},
    {"vlan", false},         {"martian", false},      {"ipv4-all", true},   {"entry", true},
    {"mac-mismatch", false}, {"dhcp", true},          {"dhcp-mac", false},  {"no-entry", false},
    {"arp-mac", false},      {"arp", false},          {"arp-probe", true},  {"ipv6-all", true},
    {"ipv6", false},         {"encapsulated", false}, {"non-ip", true},
}};

constexpr std::array<std::string_view, VERDICT_ROWS> kRows = {{
    "the port is not enabled: not filtered",
    "allow-all mode ALL",
    "truncated or contradictory headers",
    "source MAC zero or group",
    "two or more tags, 802.1ad, or VID 4095",
    "IPv4 from an address that no host has",
    "IPv4, allow-all mode IPV4_ALL",
    "IPv4 from a DHCP client without an address",
    "DHCP client's hardware address differs from the source MAC",
    "IPv4, entry without MAC or with the frame's source MAC",
    "IPv4, entry with another MAC",
    "IPv4 without an entry",
    "ARP, sender hardware address differs from the source MAC",
    "ARP, sender address judged as an IPv4 source",
    "RARP",
    "IPv6, allow-all mode IPV6_ALL",
    "IPv6",
    "a type that can carry an IP source inside",
    "not IP",
}};

}  // namespace

std::string_view ReasonName(verdict_reason reason) {
  assert(reason < VERDICT_REASONS);
  return kReasons[reason].name;
}

std::string_view RowText(verdict_row row) {
  assert(row < VERDICT_ROWS);
  return kRows[row];
}

bool Passes(verdict_reason reason) {
  assert(reason < VERDICT_REASONS);
  return kReasons[reason].passes;
}

verdict_port ToVerdictPort(const PortConfig& port) {
  return {static_cast<uint8_t>(port.enabled), static_cast<uint8_t>(port.mode), static_cast<uint8_t>(port.monitor)};
}

verdict_mac ToVerdictMac(const MacAddress& mac) {
  verdict_mac result{};
  static_assert(sizeof result == sizeof mac);
  std::memcpy(&result, mac.data(), sizeof result);
  return result;
}

MacAddress FromVerdictMac(const verdict_mac& mac) {
  MacAddress result{};
  std::memcpy(result.data(), &mac, sizeof mac);
  return result;
}

verdict_entry ToVerdictEntry(const MacAddress& mac, uint8_t generation) {
  return {ToVerdictMac(mac), static_cast<uint8_t>(mac != MacAddress{}), generation};
}

MacAddress EntryMac(const verdict_entry& entry) {
  return entry.has_mac != 0 ? FromVerdictMac(entry.mac) : MacAddress{};
}

}  // namespace mgr
