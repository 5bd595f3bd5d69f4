#include <sys/socket.h>
#include <unistd.h>

#include "fixture.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

class Interface : public InterfaceTest {};

TEST_F(Interface, NeitherTheConstructorNorInitConnects) {
  fake_.Start();
  EXPECT_EQ(app_->Init(0), 0);
  EXPECT_THAT(fake_.trace, IsEmpty());
  EXPECT_FALSE(app_->IsInitialized());
  EXPECT_EQ(app_->DaemonContext(), nullptr);
  EXPECT_EQ(app_->SubscrSocket(), -1);
  EXPECT_EQ(app_->WorkerSocket(), -1);
  EXPECT_EQ(app_->Middleware(), mw_);
  EXPECT_EQ(app_->Name(), "the-app");
}

TEST_F(Interface, WithoutInitTheLoopDoesNotConnectEither) {
  fake_.Start();
  PumpIdle();
  EXPECT_THAT(fake_.trace, IsEmpty());
}

TEST_F(Interface, ConnectsControlWorkerAndSubscriptionInThatOrderAndThenCallsTheApplication) {
  fake_.Start();
  app_->on_connect = [&] {
    EXPECT_NE(app_->DaemonContext(), nullptr);
    EXPECT_GE(app_->SubscrSocket(), 0);
    EXPECT_GE(app_->WorkerSocket(), 0);
    // Control and worker are in the loop already.
    EXPECT_EQ(qmmw_fd_register(mw_, app_->WorkerSocket(), nullptr, [](qmmw_t*, int, void*) {}), -1);
  };
  app_->Init(0);
  PumpIdle();
  EXPECT_THAT(fake_.trace, ElementsAreArray(kUp));
  EXPECT_TRUE(app_->IsInitialized());
}

TEST_F(Interface, ASecondInitChangesNothing) {
  fake_.Start();
  app_->Init(0);
  app_->Init(0);
  PumpIdle();
  EXPECT_THAT(fake_.trace, ElementsAreArray(kUp));
}

TEST_F(Interface, RetriesUntilTheServerIsThere) {
  app_->Init(0);
  Pump([&] { return Count("connect control") == 3; });
  EXPECT_THAT(fake_.trace, ElementsAre("init daemon the-app", "connect control", "release daemon",
                                       "init daemon the-app", "connect control", "release daemon",
                                       "init daemon the-app", "connect control", "release daemon"));
  fake_.trace.clear();
  fake_.Start();
  Pump([&] { return app_->IsInitialized(); });
  EXPECT_THAT(fake_.trace, ElementsAreArray(kUp));
}

TEST_F(Interface, RetriesBackOffToASecond) {
  app_->Init(0);
  std::vector<std::chrono::steady_clock::time_point> times;
  Pump([&] {
    if (static_cast<size_t>(Count("connect control")) > times.size()) {
      times.push_back(std::chrono::steady_clock::now());
    }
    return times.size() == 10;
  });
  // 10, 20, 40, ... 640, 1000, 1000 ms. Doubled once more, the last would be 2560.
  for (size_t i = 1; i < 8; ++i) EXPECT_GE(times[i] - times[i - 1], milliseconds{(10 << (i - 1)) - 1}) << i;
  EXPECT_GE(times[8] - times[7], milliseconds{999});
  EXPECT_LT(times[9] - times[8], milliseconds{2000});
}

struct FailureCase {
  std::string name;
  std::string call;
  std::vector<std::string> cleaned_up;
};
class InterfaceFailure : public InterfaceTest, public testing::WithParamInterface<FailureCase> {};

