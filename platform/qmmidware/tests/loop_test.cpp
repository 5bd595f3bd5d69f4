#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "qmmw.h"
#include "qmmw_internal.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

/// A pipe whose reading end is registered; the callback runs `action` and leaves the byte unread.
class Watched {
 public:
  Watched(qmmw_t* mw, std::function<void()> action) : action_{std::move(action)} {
    std::array<int, 2> fds{};
    EXPECT_EQ(::pipe(fds.data()), 0);
    read_.reset(fds[0]);
    write_.reset(fds[1]);
    EXPECT_EQ(qmmw_fd_register(mw, read_.get(), this, &Watched::Ready), 0);
  }
  void Fill() const { EXPECT_EQ(::write(write_.get(), "x", 1), 1); }
  void HangUp() { write_.reset(); }
  [[nodiscard]] int fd() const { return read_.get(); }

 private:
  static void Ready(qmmw_t*, int fd, void* ctx) {
    auto* self = static_cast<Watched*>(ctx);
    EXPECT_EQ(fd, self->fd());
    self->action_();
  }
  std::function<void()> action_;
  common::UniqueFd read_;
  common::UniqueFd write_;
};

class Loop : public testing::Test {
 protected:
  ~Loop() override { qmmw_finish(&mw_); }
  int Run() { return qmmw_loop_while(mw_, &running_); }

  qmmw_t* mw_ = qmmw_init("loop-test");
  bool running_ = true;
  std::vector<std::string> trace_;
};

TEST(Init, WithoutANameThereIsNoHandle) {
  EXPECT_EQ(qmmw_init(nullptr), nullptr);
  EXPECT_EQ(qmmw_init(""), nullptr);
}

TEST(Init, FinishMakesTheHandleNullAndIgnoresANullOne) {
  qmmw_t* mw = qmmw_init("init-test");
  ASSERT_NE(mw, nullptr);
  qmmw_finish(&mw);
  EXPECT_EQ(mw, nullptr);
  qmmw_finish(&mw);
  qmmw_finish(nullptr);
}

TEST_F(Loop, ReturnsZeroWithoutDispatchingWhenTheFlagIsFalse) {
  Watched ready{mw_, [&] { trace_.emplace_back("ready"); }};
  ready.Fill();
  running_ = false;
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, ElementsAre());
}

TEST_F(Loop, StopsRightAfterTheCallbackThatClearsTheFlag) {
  Watched first{mw_, [&] {
                  trace_.emplace_back("first");
                  running_ = false;
                }};
  Watched second{mw_, [&] { trace_.emplace_back("second"); }};
  first.Fill();
  second.Fill();
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, ElementsAre("first"));
}

TEST_F(Loop, DispatchesInRegistrationOrderAndSkipsADeregisteredDescriptor) {
  std::vector<int> second_fd;
  Watched first{mw_, [&] {
                  trace_.emplace_back("first");
                  EXPECT_EQ(qmmw_fd_deregister(mw_, second_fd.front()), 0);
                }};
  Watched second{mw_, [&] { trace_.emplace_back("second"); }};
  Watched third{mw_, [&] {
                  trace_.emplace_back("third");
                  running_ = false;
                }};
  second_fd.push_back(second.fd());
  third.Fill();
  second.Fill();
  first.Fill();
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, ElementsAre("first", "third"));
}

TEST_F(Loop, AHangUpIsDispatchedToo) {
  Watched watched{mw_, [&] { running_ = false; }};
  watched.HangUp();
  EXPECT_EQ(Run(), 0);
}

TEST_F(Loop, RegistrationIsRefusedForWhatCannotBeWatched) {
  const auto nothing = [](qmmw_t*, int, void*) {};
  Watched watched{mw_, [] {}};
  EXPECT_EQ(qmmw_fd_register(mw_, watched.fd(), nullptr, nothing), -1) << "registered already";
  EXPECT_EQ(qmmw_fd_register(mw_, -1, nullptr, nothing), -1);
  EXPECT_EQ(qmmw_fd_register(mw_, 1'000'000, nullptr, nothing), -1) << "not open";
  EXPECT_EQ(qmmw_fd_register(nullptr, watched.fd(), nullptr, nothing), -1);
  EXPECT_EQ(qmmw_fd_deregister(mw_, watched.fd()), 0);
  EXPECT_EQ(qmmw_fd_register(mw_, watched.fd(), nullptr, nullptr), -1) << "no callback";
  EXPECT_EQ(qmmw_fd_deregister(mw_, watched.fd()), -1) << "not registered any more";
  EXPECT_EQ(qmmw_fd_register(mw_, watched.fd(), nullptr, nothing), 0);
}

TEST_F(Loop, AMissingHandleOrFlagIsAFailureOfTheLoop) {
  EXPECT_NE(qmmw_loop_while(nullptr, &running_), 0);
  EXPECT_NE(qmmw_loop_while(mw_, nullptr), 0);
}

class LoopSignal : public Loop, public testing::WithParamInterface<int> {};

TEST_P(LoopSignal, OneThatCameBeforeTheLoopEndsItWithZeroAndNothingIsDispatched) {
  Watched ready{mw_, [&] { trace_.emplace_back("ready"); }};
  ready.Fill();
  ::kill(::getpid(), GetParam());
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, ElementsAre());
}

