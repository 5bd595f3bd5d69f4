#include "show_config.h"

#include <gtest/gtest.h>

#include "read_data.h"

namespace cli {
namespace {

std::string Table(const std::string& ports) {
  return ReadData<ConfigTable>("<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing>" + ports +
                               "</anti-ip-spoofing></config>");
}

TEST(ShowConfig, HasALineForEachAllowedSource) {
  EXPECT_EQ(Table("<interface><interface-name>sp1</interface-name><allowed-ip>"
                  "<ipv4><address>10.0.0.1</address><vlan>0</vlan></ipv4>"
                  "<ipv4><address>10.100.200.2</address><vlan>100</vlan><mac>02:00:00:00:00:02</mac></ipv4>"
                  "</allowed-ip></interface>"
                  "<interface><interface-name>long-name</interface-name><allowed-ip><all/><ipv4-all/><ipv6-all/>"
                  "</allowed-ip></interface>"),
            "PORT       ALLOWED SOURCE  VLAN      MAC\n"
            "sp1        10.0.0.1        untagged  any\n"
            "sp1        10.100.200.2    100       02:00:00:00:00:02\n"
            "long-name  every source    any       any\n"
            "long-name  every IPv4      any       any\n"
            "long-name  every IPv6      any       any\n");
}

TEST(ShowConfig, APortThatLetsNothingPassIsShown) {
  EXPECT_EQ(Table("<interface><interface-name>sp1</interface-name></interface>"
                  "<interface><interface-name>sp2</interface-name><allowed-ip/></interface>"),
            "PORT  ALLOWED SOURCE  VLAN  MAC\n"
            "sp1   no IP source\n"
            "sp2   no IP source\n");
}

TEST(ShowConfig, WithoutAConfigurationOnlyTheHeadingIsLeft) {
  EXPECT_EQ(Table(""), "PORT  ALLOWED SOURCE  VLAN  MAC\n");
  EXPECT_EQ(ReadData<ConfigTable>(""), "PORT  ALLOWED SOURCE  VLAN  MAC\n");
}

}  // namespace
}  // namespace cli
