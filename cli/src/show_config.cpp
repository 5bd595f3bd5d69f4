#include "show_config.h"

namespace cli {
namespace {

constexpr const char* kGetConfig =
    "<get-config><source><running/></source><filter type=\"subtree\">"
    "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"/></filter></get-config>";

// config, anti-ip-spoofing, interface, allowed-ip, ipv4 or a switch
constexpr size_t kInterfaceLevel = 3;
constexpr size_t kSourceLevel = 5;

struct Switch {
  std::string_view leaf;
  const char* text;
};
constexpr Switch kSwitches[] = {{"all", "every source"}, {"ipv4-all", "every IPv4"}, {"ipv6-all", "every IPv6"}};

}  // namespace

void ConfigTable::OnStart(size_t level, const netconf::XmlName& /*name*/) {
  if (level == kInterfaceLevel) {
    port_.clear();
    any_ = false;
  } else if (level == kSourceLevel) {
    address_.clear();
    vlan_.clear();
    mac_.clear();
  }
}

void ConfigTable::OnEnd(size_t level, const netconf::XmlName& name, std::string_view text) {
  if (level == kSourceLevel) return EndOfSource(name);
  if (level == kInterfaceLevel && name.local == "interface" && !any_)
    return table_.Add({port_, "no IP source", "", ""});
  if (level == kInterfaceLevel + 1 && name.local == "interface-name") port_ = text;
  if (level != kSourceLevel + 1) return;
  if (name.local == "address") address_ = text;
  if (name.local == "vlan") vlan_ = text;
  if (name.local == "mac") mac_ = text;
}

void ConfigTable::EndOfSource(const netconf::XmlName& name) {
  if (name.local == "ipv4") {
    table_.Add({port_, address_, vlan_ == "0" ? "untagged" : vlan_, mac_.empty() ? "any" : mac_});
    any_ = true;
  }
  for (const Switch& one : kSwitches) {
    if (name.local != one.leaf) continue;
    table_.Add({port_, one.text, "any", "any"});
    any_ = true;
  }
}

ExitStatus ShowConfig(const Target& target, Format format) {
  ConfigTable table{WriteToStdout};
  return Show(target, kGetConfig, format, &table);
}

}  // namespace cli
