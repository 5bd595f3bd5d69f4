// Batches, what is kept, reconnecting, lists.
#include <csignal>
#include <stdexcept>

#include "client_fixture.h"

namespace ip_spoofing_mgr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(ClientTest, ConnectSaysHelloAndTellsTheApplicationFromTheLoop) {
  StartManager();
  EXPECT_EQ(client_->GetConnectionStatus()->connected, 0);
  EXPECT_EQ(client_->Connect(), 0);
  EXPECT_EQ(app_.connected, 0);
  EXPECT_EQ(client_->Connect(), 0) << "connected already";
  Idle();
  EXPECT_EQ(app_.connected, 1);
  EXPECT_EQ(app_.other, 0);
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello"));
  EXPECT_EQ(client_->GetConnectionStatus()->connected, 1);
  EXPECT_EQ(client_->GetConnectionStatus()->connections, 1U);
}

TEST_F(ClientTest, ConnectWaitsForAManagerThatStartsLater) {
  std::thread later{[&] {
    std::this_thread::sleep_for(std::chrono::milliseconds{150});
    StartManager();
  }};
  EXPECT_EQ(client_->Connect(), 0);
  later.join();
}

TEST_F(ClientTest, ConnectFailsAfterAFewSecondsWithoutAManager) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(client_->Connect(), -1);
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, std::chrono::seconds{2});
  EXPECT_LE(took, std::chrono::seconds{10});
  StartManager();
  Idle();
  EXPECT_THAT(Heard(), IsEmpty()) << "nothing goes on behind a failed Connect()";
}

TEST_F(ClientTest, SignalThatEndsTheLoopIsNotAFailedConnect) {
  ::raise(SIGTERM);
  EXPECT_EQ(client_->Connect(), 0);
  EXPECT_EQ(client_->GetConnectionStatus()->connected, 0);
}

TEST_F(ClientTest, AllRequestsOfOneCallbackAreOneBatchAfterIt) {
  StartConnected();
  Heard();
  InCallback([&] {
    SendEnable(1);
    SendAdd(1, "10.0.0.1");
    const AllowedIpEntry entry = Entry(1, 7, "10.0.0.2", 9);
    EXPECT_EQ(client_->SendUpdateEntry(&entry, entry.mac), 0);
    EXPECT_EQ(client_->SendRemoveEntry(&entry, entry.mac), 0);
    SendMode(1, kAllowedAllIpv6);
    const limid_t limid{{2, 0}};
    EXPECT_EQ(client_->SendIpSpoofing(&limid, false), 0);
    EXPECT_THAT(manager_->Take(), IsEmpty()) << "sent inside the callback";
  });
  InCallback([&] { SendEnable(3); });
  EXPECT_THAT(Heard(), ElementsAre("1 [enable 1, put 1/0/10.0.0.1, put 1/7/10.0.0.2 mac 9, remove 1/7/10.0.0.2, "
                                   "mode 1 2, disable 2]",
                                   "2 [enable 3]"));
}

TEST_F(ClientTest, AnIpv6EntryKeepsItsSixteenBytesAndAnIpv4OneItsFour) {
  StartConnected();
  Heard();
  AllowedIpEntry v6 = Entry(1, 0, "2001:db8::17");
  v6.family = 10;
  AllowedIpEntry v4 = Entry(1, 0, "10.0.0.1");
  v4.address[9] = 0xFF;
  InCallback([&] {
    client_->SendAddEntry(&v6, v6.mac);
    client_->SendAddEntry(&v4, v4.mac);
    client_->SendRemoveEntry(&v4, v4.mac);
  });
  EXPECT_THAT(Heard(), ElementsAre("1 [put 1/0/2001:db8::17, put 1/0/10.0.0.1, remove 1/0/10.0.0.1]"));
}

