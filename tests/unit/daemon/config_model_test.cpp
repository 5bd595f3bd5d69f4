// The configuration's vocabulary, where no walk over a configuration reaches it.
#include "app/confd_mgr/config_model.h"

#include <algorithm>

#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

using ConfigModel = DaemonTest;

TEST_F(ConfigModel, NewEntryHasTheIdOfInterfaceIndexZero) {
  fakes::TheTrace().Record({Kind::kLimid});
  const AllowedIpEntry entry = new_entry();
  EXPECT_EQ(Taken(), Lines{"limid_from_ifindex 0"});
  EXPECT_EQ(fakes::Describe(entry), "(no interface) 0.0.0.0 vlan 0 mac 00:00:00:00:00:00");
}

struct AddressCase {
  std::string name;
  uint32_t family;
  uint8_t fill;  ///< of all sixteen bytes
  std::string text;
};

class AddressOfAnEntry : public ConfigModel, public testing::WithParamInterface<AddressCase> {};

TEST_P(AddressOfAnEntry, IsWrittenByItsFamily) {
  AllowedIpEntry entry{};
  entry.family = GetParam().family;
  std::fill(std::begin(entry.address), std::end(entry.address), GetParam().fill);
  const AddressText text = address_text(entry);
  const std::string padded(text.begin(), text.end());  // zero to its end
  EXPECT_EQ(padded, GetParam().text + std::string(46 - GetParam().text.size(), '\0'));
}

INSTANTIATE_TEST_SUITE_P(All, AddressOfAnEntry,
                         testing::Values(AddressCase{"Ipv4", 0, 0xff, "255.255.255.255"},
                                         AddressCase{"Ipv6", 1, 0xff, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
                                         AddressCase{"AnyFamilyButZeroIsIpv6", 0x80000000, 0, "::"}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace ip_spoofing_app
