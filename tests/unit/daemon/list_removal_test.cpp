// The removal of a deleted interface's entries, as they stood before the commit.
#include <functional>

#include "changes_fixture.h"

namespace ip_spoofing_app {
namespace {

const std::string kList = Iface("eth3") + "/allowed-ip/ipv4";
const std::string kZeroMac = " mac 00:00:00:00:00:00";
constexpr int kCapacity = 3;

std::string Log(const std::string& text) { return "log 10 DeleteEntireAllowedIpIpv4List: " + text; }
const std::string kNoRules = Log("There is no allowed-ip ipv4 rules for path: " + kList + " ");
const std::string kExiting = Log("exiting iface: eth3");
std::string End(int index) {
  return Log("End of allowed-ip ipv4 list for iface: eth3 index[" + std::to_string(index) + "]");
}
std::string ReadFault(int index, const std::string& leaf) {
  return "fault 0 DeleteEntireAllowedIpIpv4List: DeleteEntireAllowedIpIpv4List error reading " + kList + "[" +
         std::to_string(index) + "]/" + leaf;
}
Lines Removed(int number) {
  const std::string n = std::to_string(number);
  return {Log("SendRemoveEntry for [eth3] ip[10.0.0." + n + "] vlan[" + n + "]"),
          "SendRemoveEntry eth3 10.0.0." + n + " vlan " + n + kZeroMac};
}

/// Entries 10.0.0.1 in VLAN 1, 10.0.0.2 in VLAN 2, ... of the old configuration.
void PutEntries(int count) {
  for (int i = 1; i <= count; ++i) {
    fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Ipv4("eth3", "10.0.0." + std::to_string(i) + " " + std::to_string(i)));
  }
}

struct RemovalCase {
  std::string name;
  std::function<void()> prepare;
  Lines body;  ///< between the session's start and its end
};

class ListRemoval : public ChangesTest, public testing::WithParamInterface<RemovalCase> {};

TEST_P(ListRemoval, LeavesThisTrace) {
  fakes::TheFilters().resources = {{0, 2, 2, kCapacity}};
  ConfDAppMgr& confd = BuildSubscribed();
  GetParam().prepare();
  confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
  const Lines end = {fakes::TheScript().Find("session", {"pre-commit"}) ? "close" : "close pre-commit"};
  EXPECT_EQ(Taken(), Join({{"open pre-commit"}, GetParam().body, end}));
  EXPECT_TRUE(fakes::TheCdb().sessions.empty());
}

void ExistsButCountsZero() {
  fakes::TheScript().Return("cdb_exists pre-commit " + kList, 1);
  fakes::TheScript().Return("cdb_num_instances pre-commit " + kList, 0);
}

INSTANTIATE_TEST_SUITE_P(
    All, ListRemoval,
    testing::Values(
        RemovalCase{"OldMacsInListOrder",
                    [] {
                      fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Ipv4("eth3", "10.0.0.2 200"));
                      fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Ipv4("eth3", "10.0.0.1 100") + "/mac",
                                          "02:00:00:00:00:01");
                    },
                    {Log("SendRemoveEntry for [eth3] ip[10.0.0.1] vlan[100]"),
                     "SendRemoveEntry eth3 10.0.0.1 vlan 100 mac 02:00:00:00:00:01",
                     Log("SendRemoveEntry for [eth3] ip[10.0.0.2] vlan[200]"),
                     "SendRemoveEntry eth3 10.0.0.2 vlan 200" + kZeroMac, kExiting}},
        RemovalCase{"NoEntries", [] { fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Iface("eth3")); }, {kNoRules}},
        RemovalCase{"NewConfigurationIsNotLookedAt",
                    [] { fakes::TheCdb().Put(CDB_RUNNING, Ipv4("eth3", "10.0.0.1 1")); },
                    {kNoRules}},
        RemovalCase{"CountedEntriesMayExceedTheCapacity", [] { PutEntries(5); },
                    Join({Removed(1), Removed(2), Removed(3), Removed(4), Removed(5), {kExiting}})},
        RemovalCase{"NoSession",
                    [] {
                      PutEntries(1);
                      fakes::TheScript().Return("session pre-commit", -1);
                    },
                    {kNoRules}},
        RemovalCase{"FailedTestOfTheListIsAbsence",
                    [] {
                      PutEntries(1);
                      fakes::TheScript().Return("cdb_exists pre-commit " + kList, -1);
                    },
                    {kNoRules}},
        RemovalCase{"OnlyOneMeansThatTheListIsThere",
                    [] {
                      PutEntries(1);
                      fakes::TheScript().Return("cdb_exists pre-commit " + kList, 2);
                    },
                    {kNoRules}},
        RemovalCase{"OnlyOneMeansThatAPositionIsThere",
                    [] {
                      PutEntries(2);
                      fakes::TheScript().Return("cdb_exists pre-commit " + kList + "[1]", 2);
                    },
                    Join({Removed(1), {End(1), kExiting}})},
        RemovalCase{"InterfaceWithoutAnIdDoesNotMatter",
                    [] {
                      PutEntries(1);
                      fakes::TheScript().Return("limid_from_intfname eth3", -1);
                    },
                    {Removed(1)[0], "SendRemoveEntry (no interface) 10.0.0.1 vlan 1" + kZeroMac, kExiting}},
        RemovalCase{"EntriesCannotBeCounted",
                    [] {
                      PutEntries(2);
                      fakes::TheScript().Return("cdb_num_instances pre-commit " + kList, -2);
                    },
                    {"log 12 DeleteEntireAllowedIpIpv4List: Failed getting number allowed-ip ipv4 instances from "
                     "ConfD (error -2)"}},
        RemovalCase{"EntriesCannotBeCountedForAPlainError",
                    [] {
                      PutEntries(2);
                      fakes::TheScript().Return("cdb_num_instances pre-commit " + kList, -1);
                    },
                    {"log 12 DeleteEntireAllowedIpIpv4List: Failed getting number allowed-ip ipv4 instances from "
                     "ConfD (error -1)"}},
        RemovalCase{
            "ValuesOfTheEntryBeforeAreNotUsed",
            [] {
              PutEntries(2);
              fakes::TheScript().Return("cdb_get_ipv4 " + kList + "[1]/address", -1);
              fakes::TheScript().Return("cdb_get_int32 " + kList + "[1]/vlan", -1);
            },
            Join({Removed(1),
                  {ReadFault(1, "address"), ReadFault(1, "vlan"), Log("SendRemoveEntry for [eth3] ip[0.0.0.0] vlan[0]"),
                   "SendRemoveEntry eth3 0.0.0.0 vlan 0" + kZeroMac, kExiting}})},
        RemovalCase{
            "IdOfTheEntryBeforeIsNotUsed",
            [] {
              PutEntries(2);
              fakes::TheScript().ReturnNth("limid_from_intfname eth3", 2, -1);
            },
            Join({Removed(1), {Removed(2)[0], "SendRemoveEntry (no interface) 10.0.0.2 vlan 2" + kZeroMac, kExiting}})},
        RemovalCase{"IdOfIndexZeroIsNotUsed",
                    [] {
                      PutEntries(1);
                      fakes::TheLimid().index_zero = fakes::TheLimid().Id("eth0");
                      fakes::TheScript().Return("limid_from_intfname eth3", -1);
                    },
                    {Removed(1)[0], "SendRemoveEntry (no interface) 10.0.0.1 vlan 1" + kZeroMac, kExiting}},
        RemovalCase{"CountZeroProbesUpToTheEnd",
                    [] {
                      PutEntries(2);
                      ExistsButCountsZero();
                    },
                    Join({Removed(1), Removed(2), {End(2), kExiting}})},
        RemovalCase{"CountZeroProbesUpToTheCapacity",
                    [] {
                      PutEntries(5);
                      ExistsButCountsZero();
                    },
                    Join({Removed(1), Removed(2), Removed(3), {kExiting}})},
        RemovalCase{"CountZeroOfAnEmptyList", ExistsButCountsZero, {End(0), kExiting}},
        RemovalCase{"PositionMissingInTheMiddle",
                    [] {
                      PutEntries(3);
                      fakes::TheScript().Return("cdb_exists pre-commit " + kList + "[1]", 0);
                    },
                    Join({Removed(1), {End(1), kExiting}})},
        RemovalCase{"FailedTestOfAPositionEndsTheWalk",
                    [] {
                      PutEntries(3);
                      fakes::TheScript().Return("cdb_exists pre-commit " + kList + "[0]", -1);
                    },
                    {End(0), kExiting}},
        RemovalCase{
            "FailedReadsAreFaultsAndTheRemoveIsSent",
            [] {
              PutEntries(2);
              fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Ipv4("eth3", "10.0.0.1 1") + "/mac", "02:00:00:00:00:01");
              fakes::TheScript().Return("cdb_get_ipv4 " + kList + "[0]/address", -1);
              fakes::TheScript().Return("cdb_get_int32 " + kList + "[0]/vlan", -1);
              fakes::TheScript().Return("cdb_get_binary " + kList + "[0]/mac", -1, "the library's text");
            },
            Join({{ReadFault(0, "address"), ReadFault(0, "vlan"), "fault 0 GetMacFromConfd: the library's text\n",
                   ReadFault(0, "mac"), Log("SendRemoveEntry for [eth3] ip[0.0.0.0] vlan[0]"),
                   "SendRemoveEntry eth3 0.0.0.0 vlan 0" + kZeroMac},
                  Removed(2),
                  {kExiting}})},
        RemovalCase{"VlanIsCutToItsLowSixteenBits",
                    [] { fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Ipv4("eth3", "10.0.0.1 70000")); },
                    {Log("SendRemoveEntry for [eth3] ip[10.0.0.1] vlan[4464]"),
                     "SendRemoveEntry eth3 10.0.0.1 vlan 4464" + kZeroMac, kExiting}},
        RemovalCase{"RefusedRequestsDoNotMatter",
                    [] {
                      PutEntries(2);
                      fakes::TheScript().Return("SendRemoveEntry", -1);
                    },
                    Join({Removed(1), Removed(2), {kExiting}})}),
    [](const auto& row) { return row.param.name; });

