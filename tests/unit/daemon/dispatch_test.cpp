// Subscription messages: what is read, who handles each point, when a message is acknowledged.
#include <csignal>
#include <functional>

#include "changes_fixture.h"

namespace ip_spoofing_app {
namespace {

const std::string kNotFound = "log 12 TreatSubscriptionMsg: Not found subscription!";

std::string UnknownSubscriber(int point) {
  return "fault 0 FindSubscription: FindSubscription: Unknown subscriber ID(" + std::to_string(point) +
         ") when treating ip-spoofing-app ConfD message";
}

const Lines kUnknownPoint = {"fault 0 FindSubscription: FindSubscription: Unknown subscription id 9",
                             "log 12 HdlSubscriptionDiff: Not found subscriptionID(2)", UnknownSubscriber(9),
                             kNotFound};
const Lines kNoNamespaceForIfaces = {
    "log 12 HandleIpSpoofingIfacesDiff: Cannot set namespace to IP-SPOOFING on loadCfg", UnknownSubscriber(1),
    kNotFound};
const Lines kNoNamespaceForIpv4 = {
    "log 12 HandleIpSpoofingAllowedIpIPv4Diff: Cannot set namespace to IP-SPOOFING on loadCfg", UnknownSubscriber(2),
    kNotFound};

struct DispatchCase {
  std::string name;
  std::function<void()> prepare;
  std::vector<int> points;
  Lines trace;
};

class Dispatch : public ChangesTest, public testing::WithParamInterface<DispatchCase> {};

TEST_P(Dispatch, LeavesThisTrace) {
  BuildSubscribed();
  GetParam().prepare();
  EXPECT_EQ(Deliver(GetParam().points), GetParam().trace);
  EXPECT_TRUE(fakes::TheCdb().sessions.empty());
}

void NoNamespace() { fakes::TheScript().Return("cdb_set_namespace", -1); }

INSTANTIATE_TEST_SUITE_P(
    All, Dispatch,
    testing::Values(
        DispatchCase{"NoPointIsAcknowledgedAtOnce",
                     [] {},
                     {},
                     {"cdb_read_subscription_socket 41", "cdb_sync_subscription_socket 41 1"}},
        DispatchCase{"NegativeCountIsNoPoint",
                     [] { fakes::TheScript().Return("subscription count", -1); },
                     {},
                     {"cdb_read_subscription_socket 41", "cdb_sync_subscription_socket 41 1"}},
        DispatchCase{"SocketZeroIsASession", [] { fakes::TheCdb().next_socket = 0; }, {1}, Handled(Passes(1, {}, {}))},
        DispatchCase{"InterfacePoint", [] {}, {1}, Handled(Passes(1, {}, {}))},
        DispatchCase{"Ipv4Point", [] {}, {2}, Handled(Passes(2, {}, {}))},
        DispatchCase{"PointsInTheOrderDelivered", [] {}, {2, 1}, Handled(Join({Passes(2, {}, {}), Passes(1, {}, {})}))},
        DispatchCase{"NoSessionNoAcknowledgement",
                     [] { fakes::TheScript().Return("session running", -1); },
                     {1},
                     {"cdb_read_subscription_socket 41", "open running",
                      "log 12 TreatSubscriptionMsg: Cannot start session", "close"}},
        DispatchCase{"UnknownPoint", [] {}, {9}, Failed(kUnknownPoint)},
        DispatchCase{"UnknownPointEndsTheMessage", [] {}, {9, 1}, Failed(kUnknownPoint)},
        DispatchCase{"InterfaceHandlerFails", NoNamespace, {1}, Failed(kNoNamespaceForIfaces)},
        DispatchCase{"Ipv4HandlerFails", NoNamespace, {2}, Failed(kNoNamespaceForIpv4)},
        DispatchCase{"FirstOfTwoFails", NoNamespace, {1, 2}, Failed(kNoNamespaceForIfaces)},
        DispatchCase{"SecondOfTwoFails",
                     [] { fakes::TheScript().ReturnNth("cdb_set_namespace", 2, -1); },
                     {1, 2},
                     Failed(Join({Passes(1, {}, {}), kNoNamespaceForIpv4}))},
        DispatchCase{
            "FailedAcknowledgementIsLogged",
            [] { fakes::TheScript().Return("cdb_sync_subscription_socket", -2); },
            {1},
            Join({Handled(Passes(1, {}, {})), {"log 12 TreatSubscriptionMsg: Failed to sync subscription: -2"}})},
        DispatchCase{"FailedAcknowledgementOfNothing",
                     [] { fakes::TheScript().Return("cdb_sync_subscription_socket", 3); },
                     {},
                     {"cdb_read_subscription_socket 41", "cdb_sync_subscription_socket 41 1",
                      "log 12 TreatSubscriptionMsg: Failed to sync subscription: 3"}}),
    [](const auto& row) { return row.param.name; });

using DispatchEnds = ChangesTest;

TEST_F(DispatchEnds, UnreadableMessageEndsTheProcess) {
  ConfDAppMgr& confd = BuildSubscribed();
  for (const int result : {-1, -2, 1}) {
    fakes::TheScript().Return("cdb_read_subscription_socket", result, "the library's text");
    EXPECT_EXIT(
        {
          fakes::Trace::DumpAtExit();
          ConfDAppMgr::TreatSubscriptionMsg(fakes::TheHandle(), fakes::kSubscriptionSocket, &confd);
        },
        testing::ExitedWithCode(1),
        DiesWithExactly(
            {"cdb_read_subscription_socket 41", "backtrace", "fault 1 TreatSubscriptionMsg: the library's text"}))
        << result;
  }
}

TEST_F(DispatchEnds, NullContextStopsTheProcessWithoutAWord) {
  BuildSubscribed();
  EXPECT_EXIT(ConfDAppMgr::TreatSubscriptionMsg(fakes::TheHandle(), fakes::kSubscriptionSocket, nullptr),
              testing::KilledBySignal(SIGABRT), testing::StrEq(""));
}

using DispatchState = ChangesTest;

TEST_F(DispatchState, MessageIsReadAndSyncedOnItsOwnDescriptor) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheTrace().Record({Kind::kSubscription});
  fakes::TheCdb().messages.push_back({kIfacePoint});
  ConfDAppMgr::TreatSubscriptionMsg(fakes::TheHandle(), 77, &confd);
  EXPECT_EQ(Taken(),
            Join({{"cdb_read_subscription_socket 77"}, Passes(1, {}, {}), {"cdb_sync_subscription_socket 77 1"}}));
}

TEST_F(DispatchState, PointsAreThoseOfTheSubscriptions) {
  ConfDAppMgr& confd = Build({Kind::kSubscription});
  fakes::TheCdb().next_point = 70;
  confd.ConfDSubscribe();
  Taken();
  EXPECT_EQ(Deliver({71}),
            Join({{"cdb_read_subscription_socket 41"}, Passes(71, {}, {}), {"cdb_sync_subscription_socket 41 1"}}));
}

TEST_F(DispatchState, HandledMessageRefreshesTheTransactionId) {
  ConfDAppMgr& confd = BuildSubscribed();
  Put(Iface("eth1"));
  fakes::TheCdb().txid = {7, 8, 9, "p"};
  Deliver({1});
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_THAT(Taken(), testing::Not(testing::Contains("SendIpSpoofing eth1 true")));
  fakes::TheCdb().txid.s3 = 10;
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_THAT(Taken(), testing::Contains("SendIpSpoofing eth1 true"));
}

TEST_F(DispatchState, TransactionIdThatCannotBeReadStaysTheOneLoaded) {
  ConfDAppMgr& confd = BuildSubscribed();
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  Put(Iface("eth1"));
  fakes::TheScript().Return("cdb_get_txid", -1);
  Deliver({1});
  fakes::TheScript() = {};
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_EQ(Taken(),
            (Lines{"open running", "log 11 LoadConfDCfg: All LoadConfDCfg executed successfully!", "close running"}));
}

TEST_F(DispatchState, ResultIsThatOfTheSecondWalkAllTheWayUp) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::TheScript().Return("cdb_set_namespace", 0);
  for (const int result : {0, -1, -2, 3}) {
    fakes::TheScript().Return("cdb_diff_iterate 1 16", result);
    fakes::TheScript().Return("cdb_diff_iterate 2 16", result);
    EXPECT_EQ(confd.HandleIpSpoofingIfacesDiff(), result);
    EXPECT_EQ(confd.HandleIpSpoofingAllowedIpIPv4Diff(), result);
    EXPECT_EQ(confd.FindSubscription(kIfacePoint), result);
    EXPECT_EQ(confd.FindSubscription(kIpv4Point), result);
  }
  EXPECT_EQ(confd.FindSubscription(9), -1);
  NoNamespace();
  EXPECT_EQ(confd.HandleIpSpoofingIfacesDiff(), -1);
  EXPECT_EQ(confd.HandleIpSpoofingAllowedIpIPv4Diff(), -1);
}

