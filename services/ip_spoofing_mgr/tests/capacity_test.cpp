// What is not in force, and why: capacity, refusals of the dataplane, interfaces, entries that nothing can hold.
#include <gmock/gmock.h>

#include "support.h"

namespace mgr::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> Reasons(const Bench& bench) {
  std::vector<std::string> reasons;
  for (const auto& [key, row] : bench.table.entries()) {
    if (row.wanted) reasons.push_back(ReasonOf(bench.table, bench.engine, key, row));
  }
  for (const auto& [key, row] : bench.table.odd_entries()) reasons.push_back(ReasonOf(bench.table, key));
  std::sort(reasons.begin(), reasons.end());
  return reasons;
}

TEST(Capacity, EntriesBeyondItWaitInTheOrderOfTheirRequestsAndAreInstalledWhenRoomAppears) {
  Bench bench{2};
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), Put("eth1", 0, "10.0.0.2"), Put("eth1", 0, "10.0.0.3"),
               Put("eth1", 0, "10.0.0.4"), Put("eth1", 0, "10.0.0.5")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.1", "eth1/0/10.0.0.2"));
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1/0/10.0.0.1 state 1 flag 0", "eth1/0/10.0.0.2 state 1 flag 0",
                                        "eth1/0/10.0.0.3 state 0 flag 0", "eth1/0/10.0.0.4 state 0 flag 0",
                                        "eth1/0/10.0.0.5 state 0 flag 0"));
  EXPECT_THAT(Reasons(bench), ElementsAre("", "", "beyond the capacity of the table",
                                          "beyond the capacity of the table", "beyond the capacity of the table"));
  EXPECT_EQ(bench.engine.WaitingEntries(), 3U);
  EXPECT_EQ(bench.engine.InstalledEntries(), 2U);

  bench.Batch({Remove("eth1", 0, "10.0.0.1"), Remove("eth1", 0, "10.0.0.3")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.2", "eth1/0/10.0.0.4"));
  EXPECT_EQ(bench.engine.WaitingEntries(), 1U);
  bench.Batch({Remove("eth1", 0, "10.0.0.2"), Remove("eth1", 0, "10.0.0.4"), Remove("eth1", 0, "10.0.0.5")});
  bench.Wait(milliseconds{20});
  EXPECT_EQ(bench.engine.WaitingEntries(), 0U);
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none"));
}

TEST(NotInForce, EntriesThatNoFrameCanMatch) {
  Bench bench;
  Request group = Put("eth1", 0, "10.0.0.2");
  group.mac[0] = 0x01;
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), group, Put("eth1", 5, "0.0.0.0"),
               Put("eth1", 0, "127.0.0.1"), Put("eth1", 0, "224.0.0.1"), Put("eth1", 0, "255.255.255.255"),
               Put("eth1", 0, "223.255.255.255")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1/0/10.0.0.1 state 1 flag 0", "eth1/0/10.0.0.2 state 0 flag 0",
                                        "eth1/0/127.0.0.1 state 0 flag 0", "eth1/0/223.255.255.255 state 1 flag 0",
                                        "eth1/0/224.0.0.1 state 0 flag 0", "eth1/0/255.255.255.255 state 0 flag 0",
                                        "eth1/5/0.0.0.0 state 0 flag 0"));
  const std::string martian = "0/8, 127/8, 224/4 and 240/4 are dropped whatever is allowed";
  EXPECT_THAT(Reasons(bench),
              ElementsAre("", "", martian, martian, martian, martian, "a group MAC address is the source of no frame"));
  const EntryTally tally = TallyEntries(bench.table);
  EXPECT_EQ(tally.InForce(), 2U);
  EXPECT_EQ(tally.Of(Hindrance::kGroupMac), 1U);
  EXPECT_EQ(tally.Of(Hindrance::kMartian), 4U);
}