TEST_F(ClientTest, NullPointersAndUnknownModesAreRefused) {
  StartConnected();
  Heard();
  const limid_t limid{{1, 0}};
  EXPECT_EQ(client_->SendIpSpoofing(nullptr, true), -1);
  EXPECT_EQ(client_->SendAllowedIpAll(nullptr, 1), -1);
  EXPECT_EQ(client_->SendAllowedIpAll(&limid, 4), -1);
  EXPECT_EQ(client_->SendAddEntry(nullptr, nullptr), -1);
  EXPECT_EQ(client_->SendUpdateEntry(nullptr, nullptr), -1);
  EXPECT_EQ(client_->SendRemoveEntry(nullptr, nullptr), -1);
  EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(ClientTest, RequestsMadeWhileDisconnectedGoFirstOnTheNextConnectionBeforeTheApplicationIsTold) {
  StartConnected();
  InCallback([&] { SendEnable(1); });
  Heard();
  manager_.reset();
  ASSERT_TRUE(Until([&] { return status_->connected == 0; }));
  InCallback([&] {
    SendAdd(1, "10.0.0.1");
    SendAdd(1, "10.0.0.2");
  });
  InCallback([&] { SendRemove(1, "10.0.0.1"); });
  EXPECT_EQ(client_->GetConnectionStatus()->pending_objects, 2U);
  app_.on_connected = [&] { SendMode(1, 3); };
  StartManager();
  ASSERT_TRUE(Until([&] { return app_.connected == 2; }));
  EXPECT_THAT(Heard(),
              ElementsAre("connect", "hello", "2 [put 1/0/10.0.0.2, remove 1/0/10.0.0.1]", "3 full [mode 1 3]"));
  Idle();
  EXPECT_EQ(client_->GetConnectionStatus()->pending_objects, 0U);
}

TEST_F(ClientTest, WhatTheManagerDidNotAcknowledgeIsSentAgain) {
  StartConnected();
  Heard();
  manager_->acknowledges = false;
  InCallback([&] { SendEnable(1); });
  InCallback([&] { SendMode(1, 1); });
  InCallback([&] { SendMode(1, 2); });
  EXPECT_THAT(Heard(), ElementsAre("1 [enable 1]", "2 [mode 1 1]", "3 [mode 1 2]"));
  manager_->Drop();
  ASSERT_TRUE(Until([&] { return app_.connected == 2; }));
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "4 [enable 1, mode 1 2]"));
  manager_->Drop();
  manager_->acknowledges = true;
  ASSERT_TRUE(Until([&] { return app_.connected == 3; }));
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "5 [enable 1, mode 1 2]"));
  Idle();
  manager_->Drop();
  ASSERT_TRUE(Until([&] { return app_.connected == 4; }));
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello"));
}

TEST_F(ClientTest, AManagerThatReadsNothingBlocksNobodyAndLosesNothing) {
  StartConnected();
  Heard();
  manager_->Stall();
  InCallback([&] {
    for (uint32_t i = 0; i < 100'000; ++i) {
      AllowedIpEntry entry = Entry(static_cast<uint16_t>(1 + i / 25'000), 0, "0.0.0.0");
      std::memcpy(entry.address, &i, sizeof i);
      client_->SendAddEntry(&entry, entry.mac);
    }
  });
  InCallback([&] { SendEnable(9); });
  manager_->Resume();
  ASSERT_TRUE(Until([&] { return manager_->HasHeard("2 [enable 9]"); }));
  size_t parts = 0;
  size_t ends = 0;
  for (const std::string& heard : Heard()) {
    if (heard.rfind("1 [put", 0) != 0) continue;
    ++parts;
    ends += heard.back() == ']' ? 1 : 0;
  }
  EXPECT_EQ(parts, (100'000 + wire::kRequestsPerFrame - 1) / wire::kRequestsPerFrame);
  EXPECT_EQ(ends, 1U);
}

TEST_F(ClientTest, DisconnectStopsReconnectingAndKeepsRequestsForTheNextConnect) {
  StartConnected();
  client_->Disconnect();
  EXPECT_EQ(client_->GetConnectionStatus()->connected, 0);
  InCallback([&] { SendEnable(1); });
  for (int i = 0; i < 20; ++i) loop().RunOnce(std::chrono::milliseconds{5});
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "gone"));
  EXPECT_EQ(client_->Connect(), 0);
  Idle();
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "1 [enable 1]"));
}

TEST_F(ClientTest, OneThatWasSupersededDoesNotTakeOverAgain) {
  StartConnected();
  Heard();
  manager_->Send(wire::FrameType::kError,
                 wire::EncodeFailure({wire::ErrorCode::kSuperseded, "another client took over"}));
  Heard();
  manager_->Drop();
  ASSERT_TRUE(Until([&] { return app_.connected == 2; }));
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello gives way"));
}