/// What must leave the stored id as the load before it set it.
struct KeepCase {
  std::string name;
  std::function<void()> prepare;
  std::vector<int> points;
};

class KeepsTransactionId : public ChangesTest, public testing::WithParamInterface<KeepCase> {};

TEST_P(KeepsTransactionId, SoALoadReadsAgain) {
  ConfDAppMgr& confd = BuildSubscribed();
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  Put(Iface("eth1"));
  fakes::TheCdb().txid.s1 = 99;
  GetParam().prepare();
  Deliver(GetParam().points);
  fakes::TheScript() = {};
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_THAT(Taken(), testing::Contains("SendIpSpoofing eth1 true"));
}

INSTANTIATE_TEST_SUITE_P(
    All, KeepsTransactionId,
    testing::Values(KeepCase{"MessageWithoutAPoint", [] {}, {}}, KeepCase{"FailedHandler", NoNamespace, {1}},
                    KeepCase{"UnknownPoint", [] {}, {9}},
                    KeepCase{"NoSession", [] { fakes::TheScript().Return("session running", -1); }, {1}},
                    KeepCase{"FailedCall", [] { fakes::TheScript().Return("cdb_get_txid", -1); }, {1}}),
    [](const auto& row) { return row.param.name; });

/// Outside a message the handlers have no session to read from, however the message before ended.
TEST_F(DispatchState, ReadSocketIsThereOnlyWhileAMessageIsHandled) {
  ConfDAppMgr& confd = BuildSubscribed();
  for (const std::vector<int>& points : {std::vector<int>{}, {kIfacePoint}, {kIfacePoint, 9}}) {
    Deliver(points);
    fakes::TheTrace().Record({Kind::kRead});
    EXPECT_EQ(confd.HandleIpSpoofingIfacesDiff(), -1);
    EXPECT_EQ(Taken(), Lines{"cdb_set_namespace socket -1 0x41fef11b"}) << points.size();
  }
}

