#include "common/event_loop.h"

#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <memory>
#include <stdexcept>
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

FdWatch Trace(EventLoop& loop, const Pipe& pipe, std::vector<std::string>* trace, const std::string& name) {
  return loop.Watch(pipe.read.get(), EPOLLIN, [trace, name](uint32_t) { trace->push_back(name); });
}

TEST_F(EventLoopTest, DispatchesInRegistrationOrder) {
  const Pipe first, second, third;
  const FdWatch a = Trace(*loop_, third, &trace_, "third");
  const FdWatch b = Trace(*loop_, first, &trace_, "first");
  const FdWatch c = Trace(*loop_, second, &trace_, "second");
  second.Fill();
  first.Fill();
  third.Fill();
  EXPECT_EQ(loop_->RunOnce(milliseconds{0}), 0);
  EXPECT_THAT(trace_, ElementsAre("third", "first", "second"));
}

TEST_F(EventLoopTest, SetKeepsThePlaceInTheOrder) {
  const Pipe first, second;
  FdWatch a = Trace(*loop_, first, &trace_, "first");
  const FdWatch b = Trace(*loop_, second, &trace_, "second");
  EXPECT_TRUE(a.Set(0));
  EXPECT_TRUE(a.Set(EPOLLIN));
  second.Fill();
  first.Fill();
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("first", "second"));
}

TEST_F(EventLoopTest, SetDecidesWhichEventsAreSeen) {
  const Pipe pipe;
  FdWatch watch = Trace(*loop_, pipe, &trace_, "read");
  EXPECT_TRUE(watch.Set(0));
  pipe.Fill();
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre());
  EXPECT_TRUE(watch.Set(EPOLLIN));
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("read"));
}

TEST_F(EventLoopTest, AnEndedWatchIsSkippedInTheSameTurn) {
  const Pipe first, second;
  FdWatch b;
  const FdWatch a = loop_->Watch(first.read.get(), EPOLLIN, [&](uint32_t) {
    trace_.emplace_back("first");
    b.Reset();
  });
  b = Trace(*loop_, second, &trace_, "second");
  first.Fill();
  second.Fill();
  EXPECT_EQ(loop_->RunOnce(milliseconds{0}), 0);
  EXPECT_THAT(trace_, ElementsAre("first"));
}

TEST_F(EventLoopTest, AWatchEndsWithItsHandle) {
  const Pipe pipe;
  { const FdWatch watch = Trace(*loop_, pipe, &trace_, "read"); }
  pipe.Fill();
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre());
}

TEST_F(EventLoopTest, AWatchEndsInsideItsOwnCallback) {
  const Pipe pipe;
  FdWatch watch;
  const auto captured = std::make_shared<std::string>("alive");
  watch = loop_->Watch(pipe.read.get(), EPOLLIN, [&, captured](uint32_t) {
    watch.Reset();
    trace_.push_back(*captured);  // the callback itself lives until it returns
  });
  pipe.Fill();
  loop_->RunOnce(milliseconds{0});
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("alive"));
  EXPECT_EQ(captured.use_count(), 1);
  EXPECT_FALSE(watch);
}

TEST_F(EventLoopTest, AMovedWatchStaysAndTheOldHandleIsEmpty) {
  const Pipe pipe;
  FdWatch from = Trace(*loop_, pipe, &trace_, "read");
  const FdWatch to = std::move(from);
  EXPECT_FALSE(from);  // NOLINT(bugprone-use-after-move): that is the contract
  EXPECT_FALSE(from.Set(EPOLLIN));
  from.Reset();
  pipe.Fill();
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("read"));
}

TEST_F(EventLoopTest, AnAssignmentEndsTheFormerWatch) {
  const Pipe first, second;
  FdWatch watch = Trace(*loop_, first, &trace_, "first");
  watch = Trace(*loop_, second, &trace_, "second");
  first.Fill();
  second.Fill();
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("second"));
  EXPECT_TRUE(loop_->Watch(first.read.get(), EPOLLIN, [](uint32_t) {}));  // not watched any more
}

TEST_F(EventLoopTest, HandlesOutliveTheLoop) {
  const Pipe pipe;
  FdWatch watch = Trace(*loop_, pipe, &trace_, "read");
  ScheduledTask timer = loop_->After(milliseconds{0}, [&] { trace_.emplace_back("timer"); });
  ScheduledTask task = loop_->Soon([&] { trace_.emplace_back("soon"); });
  loop_.reset();
  EXPECT_FALSE(watch.Set(0));
  EXPECT_FALSE(timer);
  EXPECT_FALSE(task);
  watch.Reset();
  timer.Reset();
  EXPECT_THAT(trace_, ElementsAre());
}

// What a callback owns may own registrations of the same loop.
TEST_F(EventLoopTest, TheLoopDestroysCallbacksThatOwnHandles) {
  struct Owner {
    FdWatch watch;
    ScheduledTask timer;
    ScheduledTask soon;
  };
  const Pipe first, second;
  auto owner = std::make_shared<Owner>();
  const std::weak_ptr<Owner> gone = owner;
  owner->watch = loop_->Watch(second.read.get(), EPOLLIN, [](uint32_t) {});
  owner->timer = loop_->After(milliseconds{1000}, [] {});
  owner->soon = loop_->Soon([] {});
  const FdWatch outer = loop_->Watch(first.read.get(), EPOLLIN, [kept = owner](uint32_t) {});
  owner.reset();
  EXPECT_FALSE(gone.expired());
  loop_.reset();
  EXPECT_TRUE(gone.expired());
}

