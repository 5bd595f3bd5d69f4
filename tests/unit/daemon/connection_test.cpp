// The ConfD manager's construction, and the connection coming and going.
#include <functional>

#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

const std::set<Kind> kAllButReads = {Kind::kRequest, Kind::kLog,    Kind::kFault,        Kind::kMiddleware,
                                     Kind::kConfd,   Kind::kFilter, Kind::kSubscription, Kind::kSession};

const Lines kRegistered = {
    "log 11 AppConnect: ConfD AppConnect started", "confd_register_trans_cb", "confd_register_data_cb show-allowed-ip",
    "log 10 ip_spoofing_register_status_callbacks: Register ConfD status callback OK", "confd_register_done"};
const Lines kSubscribed = {"cdb_subscribe 41 priority 0 0x41fef11b /config/anti-ip-spoofing/interface",
                           "cdb_subscribe 41 priority 1 0x41fef11b /config/anti-ip-spoofing/interface/allowed-ip/ipv4",
                           "cdb_subscribe_done 41", "log 11 ConfDSubscribe: Register ConfD Subscription OK"};
const Lines kLoadedNothing = {"open running", "log 10 LoadConfDCfg: Received new configuration. Loading config...",
                              "log 11 LoadConfDCfg: All LoadConfDCfg executed successfully!", "close running"};
const std::string kStatus = "GetConnectionStatus";
const std::string kInLoop = "qmmw_fd_register 41";

Lines Join(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

using Construction = DaemonTest;

TEST_F(Construction, RunsInThisOrder) {
  fakes::TheTrace().Record(kAllButReads);
  client_ = std::make_unique<ip_spoofing_mgr::IpSpoofingPreventionMgrClient>(fakes::TheHandle(), nullptr);
  Taken();
  confd_ = std::make_unique<ConfDAppMgr>(fakes::TheHandle(), client_.get(), "some-name");
  EXPECT_EQ(Taken(),
            (Lines{"QmConfdInterface false some-name phase 2 flags 0", "qmmw_trace_register_category ip-spoofing-app",
                   "fm_init", "fm_local_slot", "fm_scalar_card_ip_mgr_install_dnx_filters card 3 slot 7",
                   "GetClientResourcesInformation ip_spoofing", "Init 0"}));
  confd_.reset();
  EXPECT_EQ(Taken(), Lines{"~QmConfdInterface"});
}

TEST_F(Construction, NullClientIsFoundAfterCategoryAndCapacity) {
  fakes::TheTrace().Record(kAllButReads);
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        const ConfDAppMgr confd(fakes::TheHandle(), nullptr, "some-name");
      },
      testing::ExitedWithCode(1),
      DiesWithExactly({"QmConfdInterface false some-name phase 2 flags 0",
                       "qmmw_trace_register_category ip-spoofing-app", "fm_init", "fm_local_slot",
                       "fm_scalar_card_ip_mgr_install_dnx_filters card 3 slot 7",
                       "GetClientResourcesInformation ip_spoofing", "backtrace",
                       "fault 1 ConfDAppMgr: qmos-ip-spoofing-app confD initialization error: client is null."}));
}

/// Which operation of its table ran.
class Slots : public QmConfdInterface {
 public:
  Slots() : QmConfdInterface(false, "slots", fakes::TheHandle(), ELEM_CONFD_PHASE_2, 0) {}
  ~Slots() override { ran += "destructor "; }
  void AppConnect() override { ran += "AppConnect "; }
  void AppDisconnect() override { ran += "AppDisconnect "; }
  void AppConnectPhase(ELEM_CONFD_PHASE_ET phase) override { ran += "AppConnectPhase" + std::to_string(phase) + " "; }
  void ResetConnection() override { ran += "ResetConnection "; }
  static inline std::string ran;
};

