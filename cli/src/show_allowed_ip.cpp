#include "show_allowed_ip.h"

#include <algorithm>

namespace cli {
namespace {

constexpr size_t kRowLevel = 3;  // state, anti-ip-spoofing, allowed-ip

std::string Get(const std::string& interface) {
  std::string get =
      "<get><filter type=\"subtree\"><state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing><allowed-ip>";
  if (!interface.empty()) get += "<interface>" + netconf::Escaped(interface) + "</interface>";
  return get + "</allowed-ip></anti-ip-spoofing></state></filter></get>";
}

/// Turns the model's words into those of an operator.
void Reword(std::vector<std::string>* row) {
  std::string& address = (*row)[1];
  std::string& vlan = (*row)[2];
  std::string& in_force = (*row)[4];
  if (address.find("all") != std::string::npos) {
    vlan = "any";
  } else if (vlan == "0") {
    vlan = "untagged";
  }
  if (address == "all") address = "every source";
  if (address == "ipv4-all") address = "every IPv4";
  if (address == "ipv6-all") address = "every IPv6";
  in_force = in_force == "in-force" ? "yes" : "no";
}

}  // namespace

AllowedIpTable::AllowedIpTable(Write write)
    : table_{{"PORT", "ALLOWED SOURCE", "VLAN", "MAC", "IN FORCE", "FILTERING"}, std::move(write)},
      row_(kLeaves.size()) {}

void AllowedIpTable::OnStart(size_t level, const netconf::XmlName& /*name*/) {
  if (level != kRowLevel) return;
  for (std::string& value : row_) value.clear();
}

void AllowedIpTable::OnEnd(size_t level, const netconf::XmlName& name, std::string_view text) {
  if (level == kRowLevel + 1) {
    const auto leaf = std::find(kLeaves.begin(), kLeaves.end(), name.local);
    if (leaf != kLeaves.end()) row_[static_cast<size_t>(leaf - kLeaves.begin())] = text;
  } else if (level == kRowLevel && name.local == "allowed-ip") {
    Reword(&row_);
    table_.Add(row_);
  }
}

ExitStatus ShowAllowedIp(const Target& target, const std::string& interface, Format format) {
  AllowedIpTable table{WriteToStdout};
  return Show(target, Get(interface), format, &table);
}

}  // namespace cli
