// The status list as ConfD reads it: the traversal's states, and the columns of a row.
#include <climits>
#include <csignal>
#include <functional>

#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

using Rows = std::vector<AllowedIpStatusEntry>;

AllowedIpStatusEntry Row(uint16_t vlan) {
  AllowedIpStatusEntry row{};
  row.limid = fakes::TheLimid().Id("eth1");
  row.vlan = vlan;
  return row;
}

class StatusTest : public DaemonTest {
 protected:
  ConfDAppMgr& BuildRegistered() {
    ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kLog, Kind::kFault, Kind::kReply});
    confd.ip_spoofing_register_status_callbacks();
    Taken();
    return confd;
  }
};

/// One event and what it leaves: get_next on a transaction, or a list of that many rows.
struct Event {
  enum Type { kGetNext, kList } type;
  int transaction;
  long next;
  size_t rows;
  int result;
  Lines trace;
};

const std::string kRequested = "log 10 handle_get_next_allowed_ip: allowed-ip all entries status list requested.";
const Lines kAsked = {"RequestAllowedIpList", kRequested};

Event Next(int transaction, long next, const Lines& trace, int result = CONFD_OK) {
  return {Event::kGetNext, transaction, next, 0, result, trace};
}
Event Asks(int transaction) { return Next(transaction, -1, kAsked, CONFD_DELAYED_RESPONSE); }
Event List(size_t rows, const Lines& replies) { return {Event::kList, 0, 0, rows, 0, replies}; }
std::string Key(int transaction, long position) {
  return "reply " + std::to_string(transaction) + " key int64:" + std::to_string(position) + " next " +
         std::to_string(position + 1);
}
std::string End(int transaction) { return "reply " + std::to_string(transaction) + " end"; }

struct TraversalCase {
  std::string name;
  std::vector<Event> events;
};

class Traversal : public StatusTest, public testing::WithParamInterface<TraversalCase> {};

TEST_P(Traversal, GoesThroughTheseStates) {
  ConfDAppMgr& confd = BuildRegistered();
  int number = 0;
  for (const Event& event : GetParam().events) {
    ++number;
    if (event.type == Event::kGetNext) {
      confd_trans_ctx* const tctx = fakes::TheProvider().Transaction(event.transaction);
      fakes::Keypath key = fakes::Keypath::StatusRow(0);
      EXPECT_EQ(fakes::TheProvider().data_cbs->get_next(tctx, key.Get(), event.next), event.result)
          << "event " << number;
    } else {
      confd.SetEntryList(Rows(event.rows, Row(1)));
    }
    Lines trace = Taken();
    // The list's line ends in a pointer; it has a test of its own.
    std::erase_if(trace, [](const std::string& line) { return line.find("list received") != std::string::npos; });
    EXPECT_EQ(trace, event.trace) << "event " << number;
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, Traversal,
    testing::Values(
        TraversalCase{
            "WholeListRowByRow",
            {Asks(1), List(3, {Key(1, 0)}), Next(1, 1, {Key(1, 1)}), Next(1, 2, {Key(1, 2)}), Next(1, 3, {End(1)})}},
        TraversalCase{"EmptyListEndsTheDeferredAnswer", {Asks(1), List(0, {End(1)}), Next(1, 1, {End(1)})}},
        TraversalCase{"NothingWasEverAsked", {Next(1, 0, {End(1)}), Next(1, 5, {End(1)})}},
        TraversalCase{"SecondStartWhileWaitingEndsAtOnce",
                      {Asks(1), Next(2, -1, {End(2)}), Next(1, -1, {End(1)}), List(2, {Key(1, 0)})}},
        TraversalCase{"PositionWhileWaitingEndsAtOnce", {Asks(1), Next(2, 0, {End(2)}), List(1, {Key(1, 0)})}},
        TraversalCase{
            "EachTraversalAsksAfresh",
            {Asks(1), List(2, {Key(1, 0)}), Asks(2), Next(1, 1, {End(1)}), List(1, {Key(2, 0)}), Next(1, 1, {End(1)})}},
        TraversalCase{"ListThatNobodyAskedForAnswersNobody",
                      {List(2, {}), Next(1, 0, {Key(1, 0)}), Next(1, 1, {Key(1, 1)}), Next(1, 2, {End(1)})}},
        TraversalCase{"AnswerIsGivenOnce", {Asks(1), List(1, {Key(1, 0)}), List(2, {}), Next(1, 1, {Key(1, 1)})}},
        TraversalCase{"LateListAnswersTheFirstAsker",
                      {Asks(1), Next(2, -1, {End(2)}), Next(3, -1, {End(3)}), List(1, {Key(1, 0)}), Asks(3)}},
        TraversalCase{"PositionsBeyondTheList", {List(2, {}), Next(1, 2, {End(1)}), Next(1, INT_MAX, {End(1)})}},
        // Positions are compared as 32-bit numbers.
        TraversalCase{"NegativePositionIsBelowEveryCount", {List(1, {}), Next(1, -2, {Key(1, -2)})}},
        TraversalCase{"MinusOneIsKnownByItsLowWord",
                      {List(1, {}), Next(1, 0xffffffffL, kAsked, CONFD_DELAYED_RESPONSE)}},
        TraversalCase{"LargePositionIsComparedByItsLowWord",
                      {List(1, {}), Next(1, 0x100000000L, {Key(1, 0x100000000L)}), Next(1, 0x100000001L, {End(1)})}}),
    [](const auto& row) { return row.param.name; });

using Status = StatusTest;

TEST_F(Status, ListLeavesALineWithItsSizeAndTheWaitingContext) {
  ConfDAppMgr& confd = BuildRegistered();
  confd_trans_ctx* const tctx = fakes::TheProvider().Transaction(7);
  confd.SetEntryList(Rows(2));
  EXPECT_EQ(Taken(), (Lines{"log 10 SetEntryList: allowed-ip list received list_size: 2. trans_ctx_[(nil)]"}));
  ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, -1);
  Taken();
  confd.SetEntryList({});
  EXPECT_EQ(Taken(), (Lines{fakes::Format("log 10 SetEntryList: allowed-ip list received list_size: 0. trans_ctx_[%p]",
                                          static_cast<void*>(tctx)),
                            "reply 7 end"}));
}

