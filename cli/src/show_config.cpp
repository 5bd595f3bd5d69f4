#include "show_config.h"

#include <cstdio>

#include "text_table.h"

namespace cli {
namespace {

constexpr const char* kGetConfig =
    "<get-config><source><running/></source><filter type=\"subtree\">"
    "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"/></filter></get-config>";

struct Switch {
  const char* leaf;
  const char* text;
};
constexpr Switch kSwitches[] = {{"all", "every source"}, {"ipv4-all", "every IPv4"}, {"ipv6-all", "every IPv6"}};

void AddPort(const netconf::XmlElement& interface, TextTable* table) {
  const std::string port = ChildText(interface, "interface-name");
  bool any = false;
  const netconf::XmlElement* allowed = Descend(interface, {"allowed-ip"});
  for (const Switch& one : kSwitches) {
    if (allowed == nullptr || Descend(*allowed, {one.leaf}) == nullptr) continue;
    table->Add({port, one.text, "any", "any"});
    any = true;
  }
  for (const netconf::XmlElement* source = allowed != nullptr ? allowed->first_child : nullptr; source != nullptr;
       source = source->next) {
    if (source->name->local != "ipv4") continue;
    const std::string vlan = ChildText(*source, "vlan");
    const std::string mac = ChildText(*source, "mac");
    table->Add({port, ChildText(*source, "address"), vlan == "0" ? "untagged" : vlan, mac.empty() ? "any" : mac});
    any = true;
  }
  if (!any) table->Add({port, "no IP source", "", ""});
}

}  // namespace

std::string ConfigTable(const netconf::XmlElement& data) {
  TextTable table{{"PORT", "ALLOWED SOURCE", "VLAN", "MAC"}};
  const netconf::XmlElement* list = Descend(data, {"config", "anti-ip-spoofing"});
  for (const netconf::XmlElement* port = list != nullptr ? list->first_child : nullptr; port != nullptr;
       port = port->next) {
    AddPort(*port, &table);
  }
  return table.Text();
}

ExitStatus ShowConfig(const Target& target, Format format) {
  const Data answer = AskForData(target, kGetConfig);
  if (answer.data == nullptr) return answer.status;
  if (format != Format::kTable) return PrintData(target, *answer.data, format);
  std::fputs(ConfigTable(*answer.data).c_str(), stdout);
  return kDone;
}

}  // namespace cli