TEST_F(DispatchState, CommitThatTouchesBothComesAsTwoMessages) {
  BuildSubscribed();
  fakes::TheZlog().detail_enabled = false;
  fakes::TheTrace().Record({Kind::kRequest, Kind::kSubscription});
  Put(Ipv4("eth1", "10.0.0.1 5"));
  fakes::TheCdb().changes[kIfacePoint] = {{MOP_CREATED, Iface("eth1")}};
  fakes::TheCdb().changes[kIpv4Point] = {{MOP_CREATED, Ipv4("eth1", "10.0.0.1 5")}};
  Lines trace = Deliver({kIfacePoint});
  const Lines second = Deliver({kIpv4Point});
  trace.insert(trace.end(), second.begin(), second.end());
  EXPECT_EQ(trace,
            (Lines{"cdb_read_subscription_socket 41", "cdb_diff_iterate 41 point 1 flags 18",
                   "cdb_diff_iterate 41 point 1 flags 16", "SendIpSpoofing eth1 true",
                   "cdb_sync_subscription_socket 41 1", "cdb_read_subscription_socket 41",
                   "cdb_diff_iterate 41 point 2 flags 18", "cdb_diff_iterate 41 point 2 flags 16",
                   "SendAddEntry eth1 10.0.0.1 vlan 5 mac 00:00:00:00:00:00", "cdb_sync_subscription_socket 41 1"}));
}

}  // namespace
}  // namespace ip_spoofing_app
