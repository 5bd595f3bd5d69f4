// Delivery of commits: subscribers that are spoken for message by message, and authors on NETCONF.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "cdbd_process.h"
#include "program.h"
#include "replies.h"

namespace cdbd::test {
namespace {

using confd_wire::ClientKind;
using confd_wire::Trigger;
using testing::ElementsAre;

constexpr const char* kInterface = "/ais:config/anti-ip-spoofing/interface";
constexpr const char* kIpv4 = "/ais:config/anti-ip-spoofing/interface/allowed-ip/ipv4";
constexpr std::chrono::milliseconds kLimit = NetconfClient::kLimit;

std::string Source(const std::string& name, const std::string& address) {
  return AntiSpoofing("<interface><interface-name>" + name + "</interface-name><allowed-ip><ipv4><address>" + address +
                      "</address><vlan>0</vlan></ipv4></allowed-ip></interface>");
}

/// An edit whose answer comes when the delivery is over.
class PendingEdit final {
 public:
  PendingEdit(CdbdProcess& server, const std::string& config)
      : reply_{std::async(std::launch::async, [&server, config] { return server.Connect().EditConfig(config); })} {}
  /// What is inside the <rpc-reply>.
  std::string Reply() { return Inside(reply_.get()); }
  bool Answered() { return reply_.wait_for(std::chrono::seconds{0}) == std::future_status::ready; }

 private:
  std::future<std::string> reply_;
};

std::string Warning(const std::string& app_tag, const std::string& message) {
  return ErrorText{.message = message, .app_tag = app_tag, .warning = true}.Xml();
}
std::string Who(const std::string& subscriber) {
  return "subscriber '" + subscriber + "' (process " + std::to_string(::getpid()) + ")";
}
std::string Lost(const std::string& subscriber) {
  return Warning("subscriber-lost",
                 Who(subscriber) + " was lost before it had taken in transaction 1: it disconnected");
}
std::string TimedOut(const std::string& subscriber) {
  return Warning("subscriber-timeout",
                 Who(subscriber) + " did not take in transaction 1 within 0.4 s and was disconnected");
}

class Delivery : public testing::Test {
 protected:
  Delivery() : server{{"--subscriber-timeout", "0.4"}} { server.Start(); }