TEST_P(InterfaceFailure, ClosesWhatWasOpenAndStartsOver) {
  fake_.Start();
  fake_.fail[GetParam().call] = 1;
  app_->Init(0);
  Pump([&] { return app_->IsInitialized(); });
  std::vector<std::string> expected = GetParam().cleaned_up;
  expected.insert(expected.end(), kUp.begin(), kUp.end());
  EXPECT_THAT(fake_.trace, ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(
    Calls, InterfaceFailure,
    testing::Values(
        FailureCase{"Daemon", "init daemon", {"init daemon the-app"}},
        FailureCase{"Control", "control", {"init daemon the-app", "connect control", "release daemon"}},
        FailureCase{"Worker", "worker", {"init daemon the-app", "connect control", "connect worker", "release daemon"}},
        FailureCase{"Subscription",
                    "subscription",
                    {"init daemon the-app", "connect control", "connect worker", "connect subscription as the-app",
                     "release daemon"}}),
    [](const auto& row) { return row.param.name; });

class InterfaceLoss : public InterfaceTest, public testing::WithParamInterface<std::string> {};

TEST_P(InterfaceLoss, OfAnyConnectionDisconnectsOnceClosesAllThreeAndStartsOver) {
  ConnectApp();
  bool registered_elsewhere = true;
  app_->on_disconnect = [&] { registered_elsewhere = qmmw_fd_deregister(mw_, app_->WorkerSocket()) == 0; };
  fake_.Drop(GetParam());
  Pump([&] { return Count("AppConnectPhase 2") == 1; });
  Trace expected = kDown;
  expected.insert(expected.end(), kUp.begin(), kUp.end());
  EXPECT_THAT(fake_.trace, ElementsAreArray(expected));
  EXPECT_TRUE(registered_elsewhere) << "the sockets are still in the loop when AppDisconnect is called";
  EXPECT_TRUE(app_->IsInitialized());
}

INSTANTIATE_TEST_SUITE_P(Connections, InterfaceLoss, testing::Values("control", "worker", "subscription"),
                         [](const auto& row) { return row.param; });

TEST_F(Interface, WhenTheServerEndsTheApplicationsSubscriptionCallbackIsNeverCalled) {
  app_->on_connect = [&] {
    qmmw_fd_register(mw_, app_->SubscrSocket(), this,
                     [](qmmw_t*, int, void*) { TheFake().trace.emplace_back("subscription callback"); });
  };
  app_->on_disconnect = [&] { EXPECT_EQ(qmmw_fd_deregister(mw_, app_->SubscrSocket()), 0); };
  ConnectApp();
  fake_.Send("subscription");  // a message that the server could still send
  fake_.Stop();
  Pump([&] { return Count("cdb_close") == 1; });
  EXPECT_THAT(std::vector(fake_.trace.begin(), fake_.trace.begin() + 3), ElementsAreArray(kDown));
  EXPECT_FALSE(app_->IsInitialized());
  EXPECT_EQ(app_->SubscrSocket(), -1);
}

TEST_F(Interface, ALossBetweenTwoDispatchesOfOneTurnIsNoticedBeforeTheSubscriptionCallback) {
  // As when the kernel has reported the subscription socket alone: the end comes after the turn has begun.
  app_->on_connect = [&] {
    qmmw_fd_register(mw_, app_->SubscrSocket(), this,
                     [](qmmw_t*, int, void*) { TheFake().trace.emplace_back("subscription callback"); });
  };
  ConnectApp();
  fake_.on_ready.emplace_back([&] {
    fake_.trace.emplace_back("served");
    fake_.Stop();
    return CONFD_OK;
  });
  fake_.Send("worker");
  fake_.Send("subscription");
  Pump([&] { return Count("cdb_close") == 1; });
  EXPECT_THAT(std::vector(fake_.trace.begin(), fake_.trace.begin() + 4),
              ElementsAre("served", "AppDisconnect", "release daemon", "cdb_close"));
}

TEST_F(Interface, SubscriptionMessagesReachTheApplication) {
  app_->on_connect = [&] {
    qmmw_fd_register(mw_, app_->SubscrSocket(), this, [](qmmw_t*, int fd, void*) {
      char byte = 0;
      EXPECT_EQ(::read(fd, &byte, 1), 1);
      TheFake().trace.emplace_back("subscription callback");
    });
  };
  ConnectApp();
  fake_.Send("subscription");
  PumpIdle();
  fake_.Send("subscription");
  PumpIdle();
  EXPECT_THAT(fake_.trace, ElementsAre("subscription callback", "subscription callback"));
}

TEST_F(Interface, ASubscriptionSocketThatTheApplicationLeftInTheLoopIsTakenOut) {
  app_->on_connect = [&] {
    EXPECT_EQ(qmmw_fd_register(mw_, app_->SubscrSocket(), this, [](qmmw_t*, int, void*) { FAIL(); }), 0);
  };
  ConnectApp();
  fake_.Drop("control");
  Pump([&] { return Count("AppConnectPhase 2") == 1; });  // registers a socket with the same number, maybe
  app_.reset();
  PumpIdle();
}

TEST_F(Interface, ServesOneMessageOfControlAndWorkerPerDispatch) {
  ConnectApp();
  for (const char* which : {"control", "worker"}) {
    fake_.on_ready.emplace_back([this, which] {
      fake_.trace.emplace_back(which);
      return CONFD_OK;
    });
    fake_.Send(which);
  }
  PumpIdle();
  EXPECT_THAT(fake_.trace, ElementsAre("control", "worker"));
}

TEST_F(Interface, AMessageThatCannotBeServedEndsTheConnection) {
  ConnectApp();
  fake_.on_ready.emplace_back([] { return CONFD_ERR; });
  fake_.Send("worker");
  Pump([&] { return Count("AppConnectPhase 2") == 1; });
  Trace expected = kDown;
  expected.insert(expected.end(), kUp.begin(), kUp.end());
  EXPECT_THAT(fake_.trace, ElementsAreArray(expected));
}

TEST_F(Interface, ResetDropsTheConnectionAsALossWouldAndConnectsAnew) {
  ConnectApp();
  app_->ResetConnection();
  EXPECT_THAT(fake_.trace, IsEmpty()) << "from the loop, not from inside the caller";
  Pump([&] { return Count("AppConnectPhase 2") == 1; });
  Trace expected = kDown;
  expected.insert(expected.end(), kUp.begin(), kUp.end());
  EXPECT_THAT(fake_.trace, ElementsAreArray(expected));
}

TEST_F(Interface, ResetWithoutAConnectionOrTwiceIsOneConnection) {
  app_->ResetConnection();
  ConnectApp();
  app_->ResetConnection();
  app_->ResetConnection();
  Pump([&] { return Count("AppConnectPhase 2") == 1; });
  PumpIdle();
  EXPECT_EQ(Count("AppDisconnect"), 1);
  EXPECT_EQ(Count("AppConnect"), 1);
}

TEST_F(Interface, ResetInsideAppConnectWaitsForItsEnd) {
  fake_.Start();
  bool first = true;
  app_->on_connect = [&] {
    if (!std::exchange(first, false)) return;
    app_->ResetConnection();
    EXPECT_TRUE(app_->IsInitialized());
    EXPECT_GE(app_->SubscrSocket(), 0);
  };
  app_->Init(0);
  Pump([&] { return Count("AppConnectPhase 2") == 2; });
  Trace expected = kUp;
  expected.insert(expected.end(), kDown.begin(), kDown.end());
  expected.insert(expected.end(), kUp.begin(), kUp.end());
  EXPECT_THAT(fake_.trace, ElementsAreArray(expected));
}

TEST_F(Interface, ResetInsideAppDisconnectIsNoSecondLoss) {
  ConnectApp();
  app_->on_disconnect = [&] { app_->ResetConnection(); };
  fake_.Drop("worker");
  Pump([&] { return Count("AppConnectPhase 2") == 1; });
  PumpIdle();
  EXPECT_EQ(Count("AppDisconnect"), 1);
  EXPECT_EQ(Count("AppConnect"), 1);
}

TEST_F(Interface, AServerThatDropsUsAtOnceIsNotHammered) {
  fake_.Start();
  app_->on_connect = [&] { fake_.peers.clear(); };
  app_->Init(0);
  const auto start = std::chrono::steady_clock::now();
  Pump([&] { return Count("AppConnect") == 6; });
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds{10 + 20 + 40 + 80 + 160 - 5});
}

TEST_F(Interface, DestroyedWhileItWaitsForTheServer) {
  app_->Init(0);
  PumpIdle();
  fake_.trace.clear();
  app_.reset();
  fake_.Start();
  bool retry_is_due = false;
  qmmw_event_loop(mw_).AddTimer(milliseconds{30}, [&] { retry_is_due = true; });
  Pump([&] { return retry_is_due; });
  EXPECT_THAT(fake_.trace, IsEmpty());
}

TEST_F(Interface, DestroyedWhileConnectedItClosesWithoutCallingTheApplication) {
  ConnectApp();
  app_.reset();
  EXPECT_THAT(fake_.trace, ElementsAre("release daemon", "cdb_close"));
  PumpIdle();
}

TEST_F(Interface, DestroyedWithAResetPending) {
  ConnectApp();
  app_->ResetConnection();
  app_.reset();
  PumpIdle();
  EXPECT_EQ(Count("AppDisconnect"), 0);
}

TEST_F(Interface, DestroyedInsideAppConnect) {
  fake_.Start();
  app_->on_connect = [&] { app_.reset(); };
  app_->Init(0);
  Pump([&] { return app_ == nullptr; });
  EXPECT_THAT(fake_.trace, ElementsAre("init daemon the-app", "connect control", "connect worker",
                                       "connect subscription as the-app", "AppConnect", "release daemon", "cdb_close"));
  PumpIdle();
}

TEST_F(Interface, DestroyedInsideAppDisconnect) {
  ConnectApp();
  app_->on_disconnect = [&] { app_.reset(); };
  fake_.Drop("subscription");
  Pump([&] { return app_ == nullptr; });
  EXPECT_THAT(fake_.trace, ElementsAreArray(kDown));
  PumpIdle();
}

TEST_F(Interface, DestroyedInsideADataCallbackTheDaemonContextOutlivesTheCallback) {
  ConnectApp();
  fake_.on_ready.emplace_back([&] {
    app_.reset();
    fake_.trace.emplace_back("callback returns");
    return CONFD_OK;
  });
  fake_.Send("worker");
  Pump([&] { return app_ == nullptr; });
  EXPECT_THAT(fake_.trace, ElementsAre("callback returns", "release daemon", "cdb_close"));
  PumpIdle();
}

/// What a program looks like to the wrapper: a static that is destroyed by the exit handlers.
struct Program {
  FakeConfd fake;
  qmmw_t* mw = qmmw_init("exit-test");
  std::unique_ptr<App> app = std::make_unique<App>(mw);
  ~Program() {
    const size_t before = fake.trace.size();
    app.reset();
    qmmw_finish(&mw);
    for (size_t i = before; i < fake.trace.size(); ++i) std::fprintf(stderr, "%s\n", fake.trace[i].c_str());
  }
};

void ExitWhen(const std::string& when) {
  static Program program;
  program.fake.Start();
  if (when == "connect") program.app->on_connect = [] { std::exit(1); };
  if (when == "disconnect") program.app->on_disconnect = [] { std::exit(1); };
  program.fake.on_ready.emplace_back([]() -> int { std::exit(1); });
  program.app->Init(0);
  bool running = true;
  qmmw_event_loop(program.mw).AddTimer(milliseconds{50}, [&] {
    if (when == "callback") program.fake.Send("worker");
    if (when == "disconnect") program.fake.Drop("control");
  });
  qmmw_loop_while(program.mw, &running);
  std::_Exit(2);
}

TEST_F(Interface, ExitInsideAppConnectClosesEverything) {
  EXPECT_EXIT(ExitWhen("connect"), testing::ExitedWithCode(1), "release daemon\ncdb_close\n$");
}

TEST_F(Interface, ExitInsideAppDisconnectClosesEverything) {
  EXPECT_EXIT(ExitWhen("disconnect"), testing::ExitedWithCode(1), "release daemon\ncdb_close\n$");
}

TEST_F(Interface, ExitInsideADataCallbackLeavesTheDaemonContextToTheProcess) {
  // The callback is still on the stack, in the very context.
  EXPECT_EXIT(ExitWhen("callback"), testing::ExitedWithCode(1), testing::Not(testing::HasSubstr("release daemon")));
}

}  // namespace
