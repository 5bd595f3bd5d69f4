// Interfaces created, deleted and changed by a commit: requests and log lines, pass by pass.
#include <csignal>

#include "changes_fixture.h"

namespace ip_spoofing_app {
namespace {

const std::string kDel = "IpSpoofingIfacesDiffItDel";
const std::string kCreate = "IpSpoofingIfacesDiffItCreate";

std::string BodyLog(const std::string& text) { return "log 10 IpSpoofingIfacesDiffIt: " + text; }
std::string Seen(const std::string& path, int kplen, int op, const std::string& name) {
  return BodyLog("path[" + path + "] kplen[" + std::to_string(kplen) + "] op[" + std::to_string(op) +
                 "] iface: " + name);
}
std::string Seen(const std::string& name, int op) { return Seen(Iface(name), 4, op, name); }
std::string UpdateLog(const std::string& text) { return "log 10 UpdateAllowedIpAllConfig: " + text; }

/// The session on the configuration before the commit, with what happens while it is open.
Lines Before(const Lines& body) { return Join({{"open pre-commit"}, body, {"close pre-commit"}}); }

class IfaceChanges : public OnePointTest {};

TEST_P(IfaceChanges, LeaveThisTrace) { ExpectTrace(kIfacePoint); }

const ChangesCase kRequests[] = {
    {"NothingChanged", {}, [] {}, {}, {}},
    {"CreatedWithoutAllowAll",
     {{MOP_CREATED, Iface("eth3")}},
     [] { IfaceChanges::Put(Iface("eth3")); },
     {Omitted(kDel, 4, 1, "eth3")},
     Join({{Seen("eth3", 1), BodyLog("SendIpSpoofing true for eth3"), "SendIpSpoofing eth3 true"}, Before({})})},
    {"CreatedIsEnabledBeforeItsModeIsSent",
     {{MOP_CREATED, Iface("eth3")}},
     [] { IfaceChanges::Put(Iface("eth3") + "/allowed-ip/ipv4-all"); },
     {Omitted(kDel, 4, 1, "eth3")},
     Join({{Seen("eth3", 1), BodyLog("SendIpSpoofing true for eth3"), "SendIpSpoofing eth3 true"},
           Before({UpdateLog("op[1] sending allowed-ip[IPV4_ALL] old[0] for[eth3]"), "SendAllowedIpAll eth3 1"})})},
    {"DeletedLosesItsModeBeforeItIsDisabled",
     {{MOP_DELETED, Iface("eth3")}},
     [] { IfaceChanges::PutBefore(Iface("eth3") + "/allowed-ip/all"); },
     Join({{Seen("eth3", 2)},
           Before({"SendAllowedIpAll eth3 0", UpdateLog("op[2] sending allowed-ip[NONE] old[3] for[eth3]")}),
           {BodyLog("SendIpSpoofing false for eth3"), "SendIpSpoofing eth3 false"}}),
     {Omitted(kCreate, 4, 2, "eth3")}},
    {"DeletedWithoutAllowAll",
     {{MOP_DELETED, Iface("eth3")}},
     [] { IfaceChanges::PutBefore(Iface("eth3")); },
     Join({{Seen("eth3", 2)}, Before({}), {BodyLog("SendIpSpoofing false for eth3"), "SendIpSpoofing eth3 false"}}),
     {Omitted(kCreate, 4, 2, "eth3")}},
    {"ModifiedSendsOnlyTheMode",
     {{MOP_MODIFIED, Iface("eth3")}},
     [] {
       IfaceChanges::PutBefore(Iface("eth3") + "/allowed-ip/ipv6-all");
       IfaceChanges::Put(Iface("eth3"));
     },
     {Omitted(kDel, 4, 3, "eth3")},
     Join({{Seen("eth3", 3)},
           Before({UpdateLog("op[3] sending allowed-ip[NONE] old[2] for[eth3]"), "SendAllowedIpAll eth3 0"})})},
    {"ModifiedByAnEntryOnlySendsNothing",
     {{MOP_MODIFIED, Iface("eth3")}},
     [] {
       IfaceChanges::PutBefore(Iface("eth3") + "/allowed-ip/all");
       IfaceChanges::Put(Iface("eth3") + "/allowed-ip/all");
       IfaceChanges::Put(Ipv4("eth3", "10.0.0.1 1"));
     },
     {Omitted(kDel, 4, 3, "eth3")},
     Join({{Seen("eth3", 3)}, Before({})})},
    {"ValueSetIsTreatedAsModified",
     {{MOP_VALUE_SET, Iface("eth3")}},
     [] { IfaceChanges::Put(Iface("eth3") + "/allowed-ip/ipv6-all"); },
     {Omitted(kDel, 4, 4, "eth3")},
     Join({{Seen("eth3", 4)},
           Before({UpdateLog("op[4] sending allowed-ip[IPV6_ALL] old[0] for[eth3]"), "SendAllowedIpAll eth3 2"})})},
    {"AttributeSetIsTreatedAsModified",
     {{MOP_ATTR_SET, Iface("eth3")}},
     [] { IfaceChanges::Put(Iface("eth3") + "/allowed-ip/all"); },
     {Omitted(kDel, 4, 6, "eth3")},
     Join({{Seen("eth3", 6)},
           Before({UpdateLog("op[6] sending allowed-ip[ALL] old[0] for[eth3]"), "SendAllowedIpAll eth3 3"})})},
    {"MovedDoesNothing",
     {{MOP_MOVED_AFTER, Iface("eth3")}},
     [] { IfaceChanges::Put(Iface("eth3") + "/allowed-ip/all"); },
     {Omitted(kDel, 4, 5, "eth3")},
     {Seen("eth3", 5)}},
    {"UnknownOperationsDoNothing",
     {{static_cast<confd_iter_op>(0), Iface("eth3")}, {static_cast<confd_iter_op>(7), Iface("eth4")}},
     [] { IfaceChanges::Put(Iface("eth3") + "/allowed-ip/all"); },
     {Omitted(kDel, 4, 0, "eth3"), Omitted(kDel, 4, 7, "eth4")},
     {Seen("eth3", 0), Seen("eth4", 7)}},
    {"DeletionsGoFirst",
     {{MOP_CREATED, Iface("eth1")}, {MOP_DELETED, Iface("eth2")}},
     [] {
       IfaceChanges::PutBefore(Iface("eth2") + "/allowed-ip/all");
       IfaceChanges::Put(Iface("eth1") + "/allowed-ip/all");
     },
     Join({{Omitted(kDel, 4, 1, "eth1"), Seen("eth2", 2)},
           Before({"SendAllowedIpAll eth2 0", UpdateLog("op[2] sending allowed-ip[NONE] old[3] for[eth2]")}),
           {BodyLog("SendIpSpoofing false for eth2"), "SendIpSpoofing eth2 false"}}),
     Join({{Seen("eth1", 1), BodyLog("SendIpSpoofing true for eth1"), "SendIpSpoofing eth1 true"},
           Before({UpdateLog("op[1] sending allowed-ip[ALL] old[0] for[eth1]"), "SendAllowedIpAll eth1 3"}),
           {Omitted(kCreate, 4, 2, "eth2")}})},
    {"PortOfAnotherTypeHasOnlyItsMode",
     {{MOP_DELETED, Iface("lo1")}, {MOP_CREATED, Iface("lo2")}},
     [] {
       fakes::TheLimid().SetType("lo1", limid_type_loopback);
       fakes::TheLimid().SetType("lo2", limid_type_point_to_point);
       IfaceChanges::PutBefore(Iface("lo1") + "/allowed-ip/ipv4-all");
       IfaceChanges::Put(Iface("lo2") + "/allowed-ip/ipv4-all");
     },
     Join({{Seen("lo1", 2)},
           Before({"SendAllowedIpAll lo1 0", UpdateLog("op[2] sending allowed-ip[NONE] old[1] for[lo1]")}),
           {Omitted(kDel, 4, 1, "lo2")}}),
     Join({{Omitted(kCreate, 4, 2, "lo1"), Seen("lo2", 1)},
           Before({UpdateLog("op[1] sending allowed-ip[IPV4_ALL] old[0] for[lo2]"), "SendAllowedIpAll lo2 1"})})},
    // Unlike at load, no interface's type is kept for the next.
    {"PortWithoutATypeIsNotEnabled",
     {{MOP_CREATED, Iface("eth1")}, {MOP_CREATED, Iface("eth2")}},
     [] { fakes::TheScript().Return("limid_to_type eth2", -1); },
     {Omitted(kDel, 4, 1, "eth1"), Omitted(kDel, 4, 1, "eth2")},
     Join({{Seen("eth1", 1), BodyLog("SendIpSpoofing true for eth1"), "SendIpSpoofing eth1 true"},
           Before({}),
           {Seen("eth2", 1)},
           Before({})})},
    {"InterfaceWithoutAnIdHasOnlyItsMode",
     {{MOP_CREATED, Iface("eth3")}},
     [] {
       IfaceChanges::Put(Iface("eth3") + "/allowed-ip/all");
       fakes::TheScript().Return("limid_from_intfname eth3", -1);
     },
     {Omitted(kDel, 4, 1, "eth3")},
     Join(
         {{Seen("eth3", 1)},
          Before({UpdateLog("op[1] sending allowed-ip[ALL] old[0] for[eth3]"), "SendAllowedIpAll (no interface) 3"})})},
    {"EntriesBelowAreNotVisited",
     {{MOP_CREATED, Iface("eth3")},
      {MOP_VALUE_SET, Iface("eth3") + "/allowed-ip/all"},
      {MOP_CREATED, Ipv4("eth3", "10.0.0.1 1")},
      {MOP_MOVED_AFTER, Iface("eth4")}},
     [] {},
     {Omitted(kDel, 4, 1, "eth3"), Omitted(kDel, 4, 5, "eth4")},
     Join({{Seen("eth3", 1), BodyLog("SendIpSpoofing true for eth3"), "SendIpSpoofing eth3 true"},
           Before({}),
           {Seen("eth4", 5)}})},
    {"LengthOfTheKeypathDecidesNothing",
     {{MOP_CREATED, Ipv4("eth3", "10.0.0.1 100")}},
     [] {},
     {Omitted(kDel, 7, 1, "eth3")},
     Join({{Seen(Ipv4("eth3", "10.0.0.1 100"), 7, 1, "eth3"), BodyLog("SendIpSpoofing true for eth3"),
            "SendIpSpoofing eth3 true"},
           Before({})})},
    {"RefusedRequestsDoNotMatter",
     {{MOP_CREATED, Iface("eth3")}},
     [] {
       IfaceChanges::Put(Iface("eth3") + "/allowed-ip/all");
       fakes::TheScript().Return("SendIpSpoofing", -1);
       fakes::TheScript().Return("SendAllowedIpAll", -1);
     },
     {Omitted(kDel, 4, 1, "eth3")},
     Join({{Seen("eth3", 1), BodyLog("SendIpSpoofing true for eth3"), "SendIpSpoofing eth3 true"},
           Before({UpdateLog("op[1] sending allowed-ip[ALL] old[0] for[eth3]"), "SendAllowedIpAll eth3 3"})})},
};
INSTANTIATE_TEST_SUITE_P(All, IfaceChanges, testing::ValuesIn(kRequests),
                         [](const auto& row) { return row.param.name; });

class IfacePasses : public ChangesTest {
 protected:
  void CreateOne() {
    BuildSubscribed();
    fakes::TheZlog().detail_enabled = false;
    Put(Iface("eth3"));
    fakes::TheCdb().changes[kIfacePoint] = {{MOP_CREATED, Iface("eth3")}};
  }
  const std::string kDeleteFault_ =
      "fault 0 HandleIpSpoofingIfacesDiff: FAILED in receiving IpSpoofing Ifaces Delete changes from database, "
      "Error: the library's text";
  const std::string kCreateFault_ =
      "fault 0 HandleIpSpoofingIfacesDiff: FAILED in receiving IpSpoofing Ifaces Create/Edit changes from database, "
      "Error: the library's text";
  const Lines kNotAcknowledged_ = {
      "fault 0 FindSubscription: FindSubscription: Unknown subscriber ID(1) when treating ip-spoofing-app ConfD "
      "message",
      "log 12 TreatSubscriptionMsg: Not found subscription!"};
};

TEST_F(IfacePasses, FailedDeletePassIsAFaultAndTheRestGoesOn) {
  CreateOne();
  fakes::TheScript().Return("cdb_diff_iterate 1 18", -1, "the library's text");
  EXPECT_EQ(Deliver({kIfacePoint}),
            Handled(Passes(1, {kDeleteFault_}, {"SendIpSpoofing eth3 true", "open pre-commit", "close pre-commit"})));
}

TEST_F(IfacePasses, FailedCreatePassFailsTheMessage) {
  CreateOne();
  fakes::TheScript().Return("cdb_diff_iterate 1 16", -1, "the library's text");
  EXPECT_EQ(Deliver({kIfacePoint}), Failed(Join({Passes(1, {}, {kCreateFault_}), kNotAcknowledged_})));
}

TEST_F(IfacePasses, BothFailWithAnyResultButZero) {
  CreateOne();
  fakes::TheScript().Return("cdb_diff_iterate", 3, "the library's text");
  EXPECT_EQ(Deliver({kIfacePoint}), Failed(Join({Passes(1, {kDeleteFault_}, {kCreateFault_}), kNotAcknowledged_})));
}

TEST_F(IfacePasses, DisabledDetailIsNotFormatted) {
  CreateOne();
  fakes::TheCdb().changes[kIfacePoint].push_back({MOP_DELETED, Iface("eth4")});
  PutBefore(Iface("eth4") + "/allowed-ip/all");
  EXPECT_EQ(
      Deliver({kIfacePoint}),
      Handled(Passes(1, {"open pre-commit", "SendAllowedIpAll eth4 0", "close pre-commit", "SendIpSpoofing eth4 false"},
                     {"SendIpSpoofing eth3 true", "open pre-commit", "close pre-commit"})));
  EXPECT_EQ(fakes::TheZlog().detail_lines_while_disabled, 0);
}

// A keypath's text ends where the 8192 bytes for it do.
TEST_F(IfacePasses, LongPathIsCut) {
  CreateOne();
  const std::string path = Iface(std::string(9000, 'n'));
  fakes::TheCdb().changes[kIfacePoint] = {{MOP_MODIFIED, path}};
  fakes::TheTrace().Record({Kind::kRead});
  EXPECT_THAT(Deliver({kIfacePoint}),
              testing::Contains("cdb_exists running " + path.substr(0, 8191) + "/allowed-ip/all = -1"));
}

}  // namespace
}  // namespace ip_spoofing_app