TEST_F(Construction, VirtualOperationsStandInThisOrder) {
  Slots::ran.clear();
  QmConfdInterface* const object = new Slots;
  void* const* const table = *reinterpret_cast<void* const**>(object);
  const auto call = [&](int slot) { reinterpret_cast<void (*)(void*)>(table[slot])(object); };
  call(0);
  call(1);
  reinterpret_cast<void (*)(void*, ELEM_CONFD_PHASE_ET)>(table[2])(object, ELEM_CONFD_PHASE_1);
  call(5);
  call(4);
  EXPECT_EQ(Slots::ran, "AppConnect AppDisconnect AppConnectPhase1 ResetConnection destructor ");
}

struct ConnectCase {
  std::string name;
  std::function<void()> prepare;
  Lines trace;
};

class Connect : public DaemonTest, public testing::WithParamInterface<ConnectCase> {};

TEST_P(Connect, LeavesThisTrace) {
  ConfDAppMgr& confd = Build(kAllButReads);
  GetParam().prepare();
  fakes::TheWrapper().Connect(&confd);
  EXPECT_EQ(Taken(), GetParam().trace);
  ASSERT_TRUE(fakes::TheMiddleware().fds.contains(fakes::kSubscriptionSocket));
  EXPECT_EQ(fakes::TheMiddleware().fds[fakes::kSubscriptionSocket].ctx, &confd);
  EXPECT_EQ(fakes::TheMiddleware().fds[fakes::kSubscriptionSocket].callback, &ConfDAppMgr::TreatSubscriptionMsg);
}

INSTANTIATE_TEST_SUITE_P(
    All, Connect,
    testing::Values(
        ConnectCase{"ManagerConnected", [] {},
                    Join({kRegistered, kSubscribed, {kStatus, kStatus}, kLoadedNothing, {kInLoop}})},
        ConnectCase{"ManagerAway", [] { fakes::TheManager().status.connected = 0; },
                    Join({kRegistered, kSubscribed, {kStatus, kStatus, kInLoop}})},
        ConnectCase{"NoStatusRecord", [] { fakes::TheManager().status_is_null = true; },
                    Join({kRegistered, kSubscribed, {kStatus, kInLoop}})},
        ConnectCase{"AnyNonZeroStatusIsConnected", [] { fakes::TheManager().status.connected = -3; },
                    Join({kRegistered, kSubscribed, {kStatus, kStatus}, kLoadedNothing, {kInLoop}})},
        ConnectCase{
            "ConfigurationIsSentBeforeTheSocketEntersTheLoop",
            [] { fakes::TheCdb().Put(CDB_RUNNING, Iface("eth1") + "/allowed-ip/all"); },
            Join({kRegistered,
                  kSubscribed,
                  {kStatus, kStatus, "open running",
                   "log 10 LoadConfDCfg: Received new configuration. Loading config...",
                   "log 10 LoadConfdIpSpoofAllowedIfaces: Enable anti-ip-spoofing for: eth1",
                   "SendIpSpoofing eth1 true",
                   std::string{"log 10 LoadConfdIpSpoofAllowedIpIPv4: There is no allowed-ip ipv4 rules for path: "} +
                       "/config/anti-ip-spoofing/interface{\"eth1\"}/allowed-ip/ipv4 ",
                   "log 11 LoadConfdIpSpoofAllowedIpAll: sending allowedAll[ALL] for[eth1]", "SendAllowedIpAll eth1 3",
                   "log 11 LoadConfDCfg: All LoadConfDCfg executed successfully!", "close running", kInLoop}})},
        ConnectCase{"RefusedRegistrationInTheLoopDoesNotMatter",
                    [] { fakes::TheScript().Return("qmmw_fd_register", -1); },
                    Join({kRegistered, kSubscribed, {kStatus, kStatus}, kLoadedNothing, {kInLoop}})}),
    [](const auto& row) { return row.param.name; });

struct FatalCase {
  std::string name;
  std::string call;
  int result;
  Lines dump;
};

class ConnectFatal : public DaemonTest, public testing::WithParamInterface<FatalCase> {};