using ListRemovalWithoutCapacity = ChangesTest;

TEST_F(ListRemovalWithoutCapacity, CountZeroIsNotProbedAtAll) {
  fakes::TheFilters().resources = {};
  ConfDAppMgr& confd = BuildSubscribed();
  PutEntries(2);
  ExistsButCountsZero();
  confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
  EXPECT_EQ(Taken(), (Lines{"open pre-commit", kExiting, "close pre-commit"}));
}

// A sum of capacities that does not fit is negative, which is not positive either.
TEST_F(ListRemovalWithoutCapacity, NegativeCapacityIsNotProbed) {
  fakes::TheFilters().resources = {{0, 2, 2, 0x80000000U}};
  ConfDAppMgr& confd = BuildSubscribed();
  ExistsButCountsZero();
  confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
  EXPECT_EQ(Taken(), (Lines{"open pre-commit", kExiting, "close pre-commit"}));
}

using ListRemovalReads = ChangesTest;

TEST_F(ListRemovalReads, AreTheseOnTheOldConfiguration) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheTrace().Record({Kind::kRead, Kind::kRequest});
  PutEntries(1);
  confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
  EXPECT_EQ(
      Taken(),
      (Lines{"cdb_exists pre-commit " + kList + " = 1", "cdb_num_instances pre-commit " + kList + " = 1",
             "cdb_exists pre-commit " + kList + "[0] = 1", "cdb_exists pre-commit " + kList + "[0]/address = 1",
             "cdb_get_ipv4 pre-commit " + kList + "[0]/address = 0", "cdb_exists pre-commit " + kList + "[0]/vlan = 1",
             "cdb_get_int32 pre-commit " + kList + "[0]/vlan = 0", "cdb_exists pre-commit " + kList + "[0]/mac = 0",
             "SendRemoveEntry eth3 10.0.0.1 vlan 1" + kZeroMac}));
}