TEST_F(Status, TransactionsLeaveAPendingRequest) {
  ConfDAppMgr& confd = BuildRegistered();
  fakes::TheTrace().Record({Kind::kRequest, Kind::kReply});
  confd_trans_ctx* const first = fakes::TheProvider().Transaction(7);
  confd_trans_ctx* const second = fakes::TheProvider().Transaction(8);
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(first, nullptr, -1), CONFD_DELAYED_RESPONSE);
  EXPECT_EQ(ConfDAppMgr::show_allowed_ip_trans_finish(first), CONFD_OK);
  EXPECT_EQ(ConfDAppMgr::show_allowed_ip_trans_init(second), CONFD_OK);
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(second, nullptr, -1), CONFD_OK);
  confd.SetEntryList(Rows(1));
  EXPECT_EQ(Taken(), (Lines{"RequestAllowedIpList", "reply 8 end", "reply 7 key int64:0 next 1"}));
}

/// A client whose manager answers before the request has returned.
class AnsweringClient : public ip_spoofing_mgr::IpSpoofingPreventionMgrClient {
 public:
  using IpSpoofingPreventionMgrClient::IpSpoofingPreventionMgrClient;
  int RequestAllowedIpList() override {
    confd->SetEntryList({Row(1)});
    return IpSpoofingPreventionMgrClient::RequestAllowedIpList();
  }
  ConfDAppMgr* confd = nullptr;
};

TEST_F(Status, ListMayComeWithinTheRequest) {
  AnsweringClient client(fakes::TheHandle(), nullptr);
  ConfDAppMgr confd(fakes::TheHandle(), &client, "ip-spoofing-app");
  client.confd = &confd;
  confd.ip_spoofing_register_status_callbacks();
  fakes::TheTrace().Record({Kind::kRequest, Kind::kReply});
  Taken();
  confd_trans_ctx* const tctx = fakes::TheProvider().Transaction(7);
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, -1), CONFD_DELAYED_RESPONSE);
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, 1), CONFD_OK);
  EXPECT_EQ(Taken(), (Lines{"reply 7 key int64:0 next 1", "RequestAllowedIpList", "reply 7 end"}));
}

TEST_F(Status, RequestSurvivesTheEndOfItsTransaction) {
  ConfDAppMgr& confd = BuildRegistered();
  fakes::TheZlog().detail_enabled = false;
  confd_trans_ctx* const tctx = fakes::TheProvider().Transaction(7);
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, -1), CONFD_DELAYED_RESPONSE);
  EXPECT_EQ(ConfDAppMgr::show_allowed_ip_trans_finish(tctx), CONFD_OK);
  confd.SetEntryList(Rows(1));
  EXPECT_EQ(Taken(), (Lines{"RequestAllowedIpList", "log 11 show_allowed_ip_trans_finish: Trans finish session[7]",
                            "reply 7 key int64:0 next 1"}));
}