  std::unique_ptr<Program> Subscriber(const std::string& name, const std::vector<std::pair<std::string, int>>& to) {
    auto program = std::make_unique<Program>(server.CdbSocket(), ClientKind::kSubscription, name);
    for (const auto& [path, priority] : to) EXPECT_GT(program->Subscribe(path, priority), 0);
    EXPECT_TRUE(program->SubscribeDone());
    return program;
  }
  CdbdProcess server;
};

/// One with time enough for the tests that hold a delivery up.
class PatientDelivery : public Delivery {
 protected:
  PatientDelivery() {
    server.Stop();
    patient = std::make_unique<CdbdProcess>();
    patient->Start();
  }
  std::unique_ptr<Program> Subscriber(const std::string& name, const std::vector<std::pair<std::string, int>>& to) {
    auto program = std::make_unique<Program>(patient->CdbSocket(), ClientKind::kSubscription, name);
    for (const auto& [path, priority] : to) EXPECT_GT(program->Subscribe(path, priority), 0);
    EXPECT_TRUE(program->SubscribeDone());
    return program;
  }
  /// What `filter` selects in the state of the transactions.
  std::string Transactions(const std::string& filter) {
    const std::string open = "<database xmlns=\"urn:ip-spoofing:cdb-monitor\"><transactions>";
    const std::string close = "</transactions></database>";
    const std::string text = patient->Connect().Get(open + filter + close);
    if (text.empty()) return text;
    EXPECT_TRUE(text.starts_with(open) && text.ends_with(close)) << text;
    return text.substr(open.size(), text.size() - open.size() - close.size());
  }
  std::unique_ptr<CdbdProcess> patient;
};

TEST_F(PatientDelivery, GoesByPriorityAndTheAuthorWaitsForTheLast) {
  auto first = Subscriber("first", {{kInterface, 0}, {kIpv4, 1}});
  auto second = Subscriber("second", {{kIpv4, 1}});
  PendingEdit edit{*patient, Source("eth0", "10.0.0.1")};
  auto trigger = first->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  EXPECT_EQ(trigger->priority, 0);
  EXPECT_THAT(trigger->points, ElementsAre(1));
  EXPECT_TRUE(trigger->more);
  EXPECT_TRUE(second->Quiet());
  first->Sync(*trigger);
  trigger = first->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  EXPECT_EQ(trigger->priority, 1);
  EXPECT_THAT(trigger->points, ElementsAre(2));
  EXPECT_FALSE(trigger->more);
  auto other = second->Receive<Trigger>();
  ASSERT_TRUE(other);
  EXPECT_EQ(other->priority, 1);
  EXPECT_THAT(other->points, ElementsAre(3));
  EXPECT_FALSE(other->more);
  EXPECT_EQ(other->txid, trigger->txid);
  second->Sync(*other);
  EXPECT_EQ(Transactions("<delivering/>"), "<delivering>" + std::to_string(trigger->txid) + "</delivering>");
  EXPECT_FALSE(edit.Answered());
  first->Sync(*trigger);
  EXPECT_EQ(edit.Reply(), "<ok/>");
  EXPECT_EQ(Transactions("<delivering/>"), "");
}

TEST_F(PatientDelivery, OnePriorityComesInOneMessage) {
  auto program = Subscriber("one", {{kIpv4, 3}, {kInterface, 3}});
  PendingEdit edit{*patient, Source("eth0", "10.0.0.1")};
  const auto trigger = program->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  EXPECT_THAT(trigger->points, ElementsAre(1, 2));
  program->Sync(*trigger);
  EXPECT_EQ(edit.Reply(), "<ok/>");
}

TEST_F(PatientDelivery, OnlyWhoseSubtreeChangedIsTold) {
  auto sources = Subscriber("sources", {{kIpv4, 0}});
  EXPECT_EQ(Inside(patient->Connect().EditConfig(Interfaces({"eth0"}))), "<ok/>");
  EXPECT_TRUE(sources->Quiet());
  // Deleting what the subtree is in is a change of it.
  PendingEdit add{*patient, Source("eth0", "10.0.0.1")};
  auto trigger = sources->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  sources->Sync(*trigger);
  EXPECT_EQ(add.Reply(), "<ok/>");
  PendingEdit remove{*patient,
                     AntiSpoofing("<interface xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation="
                                  "\"delete\"><interface-name>eth0</interface-name></interface>")};
  trigger = sources->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  sources->Sync(*trigger);
  EXPECT_EQ(remove.Reply(), "<ok/>");
}

TEST_F(PatientDelivery, AnEditThatChangesNothingTellsNobody) {
  auto program = Subscriber("one", {{kInterface, 0}});
  PendingEdit first{*patient, Interfaces({"eth0"})};
  auto trigger = program->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  program->Sync(*trigger);
  EXPECT_EQ(first.Reply(), "<ok/>");
  EXPECT_EQ(Inside(patient->Connect().EditConfig(Interfaces({"eth0"}))), "<ok/>");
  EXPECT_TRUE(program->Quiet());
  EXPECT_EQ(Transactions("<last/>"), "<last>" + std::to_string(trigger->txid) + "</last>");
}

TEST_F(PatientDelivery, TheNextCommitWaitsAndReadsDoNot) {
  auto program = Subscriber("one", {{kInterface, 0}});
  PendingEdit first{*patient, Interfaces({"eth0"})};
  auto trigger = program->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  PendingEdit second{*patient, Interfaces({"eth1"})};
  EXPECT_TRUE(Eventually([&] { return Transactions("<waiting/>") == "<waiting>1</waiting>"; }, kLimit));
  NetconfClient reader = patient->Connect();
  EXPECT_EQ(reader.GetConfig(), Interfaces({"eth0"}));
  EXPECT_TRUE(IsOk(reader.Rpc("<lock><target><running/></target></lock>")));
  EXPECT_TRUE(IsOk(reader.Rpc("<unlock><target><running/></target></unlock>")));
  EXPECT_FALSE(second.Answered());
  program->Sync(*trigger);
  EXPECT_EQ(first.Reply(), "<ok/>");
  const auto next = program->Receive<Trigger>();
  ASSERT_TRUE(next);
  EXPECT_EQ(next->txid, trigger->txid + 1);
  program->Sync(*next);
  EXPECT_EQ(second.Reply(), "<ok/>");
  EXPECT_EQ(reader.GetConfig(), Interfaces({"eth0", "eth1"}));
}

TEST_F(PatientDelivery, ASubscriberThatComesDuringADeliveryIsToldOfLaterOnes) {
  auto old = Subscriber("old", {{kInterface, 0}});
  PendingEdit first{*patient, Interfaces({"eth0"})};
  auto trigger = old->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  auto late = Subscriber("late", {{kInterface, 0}});
  old->Sync(*trigger);
  EXPECT_EQ(first.Reply(), "<ok/>");
  EXPECT_TRUE(late->Quiet());
  PendingEdit second{*patient, Interfaces({"eth1"})};
  trigger = late->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  late->Sync(*trigger);
  trigger = old->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  old->Sync(*trigger);
  EXPECT_EQ(second.Reply(), "<ok/>");
}

TEST_F(PatientDelivery, OneThatIsDoneWithTheWholeCommitIsNotToldOfTheRest) {
  auto program = Subscriber("one", {{kInterface, 0}, {kIpv4, 1}});
  PendingEdit edit{*patient, Source("eth0", "10.0.0.1")};
  const auto trigger = program->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  program->Sync(*trigger, confd_wire::SyncKind::kDoneSocket);
  EXPECT_EQ(edit.Reply(), "<ok/>");
  EXPECT_TRUE(program->Quiet());
}

TEST_F(PatientDelivery, ASubscriberThatDiesIsNamedAtOnceAndTheRestGoesOn) {
  auto dying = Subscriber("dying", {{kInterface, 0}});
  auto later = Subscriber("later", {{kIpv4, 1}});
  PendingEdit edit{*patient, Source("eth0", "10.0.0.1")};
  ASSERT_TRUE(dying->Receive<Trigger>());
  dying->Disconnect();
  const auto trigger = later->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  later->Sync(*trigger);
  EXPECT_EQ(edit.Reply(), Lost("dying"));
  EXPECT_EQ(patient->Connect().GetConfig(), Source("eth0", "10.0.0.1"));
  EXPECT_EQ(
      patient->Connect().Get("<database xmlns=\"\"><subscriber><state>dropped</state><name/></subscriber></database>"),
      "<database xmlns=\"urn:ip-spoofing:cdb-monitor\"><subscriber><id>" + std::to_string(dying->hello.id) +
          "</id><name>dying</name><state>dropped"
          "</state></subscriber></database>");
}

TEST_F(PatientDelivery, ASubscriberThatDiesBeforeItsTurnIsNamedToo) {
  auto first = Subscriber("first", {{kInterface, 0}});
  auto dying = Subscriber("dying", {{kIpv4, 1}});
  PendingEdit edit{*patient, Source("eth0", "10.0.0.1")};
  const auto trigger = first->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  dying->Disconnect();
  EXPECT_TRUE(Eventually(
      [&] {
        return !patient->Connect()
                    .Get("<database xmlns=\"\"><subscriber><state>dropped</state></subscriber></database>")
                    .empty();
      },
      kLimit));
  first->Sync(*trigger);
  EXPECT_EQ(edit.Reply(), Lost("dying"));
}

TEST_F(Delivery, ASilentSubscriberIsDroppedAndNamedAndTheRestGoesOn) {
  auto silent = Subscriber("silent", {{kInterface, 0}});
  auto good = Subscriber("good", {{kInterface, 0}, {kIpv4, 1}});
  PendingEdit edit{server, Source("eth0", "10.0.0.1")};
  ASSERT_TRUE(silent->Receive<Trigger>());
  auto trigger = good->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  good->Sync(*trigger);
  trigger = good->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  good->Sync(*trigger);
  EXPECT_EQ(edit.Reply(), TimedOut("silent"));
  EXPECT_TRUE(silent->Closed());
  EXPECT_NE(server.Log().find("did not take in transaction 1 within 0.4 s"), std::string::npos);
  // Later commits work without it.
  PendingEdit next{server, Interfaces({"eth7"})};
  trigger = good->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  good->Sync(*trigger);
  EXPECT_EQ(next.Reply(), "<ok/>");
}

TEST_F(Delivery, ASyncOfAnotherCommitCountsForNothing) {
  auto confused = Subscriber("confused", {{kInterface, 0}});
  PendingEdit edit{server, Interfaces({"eth0"})};
  auto trigger = confused->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  trigger->txid += 1;
  confused->Sync(*trigger);
  trigger->txid -= 1;
  trigger->priority += 1;
  confused->Sync(*trigger);
  EXPECT_EQ(edit.Reply(), TimedOut("confused"));
}

TEST_F(Delivery, WithoutASubscriberTheCommitStandsAndItsAuthorIsWarned) {
  Program unready{server.CdbSocket(), ClientKind::kSubscription, "unready"};
  EXPECT_GT(unready.Subscribe(kInterface, 0), 0);
  const std::string warning =
      "no program is subscribed to changes: transaction 1 is stored and takes effect when one connects";
  EXPECT_EQ(Inside(server.Connect().EditConfig(Interfaces({"eth0"}))), Warning("no-subscriber", warning));
  EXPECT_NE(server.Log().find(warning), std::string::npos);
  EXPECT_EQ(server.Connect().GetConfig(), Interfaces({"eth0"}));
}

TEST_F(Delivery, TheAuthorsEndDoesNotStopIt) {
  auto program = Subscriber("one", {{kInterface, 0}});
  {
    NetconfClient author = server.Connect();
    ASSERT_TRUE(
        author.raw()
            .Send("<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><edit-config><target>"
                  "<running/></target><config>" +
                      Interfaces({"eth0"}) + "</config></edit-config></rpc>",
                  kLimit)
            .ok());
    ASSERT_TRUE(program->Receive<Trigger>());
  }
  auto trigger = Trigger{};
  trigger.txid = 1;
  program->Sync(trigger);
  PendingEdit next{server, Interfaces({"eth1"})};
  const auto told = program->Receive<Trigger>();
  ASSERT_TRUE(told);
  EXPECT_EQ(told->txid, 2U);
  program->Sync(*told);
  EXPECT_EQ(next.Reply(), "<ok/>");
}

TEST_F(Delivery, WhatCannotBeSubscribedIsRefusedWithTheReason) {
  const auto reader = cdb_store::StoreReader::Open(server.StateDir() + "/cdb").value();
  confd_wire::Subscribe good;
  good.node = reader->schema().FindPath(kInterface)->id;
  good.schema = reader->schema().Fingerprint();
  Program program{server.CdbSocket(), ClientKind::kSubscription, "app"};
  const auto refusal = [&](const confd_wire::Subscribe& request) {
    program.Send(request);
    const auto reply = program.Receive<confd_wire::SubscribeReply>();
    return reply ? reply->error : "no reply";
  };
  program.Send(confd_wire::SubscribeDone{});
  EXPECT_EQ(program.Receive<confd_wire::SubscribeDoneReply>()->error, "there is no subscription");
  confd_wire::Subscribe bad = good;
  bad.schema += 1;
  EXPECT_EQ(refusal(bad), "the data model has changed");
  bad = good;
  bad.node = static_cast<uint16_t>(reader->schema().size());
  EXPECT_EQ(refusal(bad), "there is no such node");
  const std::string whole = confd_wire::Encode(good);
  program.SendBytes(whole.substr(0, whole.size() - 1));
  EXPECT_EQ(program.Receive<confd_wire::SubscribeReply>()->error, "the request cannot be understood");
  for (int i = 0; i < 256; ++i) ASSERT_EQ(refusal(good), "") << i;
  EXPECT_EQ(refusal(good), "there are too many subscriptions");
  EXPECT_TRUE(program.SubscribeDone());
  EXPECT_EQ(refusal(good), "subscriptions have to be made before cdb_subscribe_done");
}

TEST_F(PatientDelivery, OfTheLostOnesTheLastAreShown) {
  std::vector<std::unique_ptr<Program>> programs;
  for (int i = 0; i < 18; ++i) programs.push_back(Subscriber("app" + std::to_string(i), {{kInterface, 0}}));
  PendingEdit edit{*patient, Interfaces({"eth0"})};
  for (const auto& program : programs) ASSERT_TRUE(program->Receive<Trigger>());
  const uint64_t first = programs.front()->hello.id;
  programs.clear();
  std::string warnings;
  for (int i = 0; i < 18; ++i) warnings += Lost("app" + std::to_string(i));
  EXPECT_EQ(edit.Reply(), warnings);
  std::string shown = "<database xmlns=\"urn:ip-spoofing:cdb-monitor\">";
  for (int i = 2; i < 18; ++i)
    shown += "<subscriber><id>" + std::to_string(first + static_cast<uint64_t>(i)) + "</id><name>app" +
             std::to_string(i) + "</name></subscriber>";
  EXPECT_EQ(patient->Connect().Get("<database xmlns=\"\"><subscriber><name/></subscriber></database>"),
            shown + "</database>");
}

TEST_F(Delivery, TheOperatorSeesWhoIsSubscribed) {
  // All but the time.
  const auto subscribers = [this] {
    return server.Connect().Get(
        "<database xmlns=\"\"><subscriber><name/><process/><state/><last-transaction/><subscription/></subscriber>"
        "</database>");
  };
  auto program = Subscriber("app", {{kInterface, 0}, {kIpv4, 1}});
  const auto shown = [&program](const std::string& state, const std::string& last) {
    return "<database xmlns=\"urn:ip-spoofing:cdb-monitor\"><subscriber><id>" + std::to_string(program->hello.id) +
           "</id><name>app</name><process>" + std::to_string(::getpid()) + "</process><state>" + state +
           "</state><last-transaction>" + last + "</last-transaction><subscription><point>1</point><path>" +
           kInterface + "</path><priority>0</priority></subscription><subscription><point>2</point><path>" + kIpv4 +
           "</path><priority>1</priority></subscription></subscriber></database>";
  };
  PendingEdit edit{server, Interfaces({"eth0"})};
  const auto trigger = program->Receive<Trigger>();
  ASSERT_TRUE(trigger);
  EXPECT_EQ(subscribers(), shown("delivering", "0"));
  program->Sync(*trigger);
  EXPECT_EQ(edit.Reply(), "<ok/>");
  EXPECT_EQ(subscribers(), shown("idle", "1"));
}

struct BadPacket {
  std::string name;
  ClientKind kind;
  std::string packet;
};
class Nonsense : public testing::TestWithParam<BadPacket> {};

TEST_P(Nonsense, EndsTheConnectionOnly) {
  CdbdProcess server;
  server.Start();
  Program program{server.CdbSocket(), GetParam().kind, "mad"};
  ASSERT_EQ(program.hello.error, "");
  program.SendBytes(GetParam().packet);
  EXPECT_TRUE(program.Closed());
  EXPECT_EQ(server.Connect().GetConfig(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Packets, Nonsense,
    testing::Values(BadPacket{"FromAReader", ClientKind::kRead, "x"},
                    BadPacket{"ShortFromASubscriber", ClientKind::kSubscription, "x"},
                    BadPacket{"UnknownFromASubscriber", ClientKind::kSubscription, std::string(40, '\x7f')},
                    BadPacket{"CutSync", ClientKind::kSubscription,
                              confd_wire::Encode(confd_wire::Sync{}).substr(0, 9)},
                    BadPacket{"FromAProvider", ClientKind::kControl, std::string(40, '\x7f')},
                    BadPacket{"CutRegister", ClientKind::kControl, std::string("\x0b\0\xff\xff\xff\xff", 6)},
                    BadPacket{"TooLarge", ClientKind::kControl, std::string(confd_wire::kMaxMessage + 1, 'x')}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cdbd::test