TEST_F(ClientTest, ListsOfAnySizeComeWholeAndInOrder) {
  StartConnected();
  Heard();
  InCallback([&] {
    EXPECT_EQ(client_->RequestAllowedIpList(), 0);
    SendEnable(1);
  });
  EXPECT_THAT(Heard(), ElementsAre("1 [enable 1]", "list 1"))
      << "the list is asked for after what was requested before";
  std::vector<uint32_t> states;
  app_.on_list = [&](const auto& list) {
    for (const auto& row : list) states.push_back(row.state);
  };
  manager_->SendRows(1, 10'000);
  ASSERT_TRUE(Until([&] { return app_.sizes.size() == 1; }));
  EXPECT_THAT(app_.sizes, ElementsAre(10'000U));
  for (uint32_t i = 0; i < 10'000; ++i) ASSERT_EQ(states[i], i);
  InCallback([&] { client_->RequestAllowedIpList(); });
  manager_->SendRows(2, 0);
  ASSERT_TRUE(Until([&] { return app_.sizes.size() == 2; }));
  EXPECT_EQ(app_.sizes[1], 0U);
}

TEST_F(ClientTest, AListThatWasNotAnsweredIsAskedForAgain) {
  InCallback([&] { client_->RequestAllowedIpList(); });
  StartConnected();
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "list 1"));
  manager_->Send(wire::FrameType::kListRows, wire::EncodeRows(1, std::vector<AllowedIpStatusEntry>(3)));
  manager_->Drop();
  ASSERT_TRUE(Until([&] { return app_.connected == 2; }));
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "list 1"));
  manager_->SendRows(1, 2);
  ASSERT_TRUE(Until([&] { return !app_.sizes.empty(); }));
  EXPECT_THAT(app_.sizes, ElementsAre(2U)) << "rows of the lost connection do not count";
}

TEST_F(ClientTest, AListThatNobodyAskedForIsIgnored) {
  StartConnected();
  manager_->SendRows(77, 5);
  InCallback([&] { client_->RequestAllowedIpList(); });
  manager_->SendRows(1, 1);
  ASSERT_TRUE(Until([&] { return !app_.sizes.empty(); }));
  EXPECT_THAT(app_.sizes, ElementsAre(1U));
}

TEST_F(ClientTest, AnExceptionThatLeavesTheListCallbackLeavesTheClientWhole) {
  StartConnected();
  Heard();
  InCallback([&] {
    client_->RequestAllowedIpList();
    client_->RequestAllowedIpList();
  });
  app_.on_list = [&](const auto&) {
    if (app_.sizes.size() > 1) return;
    SendEnable(5);
    throw std::length_error("vector::reserve");
  };
  manager_->SendRows(1, 3);
  manager_->SendRows(2, 4);
  EXPECT_THROW(Until([&] { return app_.sizes.size() == 2; }), std::length_error);
  ASSERT_TRUE(Until([&] { return app_.sizes.size() == 2; }));
  EXPECT_THAT(app_.sizes, ElementsAre(3U, 4U));
  InCallback([&] { SendEnable(6); });
  ASSERT_TRUE(Until([&] { return manager_->HasHeard("2 [enable 6]"); }));
  EXPECT_THAT(Heard(), ElementsAre("list 1", "list 2", "1 [enable 5]", "2 [enable 6]"));
}

TEST_F(ClientTest, MayBeDestroyedInsideItsOwnCallbacksAndSendsNothingOfThem) {
  StartConnected();
  Heard();
  app_.on_connected = [&] {
    SendEnable(1);
    client_.reset();
  };
  manager_->Drop();
  ASSERT_TRUE(Until([&] { return client_ == nullptr; }));
  EXPECT_THAT(Heard(), ElementsAre("connect", "hello", "gone"));

  MakeClient();
  app_.on_connected = nullptr;
  ASSERT_EQ(client_->Connect(), 0);
  InCallback([&] { client_->RequestAllowedIpList(); });
  Heard();
  app_.on_list = [&](const auto&) {
    SendEnable(2);
    client_.reset();
  };
  manager_->SendRows(1, 1);
  ASSERT_TRUE(Until([&] { return client_ == nullptr; }));
  EXPECT_THAT(Heard(), ElementsAre("gone"));
}

TEST_F(ClientTest, DestroyedInACallbackOfTheLoopItSendsNothingOfThatCallback) {
  StartConnected();
  Heard();
  InCallback([&] {
    SendEnable(1);
    client_->GetConnectionStatus();
    client_.reset();
  });
  EXPECT_THAT(Heard(), ElementsAre("gone"));
}

TEST_F(ClientTest, AFrameThatIsTooLargeEndsTheConnectionAndAnotherIsMade) {
  StartConnected();
  Heard();
  manager_->Send(wire::FrameType::kListRows, std::string(wire::kMaxPayload + 1, 'x'));
  ASSERT_TRUE(Until([&] { return app_.connected == 2; }));
  EXPECT_THAT(Heard(), ElementsAre("gone", "connect", "hello"));
}

}  // namespace
}  // namespace ip_spoofing_mgr