TEST_F(EventLoopTest, SoonRunsBeforeTheNextCallback) {
  const Pipe first, second;
  ScheduledTask task;
  const FdWatch a = loop_->Watch(first.read.get(), EPOLLIN, [&](uint32_t) {
    task = loop_->Soon([&] { trace_.emplace_back("soon"); });
    trace_.emplace_back("first");
  });
  const FdWatch b = Trace(*loop_, second, &trace_, "second");
  first.Fill();
  second.Fill();
  EXPECT_EQ(loop_->RunOnce(milliseconds{0}), 0);
  EXPECT_THAT(trace_, ElementsAre("first", "soon", "second"));
}

TEST_F(EventLoopTest, SoonRunsInTheOrderOfTheCalls) {
  const ScheduledTask a = loop_->Soon([&] { trace_.emplace_back("a"); });
  ScheduledTask cancelled = loop_->Soon([&] { trace_.emplace_back("cancelled"); });
  const ScheduledTask b = loop_->Soon([&] { trace_.emplace_back("b"); });
  cancelled.Reset();
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("a", "b"));
}

TEST_F(EventLoopTest, TheLoopMayBeDestroyedInsideACallback) {
  const Pipe first, second;
  const FdWatch a = loop_->Watch(first.read.get(), EPOLLIN, [&](uint32_t) {
    trace_.emplace_back("first");
    loop_.reset();
  });
  const FdWatch b = Trace(*loop_, second, &trace_, "second");
  first.Fill();
  second.Fill();
  const bool running = true;
  EXPECT_EQ(loop_->Run(&running), 0);
  EXPECT_THAT(trace_, ElementsAre("first"));
}

TEST_F(EventLoopTest, TimersRunInDeadlineOrder) {
  bool running = true;
  const ScheduledTask late = loop_->After(milliseconds{3}, [&] {
    trace_.emplace_back("late");
    running = false;
  });
  const ScheduledTask early = loop_->After(milliseconds{1}, [&] { trace_.emplace_back("early"); });
  ScheduledTask cancelled = loop_->After(milliseconds{2}, [&] { trace_.emplace_back("cancelled"); });
  cancelled.Reset();
  EXPECT_EQ(loop_->Run(&running), 0);
  EXPECT_THAT(trace_, ElementsAre("early", "late"));
}

TEST_F(EventLoopTest, ATimerIsNotScheduledInItsOwnCallback) {
  bool running = true;
  ScheduledTask timer;
  EXPECT_FALSE(timer);
  timer = loop_->After(milliseconds{0}, [&] {
    trace_.emplace_back(timer ? "scheduled" : "begun");
    timer = loop_->After(milliseconds{0}, [&] {
      trace_.emplace_back("again");
      running = false;
    });
    trace_.emplace_back(timer ? "scheduled" : "begun");
  });
  EXPECT_TRUE(timer);
  EXPECT_EQ(loop_->Run(&running), 0);
  EXPECT_THAT(trace_, ElementsAre("begun", "scheduled", "again"));
}

TEST_F(EventLoopTest, AMovedTimerStays) {
  bool running = true;
  ScheduledTask from = loop_->After(milliseconds{0}, [&] { running = false; });
  const ScheduledTask to = std::move(from);
  EXPECT_FALSE(from);  // NOLINT(bugprone-use-after-move): that is the contract
  from.Reset();
  EXPECT_EQ(loop_->Run(&running), 0);
}

TEST_F(EventLoopTest, AnExceptionLeavesRunAndTheLoopWorks) {
  const Pipe pipe;
  const FdWatch watch = loop_->Watch(pipe.read.get(), EPOLLIN, [&](uint32_t) -> void {
    trace_.emplace_back("read");
    if (trace_.size() == 1) throw std::runtime_error("no");
  });
  pipe.Fill();
  EXPECT_THROW(loop_->RunOnce(milliseconds{0}), std::runtime_error);
  EXPECT_EQ(loop_->RunOnce(milliseconds{0}), 0);
  EXPECT_THAT(trace_, ElementsAre("read", "read"));
}

TEST_F(EventLoopTest, RefusesADescriptorTwiceAndAnInvalidOne) {
  const Pipe pipe;
  const FdWatch watch = loop_->Watch(pipe.read.get(), EPOLLIN, [](uint32_t) {});
  EXPECT_TRUE(watch);
  EXPECT_FALSE(loop_->Watch(pipe.read.get(), EPOLLIN, [](uint32_t) {}));
  EXPECT_FALSE(loop_->Watch(-1, EPOLLIN, [](uint32_t) {}));
}

TEST(EventLoopSignalTest, ASignalSentBeforeEndsRun) {
  const auto loop = EventLoop::Create(true);
  ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
  const bool running = true;
  EXPECT_EQ(loop->Run(&running), 0);
  EXPECT_TRUE(loop->Stopped());
}

}  // namespace
}  // namespace common
