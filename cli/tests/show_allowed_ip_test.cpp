#include "show_allowed_ip.h"

#include <gtest/gtest.h>

#include "read_data.h"

namespace cli {
namespace {

std::string Shown(const std::string& rows) {
  return ReadData<AllowedIpTable>("<state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing>" + rows +
                                  "</anti-ip-spoofing></state>");
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

TEST(ShowAllowedIp, TakesNoValueFromTheRowBefore) {
  EXPECT_EQ(Shown(Row("10.0.0.1", "7", "02:00:00:00:00:01", "in-force", "on") +
                  "<allowed-ip><interface>sp2</interface><address>10.0.0.2</address></allowed-ip>"),
            "PORT  ALLOWED SOURCE  VLAN  MAC                IN FORCE  FILTERING\n"
            "sp1   10.0.0.1        7     02:00:00:00:00:01  yes       on\n"
            "sp2   10.0.0.2                                 no\n");
}

}  // namespace
}  // namespace cli