TEST_P(ConnectFatal, EndsTheProcess) {
  ConfDAppMgr& confd = Build(kAllButReads);
  fakes::TheScript().Return(GetParam().call, GetParam().result, "the library's text");
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        fakes::TheWrapper().Connect(&confd);
      },
      testing::ExitedWithCode(1), DiesWithExactly(GetParam().dump));
}

INSTANTIATE_TEST_SUITE_P(
    All, ConnectFatal,
    testing::Values(
        FatalCase{"TransactionCallbacks",
                  "confd_register_trans_cb",
                  -7,
                  {kRegistered[0], kRegistered[1], "backtrace",
                   "fault 1 ip_spoofing_register_status_callbacks: Failed to register status transaction. Ret[-7]"}},
        FatalCase{"DataCallbacks",
                  "confd_register_data_cb",
                  -1,
                  {kRegistered[0], kRegistered[1], kRegistered[2], "backtrace",
                   "fault 1 ip_spoofing_register_status_callbacks: Couldn't register status callback"}},
        FatalCase{"DataCallbacksWithAResultAboveZero",
                  "confd_register_data_cb",
                  1,
                  {kRegistered[0], kRegistered[1], kRegistered[2], "backtrace",
                   "fault 1 ip_spoofing_register_status_callbacks: Couldn't register status callback"}},
        FatalCase{"EndOfTheSubscriptionsWithAResultAboveZero", "cdb_subscribe_done", 1,
                  Join({kRegistered,
                        {kSubscribed[0], kSubscribed[1], kSubscribed[2], "backtrace",
                         "fault 1 ConfDSubscribe: the library's text"}})},
        FatalCase{"TransactionCallbacksWithAResultAboveZero",
                  "confd_register_trans_cb",
                  7,
                  {kRegistered[0], kRegistered[1], "backtrace",
                   "fault 1 ip_spoofing_register_status_callbacks: Failed to register status transaction. Ret[7]"}},
        FatalCase{"SubscriptionWithAResultAboveZero", "cdb_subscribe", 1,
                  Join({kRegistered, {kSubscribed[0], "backtrace", "fault 1 SubscribeConfD: the library's text"}})},
        FatalCase{"RegisterDone", "confd_register_done", -1,
                  Join({kRegistered, {"backtrace", "fault 1 AppConnect: the library's text"}})},
        FatalCase{"RegisterDoneGivesAnyNumberButZero", "confd_register_done", 1,
                  Join({kRegistered, {"backtrace", "fault 1 AppConnect: the library's text"}})},
        FatalCase{"FirstSubscription", "cdb_subscribe /config/anti-ip-spoofing/interface", -1,
                  Join({kRegistered, {kSubscribed[0], "backtrace", "fault 1 SubscribeConfD: the library's text"}})},
        FatalCase{"SecondSubscription", "cdb_subscribe /config/anti-ip-spoofing/interface/allowed-ip/ipv4", -2,
                  Join({kRegistered,
                        {kSubscribed[0], kSubscribed[1], "backtrace", "fault 1 SubscribeConfD: the library's text"}})},
        FatalCase{"EndOfTheSubscriptions", "cdb_subscribe_done", -1,
                  Join({kRegistered,
                        {kSubscribed[0], kSubscribed[1], kSubscribed[2], "backtrace",
                         "fault 1 ConfDSubscribe: the library's text"}})},
        FatalCase{"Load", "session running", -1,
                  Join({kRegistered,
                        kSubscribed,
                        {kStatus, kStatus, "open running", "log 12 LoadConfDCfg: Could not start CDB session.", "close",
                         "backtrace", "fault 1 AppConnect: Failed to load ConfD Configuration"}})}),
    [](const auto& row) { return row.param.name; });

struct LateTextCase {
  std::string name;
  std::string call;
  std::string fault;
};

class FaultText : public DaemonTest, public testing::WithParamInterface<LateTextCase> {};