// The list, its count, the position and three leaves: six reads, of which the last fails.
TEST_F(ListRemovalReads, AskTheSessionForItsSocketEachTime) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheTrace().Record({Kind::kFault});
  PutEntries(1);
  fakes::TheScript().ReturnNth("Socket pre-commit", 6, -1);
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
      },
      testing::ExitedWithCode(1),
      DiesWithExactly(
          {"backtrace", "fault 1 GetFromConfd: GetFromConfd error[-1] reading leaf: " + kList + "[0]/mac"}));
}

TEST_F(ListRemovalReads, PercentSignInThePathIsAConversion) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Ipv4("a%sb", "10.0.0.1 1"));
  const std::string list = Iface("a%sb") + "/allowed-ip/ipv4";
  confd.DeleteEntireAllowedIpIpv4List(list, "a%sb");
  EXPECT_EQ(Taken(), (Lines{"open pre-commit", Log("There is no allowed-ip ipv4 rules for path: " + list + " "),
                            "close pre-commit"}));
}

/// A name with a doubled percent sign makes a path that, as a format, names the list of another interface.
struct PercentCase {
  std::string name;
  int own_entries;  ///< of the interface of that name; the other one has two
};

class ListRemovalPercent : public ChangesTest, public testing::WithParamInterface<PercentCase> {};

