#include "show_allowed_ip.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

std::string Shown(const std::string& rows) {
  const auto document = netconf::XmlDocument::Parse(
      "<data xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\">"
      "<anti-ip-spoofing>" +
      rows + "</anti-ip-spoofing></state></data>");
  return document.ok() ? AllowedIpTable(document.value()->root()) : document.error().Text();
}

std::string Row(const std::string& address, const std::string& vlan, const std::string& mac, const std::string& state,
                const std::string& filtering) {
  return "<allowed-ip><position>0</position><mac>" + mac + "</mac><address>" + address + "</address><vlan>" + vlan +
         "</vlan><state>" + state + "</state><interface>sp1</interface><filtering>" + filtering +
         "</filtering></allowed-ip>";
}

TEST(ShowAllowedIp, HasALineForEachRow) {
  EXPECT_EQ(Shown(Row("10.0.0.1", "0", "any", "in-force", "on") +
                  Row("10.0.0.2", "100", "02:00:00:00:00:02", "not-in-force", "on") +
                  Row("ipv4-all", "0", "any", "in-force", "off") + Row("ipv6-all", "none", "any", "in-force", "on") +
                  Row("all", "0", "any", "in-force", "on")),
            "PORT  ALLOWED SOURCE  VLAN      MAC                IN FORCE  FILTERING\n"
            "sp1   10.0.0.1        untagged  any                yes       on\n"
            "sp1   10.0.0.2        100       02:00:00:00:00:02  no        on\n"
            "sp1   every IPv4      any       any                yes       off\n"
            "sp1   every IPv6      any       any                yes       on\n"
            "sp1   every source    any       any                yes       on\n");
}

TEST(ShowAllowedIp, WithoutRowsOnlyTheHeadingIsLeft) {
  EXPECT_EQ(Shown(""), "PORT  ALLOWED SOURCE  VLAN  MAC  IN FORCE  FILTERING\n");
}

}  // namespace
}  // namespace cli