TEST(Capacity, AFullTableReplacedByAnotherEndsWithTheOther) {
  Bench bench{2};
  bench.Full({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), Put("eth1", 0, "10.0.0.2")});
  bench.Wait(milliseconds{20});
  bench.Full({Enable("eth1"), Put("eth1", 0, "10.0.0.3"), Put("eth1", 0, "10.0.0.4")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.3", "eth1/0/10.0.0.4"));
  EXPECT_EQ(bench.engine.WaitingEntries(), 0U);
}

TEST(Capacity, AWaitingEntryTakesItsLatestMac) {
  Bench bench{1};
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), Put("eth1", 0, "10.0.0.2", 3)});
  bench.Batch({Put("eth1", 0, "10.0.0.2", 4)});
  bench.Batch({Remove("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.2 mac 4"));
}

TEST(Odd, EntriesThatNothingCanHoldAreShownAndNeverInstalled) {
  Bench bench;
  bench.Batch({Enable("eth1"), Put("eth1", 4094, "10.0.0.1"), Put("eth1", 4095, "10.0.0.1"),
               Put("eth1", 65535, "10.0.0.1"), Put("eth1", 0, "2001:db8::1"), Put("ghost901", 0, "10.0.0.1"),
               Put("ghost901", 4095, "10.0.0.1"), Mode("ghost902", AllowAll::kAll), Enable("ghost903")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/4094/10.0.0.1"));
  EXPECT_THAT(Reasons(bench), ElementsAre("", "IPv6 sources cannot be filtered one by one", "VLAN 4095 is above 4094",
                                          "VLAN 65535 is above 4094", "the logical interface id names no interface",
                                          "the logical interface id names no interface"));
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1/0/2001:db8::1 state 0 flag 0", "eth1/4094/10.0.0.1 state 1 flag 0",
                                        "eth1/4095/10.0.0.1 state 0 flag 0", "eth1/65535/10.0.0.1 state 0 flag 0",
                                        "eth901/0/10.0.0.1 state 0 flag 1", "eth901/4095/10.0.0.1 state 0 flag 1",
                                        "eth902 all state 0 flag 1"));
  bench.Batch({Remove("eth1", 4095, "10.0.0.1"), Remove("eth1", 0, "2001:db8::1"), Remove("ghost901", 0, "10.0.0.1"),
               Remove("ghost901", 4095, "10.0.0.1"), Mode("ghost902", AllowAll::kNone), Disable("ghost903"),
               Remove("eth1", 65535, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1/4094/10.0.0.1 state 1 flag 0"));
  EXPECT_EQ(bench.table.ports().size(), 1U);
}

TEST(Refused, AnEntryIsTriedAgainEverySecondUntilItIsInForce) {
  Bench bench;
  bench.plane.refused = {"eth1/0/10.0.0.1"};
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), Put("eth1", 0, "10.0.0.2")});
  bench.Wait(milliseconds{20});
  EXPECT_EQ(bench.engine.Settled(), 1U) << "what waits with a reason holds up nobody";
  EXPECT_THAT(Reasons(bench), ElementsAre("", "apply eth1/0/10.0.0.1: refused"));
  bench.plane.calls.clear();
  bench.Wait(milliseconds{1000});
  EXPECT_THAT(bench.plane.calls, ElementsAre("put eth1/0/10.0.0.1"));
  bench.plane.refused.clear();
  bench.Wait(milliseconds{1000});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.1", "eth1/0/10.0.0.2"));
  EXPECT_EQ(bench.engine.Deadline(), std::nullopt);
}

