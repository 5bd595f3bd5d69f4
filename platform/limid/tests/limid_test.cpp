#include "limid.h"

#include <gmock/gmock.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <array>
#include <fstream>
#include <sstream>
#include <vector>

#include "registry_fixture.h"

namespace {

class Limid : public RegistryTest {};

std::string NameOf(limid_t limid) {
  std::array<char, IF_NAMESIZE> name{};
  return limid_to_intfname(limid, name.data(), name.size()) == 0 ? name.data() : "(none)";
}

TEST_F(Limid, NamesGetIdsAndIdsGiveNamesBack) {
  EXPECT_EQ(InChild([] {
              const uint32_t eth0 = NumberOf("eth0"), eth1 = NumberOf("ge-1.2:0"), again = NumberOf("eth0");
              EXPECT_NE(eth0, 0u);
              EXPECT_NE(eth0, eth1);
              EXPECT_EQ(eth0, again);
              EXPECT_EQ(NameOf(LimidOf(eth0)), "eth0");
              EXPECT_EQ(NameOf(LimidOf(eth1)), "ge-1.2:0");
              return HasFailure() ? 1 : 0;
            }),
            0);
}

TEST_F(Limid, ANameThatNoInterfaceCanHaveFailsAndLeavesTheIdZero) {
  EXPECT_EQ(InChild([] {
              const std::vector<const char*> bad = {nullptr, "",     " ",   "a b", "a\tb", "a\nb",
                                                    "a\"b",  "a'b",  "a{b", "a}b", "a[b",  "a]b",
                                                    "a/b",   "a\\b", "a%b", ".",   "..",   "sixteen-letters-"};
              for (const char* name : bad) {
                limid_t limid{{7, 7}};
                EXPECT_EQ(limid_from_intfname(&limid, name), -1) << name;
                EXPECT_EQ(Number(limid), 0u) << name;
              }
              for (const char* name : {"a", "fifteen-letters", "...", "x.100", "a_b-c+d@e"}) {
                EXPECT_NE(NumberOf(name), 0u) << name;
              }
              EXPECT_EQ(limid_from_intfname(nullptr, "eth0"), -1);
              return HasFailure() ? 1 : 0;
            }),
            0);
}

TEST_F(Limid, AnIndexGivesTheIdOfItsInterfaceAndIndexZeroTheZeroId) {
  EXPECT_EQ(InChild([] {
              limid_t limid{{7, 7}};
              EXPECT_EQ(limid_from_ifindex(&limid, 0), 0);
              EXPECT_EQ(Number(limid), 0u);
              EXPECT_EQ(limid_from_ifindex(&limid, ::if_nametoindex("lo")), 0);
              EXPECT_EQ(Number(limid), NumberOf("lo"));
              EXPECT_EQ(limid_from_ifindex(&limid, 0x7fffffff), -1);
              EXPECT_EQ(Number(limid), 0u);
              EXPECT_EQ(limid_from_ifindex(nullptr, 0), -1);
              return HasFailure() ? 1 : 0;
            }),
            0);
}

TEST_F(Limid, AnIdThatNamesNoneFailsAndTheTextIsEmpty) {
  EXPECT_EQ(InChild([] {
              const limid_t eth0 = LimidOf(NumberOf("eth0"));
              for (const limid_t limid : {LimidOf(0), LimidOf(Number(eth0) + 1), LimidOf(0xffffffff)}) {
                std::array<char, IF_NAMESIZE> name{"before"};
                EXPECT_EQ(limid_to_intfname(limid, name.data(), name.size()), -1);
                EXPECT_STREQ(name.data(), "");
                limid_type_t type = 77;
                EXPECT_EQ(limid_to_type(limid, &type), -1);
                EXPECT_EQ(type, 77);
                EXPECT_EQ(limid_is_from_type(limid, limid_type_serviceport), 0);
                EXPECT_EQ(limid_is_from_type(limid, limid_type_none), 0);
              }
              EXPECT_EQ(limid_to_type(eth0, nullptr), -1);
              return HasFailure() ? 1 : 0;
            }),
            0);
}

TEST_F(Limid, ATextThatIsTooShortForTheNameFailsAndIsEmpty) {
  EXPECT_EQ(InChild([] {
              const limid_t eth0 = LimidOf(NumberOf("eth0"));
              std::array<char, 6> name{"?????"};
              EXPECT_EQ(limid_to_intfname(eth0, name.data(), 4), -1);
              EXPECT_STREQ(name.data(), "");
              EXPECT_EQ(limid_to_intfname(eth0, name.data(), 5), 0);
              EXPECT_STREQ(name.data(), "eth0");
              EXPECT_EQ(limid_to_intfname(eth0, name.data(), 0), -1);
              EXPECT_STREQ(name.data(), "eth0") << "no room for any text";
              EXPECT_EQ(limid_to_intfname(eth0, nullptr, 5), -1);
              return HasFailure() ? 1 : 0;
            }),
            0);
}

TEST_F(Limid, ComparesIdsAndTypes) {
  const std::vector<limid_t> order = {LimidOf(0), LimidOf(1), LimidOf(0xffff), LimidOf(0x10000), LimidOf(0xffffffff)};
  for (size_t a = 0; a < order.size(); ++a) {
    for (size_t b = 0; b < order.size(); ++b) {
      const int result = limid_compare(order[a], order[b]);
      EXPECT_EQ(result < 0, a < b);
      EXPECT_EQ(result > 0, a > b);
    }
  }
  EXPECT_EQ(limid_type_compare(limid_type_serviceport, limid_type_serviceport), 0);
  EXPECT_LT(limid_type_compare(limid_type_gigabit_ethernet, limid_type_serviceport), 0);
  EXPECT_GT(limid_type_compare(limid_type_loopback, limid_type_serviceport), 0);
}

int TypeOf(const char* name) {
  limid_type_t type = 77;
  return limid_to_type(LimidOf(NumberOf(name)), &type) == 0 ? type : -1;
}

/// False when the device cannot be made. It lives as long as the process.
bool MakeTunTap(const char* name, int mode) {
  const int fd = ::open("/dev/net/tun", O_RDWR);
  ifreq request{};
  std::string{name}.copy(request.ifr_name, sizeof request.ifr_name - 1);
  request.ifr_flags = static_cast<short>(mode | IFF_NO_PI);
  return fd >= 0 && ::ioctl(fd, TUNSETIFF, &request) == 0;
}

TEST_F(Limid, AnAbsentInterfaceIsAServicePortAndLoopbackIsNot) {
  EXPECT_EQ(InChild([] {
              EXPECT_EQ(TypeOf("absent0"), limid_type_serviceport);
              EXPECT_EQ(TypeOf("lo"), limid_type_loopback);
              EXPECT_NE(limid_is_from_type(LimidOf(NumberOf("absent0")), limid_type_serviceport), 0);
              EXPECT_EQ(limid_is_from_type(LimidOf(NumberOf("lo")), limid_type_serviceport), 0);
              return HasFailure() ? 1 : 0;
            }),
            0);
}

TEST_F(Limid, TheTypeIsThatOfTheLiveInterface) {
  constexpr int kNoPrivilege = 77;
  const int result = InChild([] {
    if (::unshare(CLONE_NEWNET) != 0 || !MakeTunTap("tap9", IFF_TAP) || !MakeTunTap("tun9", IFF_TUN)) {
      return kNoPrivilege;
    }
    EXPECT_EQ(TypeOf("tap9"), limid_type_serviceport) << "Ethernet-like";
    EXPECT_EQ(TypeOf("tun9"), limid_type_point_to_point);
    return HasFailure() ? 1 : 0;
  });
  if (result == kNoPrivilege) GTEST_SKIP() << "no privilege to make network devices";
  EXPECT_EQ(result, 0);
}

}  // namespace