TEST_P(ListRemovalPercent, ReadsTheOtherList) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheTrace().Record({Kind::kRequest});
  fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Iface("a%%b"));
  for (int i = 0; i < GetParam().own_entries; ++i) {
    fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Ipv4("a%%b", "10.0.9." + std::to_string(i) + " 9"));
  }
  for (const char* keys : {"10.0.0.1 1", "10.0.0.2 2"}) {
    fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, Ipv4("a%b", keys));
  }
  confd.DeleteEntireAllowedIpIpv4List(Iface("a%%b") + "/allowed-ip/ipv4", "a%%b");
  EXPECT_EQ(Taken(), (Lines{"SendRemoveEntry a%%b 10.0.0.1 vlan 1" + kZeroMac,
                            "SendRemoveEntry a%%b 10.0.0.2 vlan 2" + kZeroMac}));
}

INSTANTIATE_TEST_SUITE_P(All, ListRemovalPercent,
                         testing::Values(PercentCase{"OwnListEmpty", 0}, PercentCase{"OwnListShorter", 1},
                                         PercentCase{"OwnListLonger", 3}),
                         [](const auto& row) { return row.param.name; });

TEST_F(ListRemovalReads, ConvertTheNameAfterTheLeaves) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheTrace().Record({Kind::kLimid, Kind::kRequest, Kind::kSession});
  PutEntries(2);
  confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
  EXPECT_EQ(Taken(), (Lines{"limid_from_ifindex 0", "open pre-commit", "limid_from_intfname eth3",
                            "SendRemoveEntry eth3 10.0.0.1 vlan 1" + kZeroMac, "limid_from_intfname eth3",
                            "SendRemoveEntry eth3 10.0.0.2 vlan 2" + kZeroMac, "close pre-commit"}));
}

TEST_F(ListRemovalReads, FaultsNameTheFileOfTheRemoval) {
  ConfDAppMgr& confd = BuildSubscribed();
  PutEntries(1);
  fakes::TheScript().Return("cdb_get_ipv4", -1);
  fakes::TheScript().Return("cdb_get_int32", -1);
  confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
  ASSERT_EQ(fakes::TheMiddleware().faults.size(), 2U);
  for (const fakes::Fault& fault : fakes::TheMiddleware().faults) {
    EXPECT_EQ(fault.file, "src/app/confd_mgr/list_removal.cpp");
  }
}

TEST_F(ListRemovalReads, DisabledDetailIsNotFormatted) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheZlog().detail_enabled = false;
  PutEntries(1);
  confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
  confd.DeleteEntireAllowedIpIpv4List(Iface("eth4") + "/allowed-ip/ipv4", "eth4");
  fakes::TheScript().Return("cdb_exists " + kList + "[0]", 0);
  confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
  EXPECT_EQ(Taken(), (Lines{"open pre-commit", Removed(1)[1], "close pre-commit", "open pre-commit", "close pre-commit",
                            "open pre-commit", "close pre-commit"}));
  EXPECT_EQ(fakes::TheZlog().detail_lines_while_disabled, 0);
  EXPECT_THAT(fakes::TheZlog().asked_levels, testing::Each(10));
}

TEST_F(ListRemovalReads, MissingMandatoryLeafEndsTheProcess) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheTrace().Record({Kind::kLog, Kind::kFault, Kind::kRequest});
  PutEntries(1);
  fakes::TheScript().Return("cdb_exists " + kList + "[0]/vlan", 0);
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        confd.DeleteEntireAllowedIpIpv4List(kList, "eth3");
      },
      testing::ExitedWithCode(1),
      DiesWithExactly(
          {"backtrace", "fault 1 GetFromConfd: GetFromConfd error[0] reading leaf: " + kList + "[0]/vlan"}));
}

}  // namespace
}  // namespace ip_spoofing_app
