// What the iterators of both walks answer to each operation at each depth, and the interface ids they ask for.
#include "changes_fixture.h"

namespace ip_spoofing_app {
namespace {

/// The path whose keypath has 4 to 7 elements.
std::string PathOfLength(int length) {
  const std::string paths[] = {Iface("eth3"), Iface("eth3") + "/allowed-ip", Iface("eth3") + "/allowed-ip/ipv4",
                               Ipv4("eth3", "10.0.0.1 100")};
  return paths[length - 4];
}

/// What the iterators of a point's two passes answer to one change, within the handling of a message.
class Results : public ChangesTest {
 protected:
  Lines Answers(int point, int length, int op) {
    fakes::TheTrace().Record({Kind::kRead});
    fakes::TheCdb().changes[point] = {{static_cast<confd_iter_op>(op), PathOfLength(length)}};
    Lines answers = Deliver({point});
    std::erase_if(answers, [](const std::string& line) { return !line.starts_with("iter "); });
    return answers;
  }

  static Lines Wanted(int length, int op, confd_iter_ret deletes, confd_iter_ret creates) {
    const std::string iter = "iter " + PathOfLength(length) + " op " + std::to_string(op) + " = ";
    return {iter + std::to_string(deletes), iter + std::to_string(creates)};
  }
};

TEST_F(Results, InterfaceIteratorsAlwaysContinue) {
  BuildSubscribed();
  for (int length = 4; length <= 7; ++length) {
    for (int op = 0; op <= 7; ++op) {
      EXPECT_EQ(Answers(kIfacePoint, length, op), Wanted(length, op, ITER_CONTINUE, ITER_CONTINUE));
    }
  }
}

TEST_F(Results, Ipv4IteratorsStopAtAnUnknownChange) {
  BuildSubscribed();
  for (int length = 4; length <= 7; ++length) {
    for (int op = 0; op <= 7; ++op) {
      const bool known = op >= MOP_CREATED && op <= MOP_VALUE_SET;
      EXPECT_EQ(Answers(kIpv4Point, length, op),
                Wanted(length, op, ITER_CONTINUE, length < 7 || known ? ITER_CONTINUE : ITER_STOP));
    }
  }
}

struct LimidCase {
  std::string name;
  int point;
  fakes::Change change;
  Lines trace;
};

class LimidCalls : public ChangesTest, public testing::WithParamInterface<LimidCase> {};

/// Interface ids, requests and sessions, in the order in which a change makes them.
TEST_P(LimidCalls, StandInThisOrder) {
  BuildSubscribed();
  fakes::TheTrace().Record({Kind::kLimid, Kind::kRequest, Kind::kSession});
  PutBefore(Iface("eth3") + "/allowed-ip/ipv4-all");
  Put(Iface("eth3") + "/allowed-ip/all");
  fakes::TheCdb().changes[GetParam().point] = {GetParam().change};
  EXPECT_EQ(Deliver({GetParam().point}), Join({{"open running"}, GetParam().trace, {"close running"}}));
}

const std::string kFromName = "limid_from_intfname eth3";
const std::string kEntry = " eth3 10.0.0.1 vlan 100 mac 00:00:00:00:00:00";

/// How the interface walk finds out whether a port qualifies.
const Lines kQualify = {
    kFromName, "limid_to_type eth3",
    "limid_type_compare " + std::to_string(limid_type_serviceport) + " " + std::to_string(limid_type_serviceport)};

INSTANTIATE_TEST_SUITE_P(
    All, LimidCalls,
    testing::Values(LimidCase{"InterfaceCreated", kIfacePoint, fakes::Change{MOP_CREATED, Iface("eth3")},
                              Join({kQualify,
                                    {"SendIpSpoofing eth3 true", "open pre-commit", kFromName,
                                     "SendAllowedIpAll eth3 3", "close pre-commit"}})},
                    LimidCase{"InterfaceModified", kIfacePoint, fakes::Change{MOP_MODIFIED, Iface("eth3")},
                              Join({kQualify,
                                    {"open pre-commit", kFromName, "SendAllowedIpAll eth3 3", "close pre-commit"}})},
                    LimidCase{"InterfaceDeleted", kIfacePoint, fakes::Change{MOP_DELETED, Iface("eth3")},
                              Join({kQualify,
                                    {"open pre-commit", kFromName, "SendAllowedIpAll eth3 0", "close pre-commit",
                                     "SendIpSpoofing eth3 false"}})},
                    LimidCase{"InterfaceMoved", kIfacePoint, fakes::Change{MOP_MOVED_AFTER, Iface("eth3")}, kQualify},
                    LimidCase{"EntryCreated",
                              kIpv4Point,
                              fakes::Change{MOP_CREATED, Ipv4("eth3", "10.0.0.1 100")},
                              {"limid_from_ifindex 0", kFromName, "SendAddEntry" + kEntry}},
                    LimidCase{"EntryDeleted",
                              kIpv4Point,
                              fakes::Change{MOP_DELETED, Ipv4("eth3", "10.0.0.1 100")},
                              {"limid_from_ifindex 0", kFromName, "SendRemoveEntry" + kEntry}},
                    LimidCase{"EntryModified",
                              kIpv4Point,
                              fakes::Change{MOP_MODIFIED, Ipv4("eth3", "10.0.0.1 100")},
                              {"limid_from_ifindex 0", kFromName, "SendUpdateEntry" + kEntry}},
                    LimidCase{"InterfaceOfEntriesDeleted",
                              kIpv4Point,
                              fakes::Change{MOP_DELETED, Iface("eth3")},
                              {"limid_from_ifindex 0", "limid_from_ifindex 0", "open pre-commit", "close pre-commit"}}),
    [](const auto& row) { return row.param.name; });

using FailedIds = ChangesTest;

// The id of index 0 is what a record starts with; a name without an id keeps it.
TEST_F(FailedIds, EntryKeepsTheIdOfIndexZero) {
  BuildSubscribed();
  fakes::TheTrace().Record({Kind::kRequest});
  fakes::TheLimid().index_zero = fakes::TheLimid().Id("eth0");
  fakes::TheScript().Return("limid_from_intfname eth3", -1);
  fakes::TheCdb().changes[kIpv4Point] = {{MOP_CREATED, Ipv4("eth3", "10.0.0.1 100")}};
  EXPECT_EQ(Deliver({kIpv4Point}), Lines{"SendAddEntry eth0 10.0.0.1 vlan 100 mac 00:00:00:00:00:00"});
}

TEST_F(FailedIds, InterfaceHasTheZeroId) {
  BuildSubscribed();
  fakes::TheTrace().Record({Kind::kRequest});
  fakes::TheLimid().index_zero = fakes::TheLimid().Id("eth0");
  Put(Iface("eth3") + "/allowed-ip/all");
  fakes::TheScript().Return("limid_from_intfname eth3", -1);
  fakes::TheCdb().changes[kIfacePoint] = {{MOP_CREATED, Iface("eth2")}, {MOP_CREATED, Iface("eth3")}};
  EXPECT_EQ(Deliver({kIfacePoint}), (Lines{"SendIpSpoofing eth2 true", "SendAllowedIpAll (no interface) 3"}));
}

using DetailOff = ChangesTest;

TEST_F(DetailOff, ChangesFormatNothing) {
  BuildSubscribed();
  fakes::TheZlog().detail_enabled = false;
  fakes::TheTrace().Record({Kind::kRequest, Kind::kLog});
  PutBefore(Iface("eth2") + "/allowed-ip/ipv4-all");
  Put(Iface("eth3") + "/allowed-ip/all");
  fakes::TheCdb().changes[kIfacePoint] = {{MOP_DELETED, Iface("eth2")}, {MOP_CREATED, Iface("eth3")}};
  fakes::TheCdb().changes[kIpv4Point] = {{MOP_DELETED, Ipv4("eth2", "10.0.0.1 1")},
                                         {MOP_CREATED, Ipv4("eth3", "10.0.0.2 2")},
                                         {MOP_MODIFIED, Ipv4("eth3", "10.0.0.3 3")}};
  const std::string mac = " mac 00:00:00:00:00:00";
  EXPECT_EQ(Deliver({kIfacePoint, kIpv4Point}),
            (Lines{"SendAllowedIpAll eth2 0", "SendIpSpoofing eth2 false", "SendIpSpoofing eth3 true",
                   "SendAllowedIpAll eth3 3", "SendRemoveEntry eth2 10.0.0.1 vlan 1" + mac,
                   "SendAddEntry eth3 10.0.0.2 vlan 2" + mac, "SendUpdateEntry eth3 10.0.0.3 vlan 3" + mac}));
  EXPECT_EQ(fakes::TheZlog().detail_lines_while_disabled, 0);
  EXPECT_THAT(fakes::TheZlog().asked_levels, testing::Each(10));
}

}  // namespace
}  // namespace ip_spoofing_app
