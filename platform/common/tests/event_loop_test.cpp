#include "common/event_loop.h"

#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace common {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

struct Pipe {
  Pipe() {
    std::array<int, 2> fds{};
    EXPECT_EQ(::pipe(fds.data()), 0);
    read.reset(fds[0]);
    write.reset(fds[1]);
  }
  void Fill() const { EXPECT_EQ(::write(write.get(), "x", 1), 1); }
  UniqueFd read;
  UniqueFd write;
};

class EventLoopTest : public testing::Test {
 protected:
  std::unique_ptr<EventLoop> loop_ = EventLoop::Create(false);
  std::vector<std::string> trace_;
};

TEST_F(EventLoopTest, ReadyDescriptorsRunInRegistrationOrderWhateverBecameReadyFirst) {
  const Pipe first, second, third;
  loop_->AddFd(third.read.get(), EPOLLIN, [&](uint32_t) { trace_.emplace_back("third"); });
  loop_->AddFd(first.read.get(), EPOLLIN, [&](uint32_t) { trace_.emplace_back("first"); });
  loop_->AddFd(second.read.get(), EPOLLIN, [&](uint32_t) { trace_.emplace_back("second"); });
  second.Fill();
  first.Fill();
  third.Fill();
  EXPECT_EQ(loop_->RunOnce(milliseconds{0}), 0);
  EXPECT_THAT(trace_, ElementsAre("third", "first", "second"));
}

TEST_F(EventLoopTest, ADescriptorRemovedByAnEarlierCallbackIsSkipped) {
  const Pipe first, second;
  loop_->AddFd(first.read.get(), EPOLLIN, [&](uint32_t) {
    trace_.emplace_back("first");
    EXPECT_TRUE(loop_->RemoveFd(second.read.get()));
  });
  loop_->AddFd(second.read.get(), EPOLLIN, [&](uint32_t) { trace_.emplace_back("second"); });
  first.Fill();
  second.Fill();
  EXPECT_EQ(loop_->RunOnce(milliseconds{0}), 0);
  EXPECT_THAT(trace_, ElementsAre("first"));
}

TEST_F(EventLoopTest, DeferredWorkRunsBeforeTheNextCallback) {
  const Pipe first, second;
  loop_->AddFd(first.read.get(), EPOLLIN, [&](uint32_t) {
    loop_->Defer([&] { trace_.emplace_back("deferred"); });
    trace_.emplace_back("first");
  });
  loop_->AddFd(second.read.get(), EPOLLIN, [&](uint32_t) { trace_.emplace_back("second"); });
  first.Fill();
  second.Fill();
  EXPECT_EQ(loop_->RunOnce(milliseconds{0}), 0);
  EXPECT_THAT(trace_, ElementsAre("first", "deferred", "second"));
}

TEST_F(EventLoopTest, TheLoopMayBeDestroyedInsideACallback) {
  const Pipe first, second;
  loop_->AddFd(first.read.get(), EPOLLIN, [&](uint32_t) {
    trace_.emplace_back("first");
    loop_.reset();
  });
  loop_->AddFd(second.read.get(), EPOLLIN, [&](uint32_t) { trace_.emplace_back("second"); });
  first.Fill();
  second.Fill();
  const bool running = true;
  EXPECT_EQ(loop_->Run(&running), 0);
  EXPECT_THAT(trace_, ElementsAre("first"));
}

TEST_F(EventLoopTest, TimersRunInDeadlineOrderAndACancelledOneDoesNot) {
  bool running = true;
  loop_->AddTimer(milliseconds{3}, [&] {
    trace_.emplace_back("late");
    running = false;
  });
  loop_->AddTimer(milliseconds{1}, [&] { trace_.emplace_back("early"); });
  const auto cancelled = loop_->AddTimer(milliseconds{2}, [&] { trace_.emplace_back("cancelled"); });
  loop_->CancelTimer(cancelled);
  EXPECT_EQ(loop_->Run(&running), 0);
  EXPECT_THAT(trace_, ElementsAre("early", "late"));
}

TEST_F(EventLoopTest, RegisteringTwiceOrAnInvalidDescriptorIsRefused) {
  const Pipe pipe;
  EXPECT_TRUE(loop_->AddFd(pipe.read.get(), EPOLLIN, [](uint32_t) {}));
  EXPECT_FALSE(loop_->AddFd(pipe.read.get(), EPOLLIN, [](uint32_t) {}));
  EXPECT_FALSE(loop_->AddFd(-1, EPOLLIN, [](uint32_t) {}));
  EXPECT_FALSE(loop_->RemoveFd(-1));
}

TEST(EventLoopSignalTest, ASignalEndsRunEvenWhenItArrivedBefore) {
  const auto loop = EventLoop::Create(true);
  ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
  const bool running = true;
  EXPECT_EQ(loop->Run(&running), 0);
  EXPECT_TRUE(loop->Stopped());
}

}  // namespace
}  // namespace common