TEST_P(LoopSignal, OneThatComesInACallbackEndsTheLoopWithZero) {
  Watched ready{mw_, [&] {
                  trace_.emplace_back("ready");
                  ::kill(::getpid(), GetParam());
                }};
  ready.Fill();
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, testing::Contains("ready"));
}

INSTANTIATE_TEST_SUITE_P(Signals, LoopSignal, testing::Values(SIGTERM, SIGINT),
                         [](const auto& signal) { return signal.param == SIGTERM ? "Term" : "Int"; });

TEST_F(Loop, FinishInsideACallbackEndsTheLoopWithZero) {
  Watched first{mw_, [&] {
                  trace_.emplace_back("first");
                  qmmw_finish(&mw_);
                }};
  Watched second{mw_, [&] { trace_.emplace_back("second"); }};
  first.Fill();
  second.Fill();
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(mw_, nullptr);
  EXPECT_THAT(trace_, ElementsAre("first"));
}

TEST_F(Loop, FinishInsideATimerOrDeferredTaskEndsTheLoopWithZero) {
  qmmw_event_loop(mw_).AddTimer(milliseconds{0}, [&] {
    trace_.emplace_back("timer");
    qmmw_event_loop(mw_).Defer([&] {
      trace_.emplace_back("deferred");
      qmmw_finish(&mw_);
    });
    qmmw_event_loop(mw_).Defer([&] { trace_.emplace_back("never"); });
  });
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, ElementsAre("timer", "deferred"));
}

TEST_F(Loop, AGuardIsAskedBeforeEachCallAndMayPreventIt) {
  bool allowed = false;
  Watched watched{mw_, [&] {
                    trace_.emplace_back("called");
                    running_ = false;
                  }};
  qmmw_fd_set_guard(mw_, watched.fd(), [&] {
    trace_.emplace_back(allowed ? "allowed" : "prevented");
    return std::exchange(allowed, true);
  });
  watched.Fill();
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, ElementsAre("prevented", "allowed", "called"));
  qmmw_fd_set_guard(mw_, watched.fd(), nullptr);
  running_ = true;
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, ElementsAre("prevented", "allowed", "called", "called"));
}

TEST_F(Loop, AGuardMayRemoveItselfAndFinishTheHandle) {
  Watched watched{mw_, [&] { trace_.emplace_back("called"); }};
  qmmw_fd_set_guard(mw_, watched.fd(), [&] {
    qmmw_fd_deregister(mw_, watched.fd());
    qmmw_fd_set_guard(mw_, watched.fd(), nullptr);
    qmmw_finish(&mw_);
    trace_.emplace_back("guard");
    return false;
  });
  watched.Fill();
  EXPECT_EQ(Run(), 0);
  EXPECT_THAT(trace_, ElementsAre("guard"));
}

/// As a program does it: the object that owns the handle is a static, and a callback ends the process.
struct Owner {
  ~Owner() {
    if (mw == nullptr) return;
    ::write(STDERR_FILENO, "finishing\n", 10);
    qmmw_finish(&mw);
    ::write(STDERR_FILENO, "finished\n", 9);
  }
  qmmw_t* mw = nullptr;
  bool running = true;
};

void RunUntilExitInACallback() {
  static Owner owner;
  owner.mw = qmmw_init("exit-test");
  Watched first{owner.mw, [] { std::exit(1); }};
  Watched second{owner.mw, [] { ::write(STDERR_FILENO, "dispatched after exit\n", 22); }};
  first.Fill();
  second.Fill();
  qmmw_loop_while(owner.mw, &owner.running);
  std::_Exit(2);  // the loop returned
}

TEST(LoopDeathTest, ExitInACallbackDestroysTheOwnerFromWithinTheDispatch) {
  EXPECT_EXIT(RunUntilExitInACallback(), testing::ExitedWithCode(1), "^finishing\nfinished\n$");
}

void RunUntilExitInATimer() {
  static Owner owner;
  owner.mw = qmmw_init("exit-test");
  qmmw_event_loop(owner.mw).AddTimer(milliseconds{0}, [] { std::exit(1); });
  qmmw_loop_while(owner.mw, &owner.running);
  std::_Exit(2);
}

TEST(LoopDeathTest, ExitInATimerDestroysTheOwnerFromWithinTheDispatch) {
  EXPECT_EXIT(RunUntilExitInATimer(), testing::ExitedWithCode(1), "^finishing\nfinished\n$");
}

TEST(Supervisor, IsToldOnceWhenTheLoopFirstRunsAndAgainWhenItEnds) {
  const std::string name = "qmmw-test-notify-" + std::to_string(::getpid());  // in the abstract namespace
  const common::UniqueFd socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ::setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);

  const auto received = [&] {
    std::array<char, 256> text{};
    const ssize_t length = ::recv(socket.get(), text.data(), text.size(), 0);
    return std::string(text.data(), length > 0 ? static_cast<size_t>(length) : 0);
  };
  qmmw_t* mw = qmmw_init("notify-test");
  EXPECT_EQ(received(), "") << "not before the loop runs";
  bool running = true;
  qmmw_event_loop(mw).AddTimer(milliseconds{0}, [&] {
    EXPECT_EQ(received(), "READY=1");
    running = false;
  });
  EXPECT_EQ(qmmw_loop_while(mw, &running), 0);
  EXPECT_EQ(received(), "STOPPING=1");
  qmmw_loop_while(mw, &running);
  EXPECT_NE(received(), "READY=1");
  ::unsetenv("NOTIFY_SOCKET");
  qmmw_finish(&mw);
}

}  // namespace