TEST_F(Status, ResultsOfTheLibraryAreNotLookedAt) {
  ConfDAppMgr& confd = BuildRegistered();
  fakes::TheZlog().detail_enabled = false;
  for (const char* call : {"RequestAllowedIpList", "confd_data_reply_next_key", "confd_data_reply_tag_value_array"}) {
    fakes::TheScript().Return(call, -1);
  }
  confd_trans_ctx* const tctx = fakes::TheProvider().Transaction(7);
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, -1), CONFD_DELAYED_RESPONSE);
  confd.SetEntryList(Rows(1));
  EXPECT_EQ(ConfDAppMgr::handle_get_next_allowed_ip(tctx, nullptr, 0), CONFD_OK);
  fakes::Keypath key = fakes::Keypath::StatusRow(0);
  EXPECT_EQ(ConfDAppMgr::handle_get_obj_allowed_ip(tctx, key.Get()), CONFD_OK);
}

TEST_F(Status, NullTransactionIsFatalWithoutAText) {
  BuildRegistered();
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        ConfDAppMgr::handle_get_next_allowed_ip(nullptr, nullptr, -1);
      },
      testing::ExitedWithCode(1), DiesWithExactly({"backtrace", "fault 1 handle_get_next_allowed_ip: "}));
}

TEST_F(Status, KeyOfAnotherTypeFailsAnAssertion) {
  BuildRegistered();
  fakes::Keypath key = fakes::Keypath::StatusRow(0);
  CONFD_SET_INT32(&key.Get()->v[0][0], 0);
  EXPECT_EXIT(ConfDAppMgr::handle_get_obj_allowed_ip(fakes::TheProvider().Transaction(7), key.Get()),
              testing::KilledBySignal(SIGABRT), testing::HasSubstr("`(&keypath->v[0][0])->type == C_INT64'"));
}

TEST_F(Status, DisabledDetailIsNotFormatted) {
  ConfDAppMgr& confd = BuildRegistered();
  fakes::TheZlog().detail_enabled = false;
  ConfDAppMgr::handle_get_next_allowed_ip(fakes::TheProvider().Transaction(7), nullptr, -1);
  confd.SetEntryList(Rows(1));
  EXPECT_EQ(Taken(), (Lines{"RequestAllowedIpList", "reply 7 key int64:0 next 1"}));
  EXPECT_EQ(fakes::TheZlog().detail_lines_while_disabled, 0);
}

// ------------------------------------------------------------------------------------------------------ columns