TEST(Refused, ARemovalIsTriedAgain) {
  Bench bench;
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  bench.plane.refused = {"eth1/0/10.0.0.1"};
  bench.Batch({Remove("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.1"));
  bench.plane.refused.clear();
  bench.Wait(milliseconds{1000});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none"));
  EXPECT_EQ(bench.engine.InstalledEntries(), 0U);
}

TEST(Refused, APortIsTriedAgainAndSaysWhy) {
  Bench bench;
  bench.plane.refused = {"eth1"};
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(Reasons(bench), ElementsAre("apply eth1: refused"));
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1/0/10.0.0.1 state 0 flag 1"));
  bench.plane.refused.clear();
  bench.Wait(milliseconds{1000});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.1"));
  EXPECT_THAT(Reasons(bench), ElementsAre(""));
}

TEST(Refused, ADroppedPortTakesItsRefusedRemovalsWithIt) {
  Bench bench;
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  bench.plane.refused = {"eth1/0/10.0.0.1"};
  bench.Full({});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), IsEmpty());
  EXPECT_TRUE(bench.table.entries().empty());
  EXPECT_EQ(bench.engine.InstalledEntries(), 0U);
  EXPECT_EQ(bench.engine.Deadline(), std::nullopt);
}

TEST(Interface, AnAbsentOneMakesItsRowsWaitAndAppearingPutsThemInForceAtOnce) {
  Bench bench;
  bench.interfaces.special["eth1"] = 0;
  bench.Batch({Enable("eth1"), Mode("eth1", AllowAll::kIpv6), Put("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1 ipv6-all state 0 flag 1", "eth1/0/10.0.0.1 state 0 flag 1"));
  EXPECT_THAT(Reasons(bench), ElementsAre("no such interface"));
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on ipv6-all absent", "eth1/0/10.0.0.1"));
  bench.plane.calls.clear();

  const std::vector<std::string> name{"eth1"};
  bench.interfaces.special["eth1"] = 17;
  bench.engine.InterfacesChanged(name, bench.now);
  EXPECT_THAT(bench.plane.calls, ElementsAre("port eth1 on ipv6-all"));
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1 ipv6-all state 1 flag 0", "eth1/0/10.0.0.1 state 1 flag 0"));

  bench.interfaces.special["eth1"] = 18;  // made anew
  bench.engine.InterfacesChanged(name, bench.now);
  EXPECT_EQ(bench.plane.memory.ports().begin()->second.ifindex, 18U);
  bench.interfaces.special["eth1"] = 0;
  bench.engine.InterfacesChanged(name, bench.now);
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1 ipv6-all state 0 flag 1", "eth1/0/10.0.0.1 state 0 flag 1"));
}

TEST(Interface, ThatAppearsDuringAHoldKeepsTheHold) {
  Bench bench;
  bench.interfaces.special["eth1"] = 0;
  bench.Batch({Enable("eth1")});
  const std::vector<std::string> names{"eth1", "eth77"};
  bench.interfaces.special["eth1"] = 5;
  bench.engine.InterfacesChanged(names, bench.now);
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 off none"));
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none"));
}

TEST(NotEnabled, AnEntryOfAPortThatIsNotEnabledIsNotInForce) {
  Bench bench;
  bench.Batch({Put("eth1", 0, "10.0.0.1"), Mode("eth1", AllowAll::kIpv4)});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1 ipv4-all state 0 flag 1", "eth1/0/10.0.0.1 state 0 flag 1"));
  EXPECT_THAT(Reasons(bench), ElementsAre("the port is not enabled"));
}

TEST(Monitor, IsKeptOverBatchesAndSeenInTheFlag) {
  Bench bench;
  EXPECT_FALSE(bench.engine.SetMonitor("eth1", true, bench.now));
  bench.Full({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  EXPECT_TRUE(bench.engine.SetMonitor("eth1", true, bench.now));
  bench.Full({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), Mode("eth1", AllowAll::kIpv6)});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on ipv6-all monitor", "eth1/0/10.0.0.1"));
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1 ipv6-all state 1 flag 1", "eth1/0/10.0.0.1 state 1 flag 1"));
  EXPECT_TRUE(bench.engine.SetMonitor("eth1", false, bench.now));
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on ipv6-all", "eth1/0/10.0.0.1"));
}

}  // namespace
}  // namespace mgr::test