// The backtrace may itself change the library's last error; the fault reports what stands there after it.
TEST_P(FaultText, IsTakenAfterTheBacktrace) {
  ConfDAppMgr& confd = Build({Kind::kFault});
  fakes::TheScript().Return(GetParam().call, -1, "the text before");
  fakes::TheMiddleware().at_backtrace = [] { fakes::SetLastError(CONFD_ERR_EXTERNAL, "the text after"); };
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        fakes::TheWrapper().Connect(&confd);
        ConfDAppMgr::TreatSubscriptionMsg(fakes::TheHandle(), fakes::kSubscriptionSocket, &confd);
      },
      testing::ExitedWithCode(1), DiesWithExactly({"backtrace", "fault 1 " + GetParam().fault + ": the text after"}));
}

INSTANTIATE_TEST_SUITE_P(All, FaultText,
                         testing::Values(LateTextCase{"RegisterDone", "confd_register_done", "AppConnect"},
                                         LateTextCase{"Subscribe", "cdb_subscribe", "SubscribeConfD"},
                                         LateTextCase{"SubscribeDone", "cdb_subscribe_done", "ConfDSubscribe"},
                                         LateTextCase{"ReadMessage", "cdb_read_subscription_socket",
                                                      "TreatSubscriptionMsg"}),
                         [](const auto& row) { return row.param.name; });

using Disconnect = DaemonTest;

TEST_F(Disconnect, OnlyTakesTheSocketOutOfTheLoop) {
  ConfDAppMgr& confd = Build(kAllButReads);
  fakes::TheWrapper().Connect(&confd);
  Taken();
  fakes::TheWrapper().Disconnect(&confd);
  EXPECT_EQ(Taken(), Lines{"qmmw_fd_deregister 41"});
  EXPECT_TRUE(fakes::TheMiddleware().fds.empty());
}

TEST_F(Disconnect, DropsThePendingStatusRequestWithAFault) {
  ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kFault, Kind::kMiddleware, Kind::kReply});
  fakes::TheWrapper().Connect(&confd);
  confd_trans_ctx* const tctx = fakes::TheProvider().Transaction(7);
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, -1), CONFD_DELAYED_RESPONSE);
  Taken();
  fakes::TheWrapper().Disconnect(&confd);
  EXPECT_EQ(Taken(), (Lines{"fault 0 AppDisconnect: ConfD disconnected while waiting for delayed response",
                            "qmmw_fd_deregister 41"}));
  // The request is forgotten: the next traversal asks anew, without a second fault.
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, -1), CONFD_DELAYED_RESPONSE);
  EXPECT_EQ(Taken(), Lines{"RequestAllowedIpList"});
}

TEST_F(Disconnect, ListThatComesAfterwardsAnswersNobody) {
  ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kReply});
  fakes::TheWrapper().Connect(&confd);
  confd_trans_ctx* const tctx = fakes::TheProvider().Transaction(7);
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, -1), CONFD_DELAYED_RESPONSE);
  fakes::TheWrapper().Disconnect(&confd);
  Taken();
  confd.SetEntryList({});
  EXPECT_EQ(Taken(), Lines{});
}

TEST_F(Disconnect, RowsReceivedAreServedOnTheNextConnection) {
  ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kReply});
  fakes::TheWrapper().Connect(&confd);
  confd.SetEntryList({AllowedIpStatusEntry{}});
  fakes::TheWrapper().Disconnect(&confd);
  fakes::TheWrapper().Connect(&confd);
  Taken();
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(fakes::TheProvider().Transaction(7), nullptr, 0), CONFD_OK);
  EXPECT_EQ(Taken(), Lines{"reply 7 key int64:0 next 1"});
}

