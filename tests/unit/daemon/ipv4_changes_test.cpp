// Allowed IPv4 entries created, deleted and changed by a commit.

#include "changes_fixture.h"

namespace ip_spoofing_app {
namespace {

const std::string kDel = "IpSpoofingAllowedIpIPv4DiffItDel";
const std::string kCreate = "IpSpoofingAllowedIpIPv4DiffItCreate";
const std::string kEntry = Ipv4("eth3", "10.0.0.1 100");

std::string BodyLog(const std::string& text) { return "log 10 IpSpoofingAllowedIpIPv4DiffIt: " + text; }
std::string Called(int kplen, int op, const std::string& name) {
  return BodyLog("called kplen[" + std::to_string(kplen) + "] op[" + std::to_string(op) + "] iface: " + name);
}
std::string Called(int op) { return Called(7, op, "eth3"); }
std::string RemovalLog(const std::string& text) { return "log 10 DeleteEntireAllowedIpIpv4List: " + text; }

class Ipv4Changes : public OnePointTest {};

TEST_P(Ipv4Changes, LeaveThisTrace) { ExpectTrace(kIpv4Point); }

const std::string kZeroMac = " mac 00:00:00:00:00:00";

const ChangesCase kCases[] = {
    {"NothingChanged", {}, [] {}, {}, {}},
    {"AddedWithoutMac",
     {{MOP_CREATED, kEntry}},
     [] { Ipv4Changes::Put(kEntry); },
     {Omitted(kDel, 7, 1, "eth3")},
     {Called(1), BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendAddEntry eth3 10.0.0.1 vlan 100" + kZeroMac}},
    {"AddedWithMac",
     {{MOP_CREATED, kEntry}},
     [] { Ipv4Changes::Put(kEntry + "/mac", "02:00:00:00:00:01"); },
     {Omitted(kDel, 7, 1, "eth3")},
     {Called(1), BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendAddEntry eth3 10.0.0.1 vlan 100 mac 02:00:00:00:00:01"}},
    // The MAC is read from the configuration after the commit, where the entry is gone.
    {"RemovedCarriesNoMac",
     {{MOP_DELETED, kEntry}},
     [] { Ipv4Changes::PutBefore(kEntry + "/mac", "02:00:00:00:00:01"); },
     {Called(2), BodyLog("SendRemoveEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendRemoveEntry eth3 10.0.0.1 vlan 100" + kZeroMac},
     {Omitted(kCreate, 7, 2, "eth3")}},
    {"NewMacIsAnUpdate",
     {{MOP_MODIFIED, kEntry}},
     [] {
       Ipv4Changes::PutBefore(kEntry + "/mac", "02:00:00:00:00:01");
       Ipv4Changes::Put(kEntry + "/mac", "02:00:00:00:00:02");
     },
     {Omitted(kDel, 7, 3, "eth3")},
     {Called(3), BodyLog("SendUpdateEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendUpdateEntry eth3 10.0.0.1 vlan 100 mac 02:00:00:00:00:02"}},
    {"DeletedMacIsAnUpdateWithoutOne",
     {{MOP_MODIFIED, kEntry}},
     [] {
       Ipv4Changes::PutBefore(kEntry + "/mac", "02:00:00:00:00:01");
       Ipv4Changes::Put(kEntry);
     },
     {Omitted(kDel, 7, 3, "eth3")},
     {Called(3), BodyLog("SendUpdateEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendUpdateEntry eth3 10.0.0.1 vlan 100" + kZeroMac}},
    {"ValueSetIsAnUpdate",
     {{MOP_VALUE_SET, kEntry}},
     [] {},
     {Omitted(kDel, 7, 4, "eth3")},
     {Called(4), BodyLog("SendUpdateEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendUpdateEntry eth3 10.0.0.1 vlan 100" + kZeroMac}},
    {"ChangedKeyIsARemovalThenAnAddition",
     {{MOP_CREATED, Ipv4("eth3", "10.0.0.1 200")}, {MOP_DELETED, kEntry}},
     [] { Ipv4Changes::Put(Ipv4("eth3", "10.0.0.1 200")); },
     {Omitted(kDel, 7, 1, "eth3"), Called(2), BodyLog("SendRemoveEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendRemoveEntry eth3 10.0.0.1 vlan 100" + kZeroMac},
     {Called(1), BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[200]"),
      "SendAddEntry eth3 10.0.0.1 vlan 200" + kZeroMac, Omitted(kCreate, 7, 2, "eth3")}},
    {"VlanIsCutToItsLowSixteenBits",
     {{MOP_CREATED, Ipv4("eth3", "10.0.0.1 70000")}, {MOP_CREATED, Ipv4("eth3", "10.0.0.2 -1")}},
     [] {},
     {Omitted(kDel, 7, 1, "eth3"), Omitted(kDel, 7, 1, "eth3")},
     {Called(1), BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[4464]"),
      "SendAddEntry eth3 10.0.0.1 vlan 4464" + kZeroMac, Called(1),
      BodyLog("SendAddEntry for [eth3] ip[10.0.0.2] vlan[65535]"), "SendAddEntry eth3 10.0.0.2 vlan 65535" + kZeroMac}},
    {"MovedStopsThePass",
     {{MOP_CREATED, kEntry}, {MOP_MOVED_AFTER, Ipv4("eth3", "10.0.0.2 5")}, {MOP_CREATED, Ipv4("eth4", "10.0.0.3 5")}},
     [] {},
     {Omitted(kDel, 7, 1, "eth3"), Omitted(kDel, 7, 5, "eth3"), Omitted(kDel, 7, 1, "eth4")},
     {Called(1), BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendAddEntry eth3 10.0.0.1 vlan 100" + kZeroMac, Called(5),
      "log 12 IpSpoofingAllowedIpIPv4DiffIt: Invalid operation = 5."}},
    {"AttributeStopsThePass",
     {{MOP_ATTR_SET, kEntry}, {MOP_CREATED, Ipv4("eth4", "10.0.0.3 5")}},
     [] {},
     {Omitted(kDel, 7, 6, "eth3"), Omitted(kDel, 7, 1, "eth4")},
     {Called(6), "log 12 IpSpoofingAllowedIpIPv4DiffIt: Invalid operation = 6."}},
    {"OperationZeroStopsThePass",
     {{static_cast<confd_iter_op>(0), kEntry}, {MOP_CREATED, Ipv4("eth4", "10.0.0.3 5")}},
     [] {},
     {Omitted(kDel, 7, 0, "eth3"), Omitted(kDel, 7, 1, "eth4")},
     {Called(0), "log 12 IpSpoofingAllowedIpIPv4DiffIt: Invalid operation = 0."}},
    {"EveryLengthBetweenDoesNothing",
     {{MOP_DELETED, Iface("eth3") + "/allowed-ip"},
      {MOP_DELETED, Iface("eth4") + "/allowed-ip/ipv4"},
      {MOP_MODIFIED, Iface("eth5") + "/allowed-ip"},
      {MOP_MOVED_AFTER, Iface("eth6") + "/allowed-ip/ipv4"}},
     [] { Ipv4Changes::PutBefore(kEntry); },
     {Called(5, 2, "eth3"), Called(6, 2, "eth4"), Omitted(kDel, 5, 3, "eth5"), Omitted(kDel, 6, 5, "eth6")},
     {Omitted(kCreate, 5, 2, "eth3"), Omitted(kCreate, 6, 2, "eth4"), Called(5, 3, "eth5"), Called(6, 5, "eth6")}},
    {"InterfaceEntryThatIsNotDeletedDoesNothing",
     {{MOP_CREATED, Iface("eth3")},
      {MOP_MODIFIED, Iface("eth4")},
      {MOP_MOVED_AFTER, Iface("eth5")},
      {MOP_ATTR_SET, Iface("eth6")}},
     [] {},
     {Omitted(kDel, 4, 1, "eth3"), Omitted(kDel, 4, 3, "eth4"), Omitted(kDel, 4, 5, "eth5"),
      Omitted(kDel, 4, 6, "eth6")},
     {Called(4, 1, "eth3"), Called(4, 3, "eth4"), Called(4, 5, "eth5"), Called(4, 6, "eth6")}},
    // Reported as a deleted ancestor, which the second walk does not ask for.
    {"DeletedInterfaceRemovesItsWholeList",
     {{MOP_DELETED, Iface("eth3"), true}, {MOP_CREATED, Ipv4("eth4", "10.0.0.9 9")}},
     [] {
       Ipv4Changes::PutBefore(Ipv4("eth3", "10.0.0.1 100") + "/mac", "02:00:00:00:00:01");
       Ipv4Changes::PutBefore(Ipv4("eth3", "10.0.0.2 200"));
       Ipv4Changes::PutBefore(Ipv4("eth3", "10.0.0.3 300"));
     },
     {Called(4, 2, "eth3"), "open pre-commit", RemovalLog("SendRemoveEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendRemoveEntry eth3 10.0.0.1 vlan 100 mac 02:00:00:00:00:01",
      RemovalLog("SendRemoveEntry for [eth3] ip[10.0.0.2] vlan[200]"),
      "SendRemoveEntry eth3 10.0.0.2 vlan 200" + kZeroMac,
      RemovalLog("SendRemoveEntry for [eth3] ip[10.0.0.3] vlan[300]"),
      "SendRemoveEntry eth3 10.0.0.3 vlan 300" + kZeroMac, RemovalLog("exiting iface: eth3"), "close pre-commit",
      Omitted(kDel, 7, 1, "eth4")},
     {Called(7, 1, "eth4"), BodyLog("SendAddEntry for [eth4] ip[10.0.0.9] vlan[9]"),
      "SendAddEntry eth4 10.0.0.9 vlan 9" + kZeroMac}},
    {"EntryIsOneRequestNotOnePerLeaf",
     {{MOP_CREATED, kEntry}, {MOP_VALUE_SET, kEntry + "/mac"}},
     [] { Ipv4Changes::Put(kEntry + "/mac", "02:00:00:00:00:01"); },
     {Omitted(kDel, 7, 1, "eth3")},
     {Called(1), BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendAddEntry eth3 10.0.0.1 vlan 100 mac 02:00:00:00:00:01"}},
    {"NodeBelowAnEntryIsTakenForIt",
     {{MOP_VALUE_SET, kEntry + "/mac"}},
     [] { fakes::TheScript().Return("cdb_exists running " + kEntry + "/mac/mac", 0); },
     {Omitted(kDel, 8, 4, "eth3")},
     {Called(8, 4, "eth3"), BodyLog("SendUpdateEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendUpdateEntry eth3 10.0.0.1 vlan 100" + kZeroMac}},
    {"UnreadableMacIsAFaultAndTheRequestIsSent",
     {{MOP_CREATED, kEntry}},
     [] {
       Ipv4Changes::Put(kEntry + "/mac", "02:00:00:00:00:01");
       fakes::TheScript().Return("cdb_get_binary running " + kEntry + "/mac", -1, "the library's text");
     },
     {Omitted(kDel, 7, 1, "eth3")},
     {Called(1), "fault 0 GetMacFromConfd: the library's text\n",
      "fault 0 IpSpoofingAllowedIpIPv4DiffIt: IpSpoofingAllowedIpIPv4DiffIt error reading " + kEntry + "/mac",
      BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[100]"), "SendAddEntry eth3 10.0.0.1 vlan 100" + kZeroMac}},
    {"InterfaceWithoutAnIdDoesNotMatter",
     {{MOP_CREATED, kEntry}},
     [] { fakes::TheScript().Return("limid_from_intfname eth3", -1); },
     {Omitted(kDel, 7, 1, "eth3")},
     {Called(1), BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendAddEntry (no interface) 10.0.0.1 vlan 100" + kZeroMac}},
    {"RefusedRequestDoesNotMatter",
     {{MOP_CREATED, kEntry}},
     [] { fakes::TheScript().Return("SendAddEntry", -1); },
     {Omitted(kDel, 7, 1, "eth3")},
     {Called(1), BodyLog("SendAddEntry for [eth3] ip[10.0.0.1] vlan[100]"),
      "SendAddEntry eth3 10.0.0.1 vlan 100" + kZeroMac}},
};
INSTANTIATE_TEST_SUITE_P(All, Ipv4Changes, testing::ValuesIn(kCases), [](const auto& row) { return row.param.name; });

class Ipv4Passes : public ChangesTest {
 protected:
  void AddOne() {
    BuildSubscribed();
    fakes::TheZlog().detail_enabled = false;
    fakes::TheCdb().changes[kIpv4Point] = {{MOP_CREATED, kEntry}};
  }
  const std::string kRequest_ = "SendAddEntry eth3 10.0.0.1 vlan 100" + kZeroMac;
  const std::string kDeleteFault_ =
      "fault 0 HandleIpSpoofingAllowedIpIPv4Diff: FAILED in receiving AllowedIP-Addresses Delete changes from "
      "database";
  const std::string kCreateFault_ =
      "fault 0 HandleIpSpoofingAllowedIpIPv4Diff: FAILED in receiving AllowedIP-Addresses Create/Edit changes from "
      "database";
  const Lines kNotAcknowledged_ = {
      "fault 0 FindSubscription: FindSubscription: Unknown subscriber ID(2) when treating ip-spoofing-app ConfD "
      "message",
      "log 12 TreatSubscriptionMsg: Not found subscription!"};
};

TEST_F(Ipv4Passes, FailedDeletePassIsAFaultAndTheRestGoesOn) {
  AddOne();
  fakes::TheScript().Return("cdb_diff_iterate 2 18", -1, "not in the text");
  EXPECT_EQ(Deliver({kIpv4Point}), Handled(Passes(2, {kDeleteFault_}, {kRequest_})));
}

TEST_F(Ipv4Passes, FailedCreatePassFailsTheMessage) {
  AddOne();
  fakes::TheScript().Return("cdb_diff_iterate 2 16", -1, "not in the text");
  EXPECT_EQ(Deliver({kIpv4Point}), Failed(Join({Passes(2, {}, {kCreateFault_}), kNotAcknowledged_})));
}

TEST_F(Ipv4Passes, BothFailWithAnyResultButZero) {
  AddOne();
  fakes::TheScript().Return("cdb_diff_iterate", 3, "not in the text");
  EXPECT_EQ(Deliver({kIpv4Point}), Failed(Join({Passes(2, {kDeleteFault_}, {kCreateFault_}), kNotAcknowledged_})));
}

// Each entry is read whole before its operation is looked at, and no walk goes on below it.
TEST_F(Ipv4Passes, EntriesAreReadAndTheWalkGoesOnBesideThem) {
  AddOne();
  const auto entry = [](int number) { return Ipv4("eth3", "10.0.0." + std::to_string(number) + " 5"); };
  const auto iterated = [&](int number, int op, int answer) {
    return "iter " + entry(number) + " op " + std::to_string(op) + " = " + std::to_string(answer);
  };
  const auto read = [&](int number) { return "cdb_exists running " + entry(number) + "/mac = 0"; };
  const auto sent = [](const std::string& request, int number) {
    return request + " eth3 10.0.0." + std::to_string(number) + " vlan 5" + kZeroMac;
  };
  fakes::TheCdb().changes[kIpv4Point] = {{MOP_CREATED, entry(1)},
                                         {MOP_DELETED, entry(2)},
                                         {MOP_MODIFIED, entry(3)},
                                         {MOP_VALUE_SET, entry(4)},
                                         {MOP_MOVED_AFTER, entry(5)}};
  fakes::TheTrace().Record({Kind::kRead, Kind::kRequest, Kind::kLog});
  EXPECT_EQ(Deliver({kIpv4Point}), (Lines{"cdb_set_namespace running 0x41fef11b",
                                          iterated(1, 1, ITER_CONTINUE),
                                          read(2),
                                          sent("SendRemoveEntry", 2),
                                          iterated(2, 2, ITER_CONTINUE),
                                          iterated(3, 3, ITER_CONTINUE),
                                          iterated(4, 4, ITER_CONTINUE),
                                          iterated(5, 5, ITER_CONTINUE),
                                          read(1),
                                          sent("SendAddEntry", 1),
                                          iterated(1, 1, ITER_CONTINUE),
                                          iterated(2, 2, ITER_CONTINUE),
                                          read(3),
                                          sent("SendUpdateEntry", 3),
                                          iterated(3, 3, ITER_CONTINUE),
                                          read(4),
                                          sent("SendUpdateEntry", 4),
                                          iterated(4, 4, ITER_CONTINUE),
                                          read(5),
                                          "log 12 IpSpoofingAllowedIpIPv4DiffIt: Invalid operation = 5.",
                                          iterated(5, 5, ITER_STOP),
                                          "cdb_get_txid running"}));
}

TEST_F(Ipv4Passes, WalkThatReportsItsStopFailsTheMessage) {
  AddOne();
  fakes::TheCdb().changes[kIpv4Point] = {{MOP_ATTR_SET, kEntry}};
  fakes::TheScript().Return("ITER_STOP", -1);
  EXPECT_EQ(Deliver({kIpv4Point}),
            Failed(Join({Passes(2, {}, {"log 12 IpSpoofingAllowedIpIPv4DiffIt: Invalid operation = 6.", kCreateFault_}),
                         kNotAcknowledged_})));
}

TEST_F(Ipv4Passes, DisabledDetailIsNotFormatted) {
  AddOne();
  EXPECT_EQ(Deliver({kIpv4Point}), Handled(Passes(2, {}, {kRequest_})));
  EXPECT_EQ(fakes::TheZlog().detail_lines_while_disabled, 0);
}

TEST_F(Ipv4Passes, LostSocketWhileTestingTheMacEndsTheProcess) {
  AddOne();
  fakes::TheTrace().Record({Kind::kLog, Kind::kFault, Kind::kRequest});
  fakes::TheScript().Return("cdb_exists running " + kEntry + "/mac", -2, "no server");
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        Deliver({kIpv4Point});
      },
      testing::ExitedWithCode(1),
      DiesWithExactly({"log 12 GetFromConfd: path[" + kEntry + "/mac] socket error[-2] no server", "backtrace",
                       "fault 1 GetFromConfd: GetFromConfd error[-2] reading leaf: " + kEntry + "/mac"}));
}

}  // namespace
}  // namespace ip_spoofing_app
