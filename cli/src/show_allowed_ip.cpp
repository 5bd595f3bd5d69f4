#include "show_allowed_ip.h"

#include <cstdio>

#include "text_table.h"

namespace cli {
namespace {

std::string Get(const std::string& interface) {
  std::string get =
      "<get><filter type=\"subtree\"><state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing><allowed-ip>";
  if (!interface.empty()) get += "<interface>" + netconf::Escaped(interface) + "</interface>";
  return get + "</allowed-ip></anti-ip-spoofing></state></filter></get>";
}

/// The model's words, as an operator reads them.
std::string Source(const std::string& address) {
  if (address == "all") return "every source";
  if (address == "ipv4-all") return "every IPv4";
  if (address == "ipv6-all") return "every IPv6";
  return address;
}

}  // namespace

std::string AllowedIpTable(const netconf::XmlElement& data) {
  TextTable table{{"PORT", "ALLOWED SOURCE", "VLAN", "MAC", "IN FORCE", "FILTERING"}};
  const netconf::XmlElement* list = Descend(data, {"state", "anti-ip-spoofing"});
  for (const netconf::XmlElement* row = list != nullptr ? list->first_child : nullptr; row != nullptr;
       row = row->next) {
    if (row->name->local != "allowed-ip") continue;
    const std::string address = ChildText(*row, "address");
    const std::string vlan = ChildText(*row, "vlan");
    const bool all = address.find("all") != std::string::npos;
    table.Add({ChildText(*row, "interface"), Source(address),
               all           ? "any"
               : vlan == "0" ? "untagged"
                             : vlan,
               ChildText(*row, "mac"), ChildText(*row, "state") == "in-force" ? "yes" : "no",
               ChildText(*row, "filtering")});
  }
  return table.Text();
}

ExitStatus ShowAllowedIp(const Target& target, const std::string& interface, Format format) {
  const Data answer = AskForData(target, Get(interface));
  if (answer.data == nullptr) return answer.status;
  if (format != Format::kTable) return PrintData(target, *answer.data, format);
  std::fputs(AllowedIpTable(*answer.data).c_str(), stdout);
  return kDone;
}

}  // namespace cli