TEST_F(Disconnect, SecondLossAfterAPendingRequestIsNoFault) {
  ConfDAppMgr& confd = Build({Kind::kFault, Kind::kMiddleware});
  fakes::TheWrapper().Connect(&confd);
  ConfDAppMgr::handle_get_next_allowed_ip(fakes::TheProvider().Transaction(7), nullptr, -1);
  fakes::TheWrapper().Disconnect(&confd);
  Taken();
  fakes::TheWrapper().Disconnect(&confd);
  EXPECT_EQ(Taken(), Lines{"qmmw_fd_deregister 41"});
}

TEST_F(Disconnect, SecondConnectionRepeatsEveryStepAndSkipsTheUnchangedLoad) {
  ConfDAppMgr& confd = Build(kAllButReads);
  fakes::TheWrapper().Connect(&confd);
  fakes::TheWrapper().Disconnect(&confd);
  Taken();
  fakes::TheWrapper().Connect(&confd);
  EXPECT_EQ(Taken(),
            Join({kRegistered,
                  kSubscribed,
                  {kStatus, kStatus, "open running", "log 11 LoadConfDCfg: All LoadConfDCfg executed successfully!",
                   "close running", kInLoop}}));
}

using StatusRegistration = DaemonTest;

TEST_F(StatusRegistration, GivesTheseCallbacksAndNoOther) {
  ConfDAppMgr& confd = Build(kAllButReads);
  confd.ip_spoofing_register_status_callbacks();
  EXPECT_EQ(fakes::TheProvider().daemon.d_opaque, &confd);
  ASSERT_TRUE(fakes::TheProvider().trans_cbs.has_value());
  EXPECT_EQ(fakes::TheProvider().trans_cbs->init, &ConfDAppMgr::show_allowed_ip_trans_init);
  EXPECT_EQ(fakes::TheProvider().trans_cbs->finish, &ConfDAppMgr::show_allowed_ip_trans_finish);
  ASSERT_TRUE(fakes::TheProvider().data_cbs.has_value());
  confd_data_cbs wanted{};
  memcpy(wanted.callpoint, "show-allowed-ip", sizeof "show-allowed-ip");
  wanted.get_next = &ConfDAppMgr::handle_get_next_allowed_ip;
  wanted.get_object = &ConfDAppMgr::handle_get_obj_allowed_ip;
  const confd_data_cbs& given = *fakes::TheProvider().data_cbs;
  EXPECT_EQ(memcmp(given.callpoint, wanted.callpoint, sizeof wanted.callpoint), 0);
  EXPECT_EQ(given.get_next, wanted.get_next);
  EXPECT_EQ(given.get_object, wanted.get_object);
  EXPECT_EQ(given.exists_optional, nullptr);
  EXPECT_EQ(given.get_elem, nullptr);
  EXPECT_EQ(given.num_instances, nullptr);
  EXPECT_EQ(given.cb_opaque, nullptr);
  EXPECT_EQ(given.flags, 0);
}

TEST_F(StatusRegistration, TransactionsAreLoggedAndGetTheWorkerSocket) {
  ConfDAppMgr& confd = Build({Kind::kLog, Kind::kConfd, Kind::kFault, Kind::kReply});
  confd.ip_spoofing_register_status_callbacks();
  fakes::TheZlog().detail_enabled = false;
  fakes::TheScript().Return("confd_trans_set_fd", -1);  // not looked at
  Taken();
  fakes::TheZlog().asked_levels.clear();
  confd_trans_ctx* const tctx = fakes::TheProvider().Transaction(19);
  EXPECT_EQ(fakes::TheProvider().trans_cbs->init(tctx), CONFD_OK);
  EXPECT_EQ(fakes::TheProvider().trans_cbs->finish(tctx), CONFD_OK);
  EXPECT_EQ(Taken(), (Lines{"log 11 show_allowed_ip_trans_init: Trans init session[19]", "confd_trans_set_fd 19 42",
                            "log 11 show_allowed_ip_trans_finish: Trans finish session[19]"}));
  EXPECT_EQ(fakes::TheZlog().asked_levels, std::vector<int>{});
}

}  // namespace
}  // namespace ip_spoofing_app