AllowedIpStatusEntry Base() {
  AllowedIpStatusEntry row = Row(5);
  row.all_vlan = 7;
  const uint8_t address[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  memcpy(row.address, address, sizeof address);
  return row;
}

struct ColumnCase {
  std::string name;
  std::function<void(AllowedIpStatusEntry*)> change;
  std::string reply;
};

class Columns : public StatusTest, public testing::WithParamInterface<ColumnCase> {};

TEST_P(Columns, AreReportedInThisOrder) {
  ConfDAppMgr& confd = BuildRegistered();
  AllowedIpStatusEntry row = Base();
  GetParam().change(&row);
  confd.SetEntryList({row});
  Taken();
  fakes::Keypath key = fakes::Keypath::StatusRow(0);
  EXPECT_EQ(fakes::TheProvider().data_cbs->get_object(fakes::TheProvider().Transaction(7), key.Get()), CONFD_OK);
  EXPECT_EQ(Taken(), Lines{"reply 7 row " + GetParam().reply});
}

using RowPtr = AllowedIpStatusEntry*;

INSTANTIATE_TEST_SUITE_P(
    All, Columns,
    testing::Values(
        ColumnCase{"Ipv4", [](RowPtr) {},
                   "1c4b7396=enum:0 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"Ipv6", [](RowPtr row) { row->family = 1; },
                   "1c4b7396=enum:0 4b843099=ipv6:2001:db8::1 0442b85d=uint32:5 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"AnyOtherFamilyIsIpv6", [](RowPtr row) { row->family = 99; },
                   "1c4b7396=enum:0 4b843099=ipv6:2001:db8::1 0442b85d=uint32:5 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"MacWithItsLastByte", [](RowPtr row) { row->mac[5] = 0x0f; },
                   "1c4b7396=binary:00:00:00:00:00:0f 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:0 "
                   "0d34ee32=str:eth1 74470328=enum:1"},
        ColumnCase{"MacWithItsFirstByte", [](RowPtr row) { row->mac[0] = 0xf0; },
                   "1c4b7396=binary:f0:00:00:00:00:00 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:0 "
                   "0d34ee32=str:eth1 74470328=enum:1"},
        ColumnCase{"StateOne", [](RowPtr row) { row->state = 1; },
                   "1c4b7396=enum:0 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:1 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"OtherStatesAreZero", [](RowPtr row) { row->state = 2; },
                   "1c4b7396=enum:0 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"FlagOneIsZero", [](RowPtr row) { row->flag = 1; },
                   "1c4b7396=enum:0 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:0"},
        ColumnCase{"OnlyTheFlagsLowestBitIsInverted", [](RowPtr row) { row->flag = 0x82; },
                   "1c4b7396=enum:0 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:131"},
        ColumnCase{"Ipv4All", [](RowPtr row) { row->type = 1; },
                   "1c4b7396=enum:0 4b843099=enum:1 0442b85d=uint32:7 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"Ipv6All", [](RowPtr row) { row->type = 2; },
                   "1c4b7396=enum:0 4b843099=enum:2 0442b85d=uint32:7 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"All", [](RowPtr row) { row->type = 3; },
                   "1c4b7396=enum:0 4b843099=enum:0 0442b85d=uint32:7 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"UnknownTypeHasNoAddressColumn", [](RowPtr row) { row->type = 4; },
                   "1c4b7396=enum:0 0442b85d=uint32:7 3363fe59=enum:0 0d34ee32=str:eth1 74470328=enum:1"},
        ColumnCase{"AllowAllOfAnotherPortHasNoVlan",
                   [](RowPtr row) {
                     row->type = 3;
                     fakes::TheLimid().SetType("eth1", limid_type_loopback);
                   },
                   "1c4b7396=enum:0 4b843099=enum:0 0442b85d=enum:0 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"EveryNonZeroAnswerMeansTheType",
                   [](RowPtr row) {
                     row->type = 1;
                     fakes::TheScript().Return("limid_is_from_type eth1", -1);
                   },
                   "1c4b7396=enum:0 4b843099=enum:1 0442b85d=uint32:7 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"AddressOfAnotherPortHasItsVlan",
                   [](RowPtr) { fakes::TheLimid().SetType("eth1", limid_type_loopback); },
                   "1c4b7396=enum:0 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:0 0d34ee32=str:eth1 "
                   "74470328=enum:1"},
        ColumnCase{"NameIsCutBehind63Characters",
                   [](RowPtr row) { row->limid = fakes::TheLimid().Id(std::string(80, 'n')); },
                   "1c4b7396=enum:0 4b843099=ipv4:32.1.13.184 0442b85d=uint32:5 3363fe59=enum:0 0d34ee32=str:" +
                       std::string(63, 'n') + " 74470328=enum:1"}),
    [](const auto& row) { return row.param.name; });

class BeyondTheList : public StatusTest, public testing::WithParamInterface<int64_t> {};

TEST_P(BeyondTheList, IsTheZeroRow) {
  ConfDAppMgr& confd = BuildRegistered();
  fakes::TheLimid().index_zero = fakes::TheLimid().Id("index0");
  confd.SetEntryList({Base(), Base()});
  Taken();
  fakes::Keypath key = fakes::Keypath::StatusRow(GetParam());
  EXPECT_EQ(ConfDAppMgr::handle_get_obj_allowed_ip(fakes::TheProvider().Transaction(7), key.Get()), CONFD_OK);
  EXPECT_EQ(Taken(), Lines{"reply 7 row 1c4b7396=enum:0 4b843099=ipv4:0.0.0.0 0442b85d=uint32:0 3363fe59=enum:0 "
                           "0d34ee32=str:index0 74470328=enum:1"});
}

INSTANTIATE_TEST_SUITE_P(All, BeyondTheList, testing::Values(2, 3, -1, INT64_MIN, INT64_MAX, int64_t{1} << 32),
                         [](const auto& row) { return "Row" + std::to_string(row.index); });

TEST_F(Status, RowsAreServedBeforeAnyListOfThisTraversal) {
  ConfDAppMgr& confd = BuildRegistered();
  confd.SetEntryList({Row(1), Row(2)});
  ConfDAppMgr::handle_get_next_allowed_ip(fakes::TheProvider().Transaction(7), nullptr, -1);
  Taken();
  fakes::Keypath key = fakes::Keypath::StatusRow(1);
  ConfDAppMgr::handle_get_obj_allowed_ip(fakes::TheProvider().Transaction(7), key.Get());
  EXPECT_THAT(Taken(), testing::ElementsAre(testing::HasSubstr("0442b85d=uint32:2")));
}

}  // namespace
}  // namespace ip_spoofing_app
