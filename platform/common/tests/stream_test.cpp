#include "common/stream.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "socket_pair.h"

namespace common {
namespace {

using std::chrono::milliseconds;
using test::NameOf;
using test::SocketPair;
using testing::ElementsAre;

const std::string kMuch(4 << 20, 'm');

class StreamTest : public testing::Test {
 protected:
  Stream::Handlers Tracing() {
    return {.on_data = [this](std::string_view bytes) { trace_.push_back("data " + std::string{bytes}); },
            .on_closed = [this](const CloseInfo& why) { trace_.push_back(NameOf(why.reason)); },
            .on_drained = [this] { trace_.emplace_back("drained"); },
            .on_end_of_input = {}};
  }
  void Open(Stream::Handlers handlers, const Stream::Options& options = {}) {
    stream_ = std::make_unique<Stream>(*loop_, std::move(pair_.near), options, std::move(handlers));
  }
  /// Turns until nothing is ready; at most a hundred.
  void Run() {
    for (int i = 0; i < 100; ++i) loop_->RunOnce(milliseconds{0});
  }

  const std::unique_ptr<EventLoop> loop_ = EventLoop::Create(false);
  SocketPair pair_{SOCK_STREAM};
  std::unique_ptr<Stream> stream_;
  std::vector<std::string> trace_;
};

TEST_F(StreamTest, HandsOnWhatArrives) {
  Open(Tracing());
  pair_.Say("one");
  Run();
  pair_.Say("two");
  Run();
  EXPECT_THAT(trace_, ElementsAre("data one", "data two"));
}

TEST_F(StreamTest, SendsAtOnceWhatTheSocketTakes) {
  Open(Tracing());
  stream_->Send("one");
  stream_->SendWith([](std::string* queue) { queue->append("two"); });
  EXPECT_EQ(pair_.Arrived(), "onetwo");
  EXPECT_EQ(stream_->Queued(), 0U);
}

TEST_F(StreamTest, KeepsInOrderWhatTheSocketDoesNotTake) {
  Open(Tracing());
  stream_->Send(kMuch);
  stream_->Send("end");
  EXPECT_GT(stream_->Queued(), 0U);
  std::string all;
  for (int i = 0; i < 1000 && all.size() < kMuch.size() + 3; ++i) {
    all += pair_.Arrived();
    loop_->RunOnce(milliseconds{0});
  }
  EXPECT_TRUE(all == kMuch + "end");
  EXPECT_EQ(stream_->Queued(), 0U);
  EXPECT_THAT(trace_, ElementsAre("drained"));
}

TEST_F(StreamTest, TellsDrainedBelowLowWaterOnly) {
  Open(Tracing(), {.low_water = 1 << 20});
  stream_->Send(std::string(1 << 19, 's'));  // below the mark
  while (stream_->Queued() > 0) {
    (void)pair_.Arrived();
    loop_->RunOnce(milliseconds{0});
  }
  EXPECT_THAT(trace_, ElementsAre());
  stream_->Send(std::string(3 << 20, 's'));
  while (stream_->Queued() >= 1 << 20) {
    EXPECT_THAT(trace_, ElementsAre());
    (void)pair_.Arrived();
    loop_->RunOnce(milliseconds{0});
  }
  EXPECT_THAT(trace_, ElementsAre("drained"));
  while (stream_->Queued() > 0) {
    (void)pair_.Arrived();
    loop_->RunOnce(milliseconds{0});
  }
  EXPECT_THAT(trace_, ElementsAre("drained"));
}

TEST_F(StreamTest, ReadsNoMoreThanItsBudgetInATurn) {
  size_t in_this_turn = 0;
  Open({.on_data = [&](std::string_view bytes) { in_this_turn += bytes.size(); }, .on_closed = [](const CloseInfo&) {}},
       {.read_budget = 64 << 10});
  pair_.Say(std::string(100 << 10, 'x'));
  loop_->RunOnce(milliseconds{0});
  EXPECT_EQ(in_this_turn, size_t{64} << 10);
  loop_->RunOnce(milliseconds{0});
  EXPECT_EQ(in_this_turn, size_t{100} << 10);
}

TEST_F(StreamTest, ReadingStopsAndResumes) {
  Open(Tracing());
  stream_->SetReading(false);
  pair_.Say("one");
  Run();
  EXPECT_THAT(trace_, ElementsAre());
  stream_->SetReading(true);
  Run();
  EXPECT_THAT(trace_, ElementsAre("data one"));
}

TEST_F(StreamTest, ReadingStopsInsideTheHandler) {
  Open({.on_data =
            [&](std::string_view) {
              trace_.emplace_back("data");
              stream_->SetReading(false);
            },
        .on_closed = [](const CloseInfo&) {}});
  pair_.Say(std::string(100 << 10, 'x'));  // more than one read
  Run();
  EXPECT_THAT(trace_, ElementsAre("data"));
}

TEST_F(StreamTest, ThePeersEndComesAfterItsData) {
  Open(Tracing());
  pair_.Say("last");
  pair_.far.reset();
  Run();
  EXPECT_THAT(trace_, ElementsAre("data last", "peer-closed"));
  EXPECT_FALSE(stream_->open());
  EXPECT_EQ(stream_->fd(), -1);
}

TEST_F(StreamTest, AResetIsThePeersEnd) {
  Open(Tracing());
  stream_->Send("unread");
  pair_.far.reset();  // with input that it has not read
  Run();
  EXPECT_THAT(trace_, ElementsAre("peer-closed"));
}

TEST_F(StreamTest, AnEndOfInputLeavesTheOutputOpen) {
  auto handlers = Tracing();
  handlers.on_end_of_input = [&] { trace_.emplace_back("end-of-input"); };
  Open(std::move(handlers));
  pair_.Say("last");
  ASSERT_EQ(::shutdown(pair_.far.get(), SHUT_WR), 0);
  Run();
  EXPECT_THAT(trace_, ElementsAre("data last", "end-of-input"));
  stream_->Send("answer");
  EXPECT_EQ(pair_.Arrived(), "answer");
}

TEST_F(StreamTest, AVanishedPeerEndsItThoughReadingIsStopped) {
  Open(Tracing());
  stream_->SetReading(false);
  pair_.Say("unread");
  pair_.far.reset();
  Run();
  EXPECT_THAT(trace_, ElementsAre("peer-closed"));
}

TEST_F(StreamTest, ABrokenOutputIsReadToTheEnd) {
  Open(Tracing());
  pair_.Say("last words");
  pair_.far.reset();
  stream_->Send("nobody reads this");  // EPIPE
  EXPECT_THAT(trace_, ElementsAre());  // never inside Send()
  Run();
  EXPECT_THAT(trace_, ElementsAre("data last words", "peer-closed"));
}

TEST_F(StreamTest, APeerThatReadsNoMoreEndsIt) {
  Open(Tracing());
  ASSERT_EQ(::shutdown(pair_.far.get(), SHUT_RD), 0);
  stream_->Send("answer");
  Run();
  EXPECT_THAT(trace_, ElementsAre("peer-closed"));
}

TEST_F(StreamTest, CloseWhenSentSendsEverythingFirst) {
  Open(Tracing(), {.low_water = size_t{64} << 20});
  stream_->Send(kMuch);
  stream_->CloseWhenSent();
  stream_->Send("ignored");
  std::string all;
  for (int i = 0; i < 1000 && stream_->open(); ++i) {
    all += pair_.Arrived();
    loop_->RunOnce(milliseconds{0});
  }
  all += pair_.Arrived();
  EXPECT_TRUE(all == kMuch);
  EXPECT_THAT(trace_, ElementsAre("finished"));
}

TEST_F(StreamTest, CloseWhenSentOfAnEmptyQueueEndsInItsOwnTurn) {
  Open(Tracing());
  stream_->CloseWhenSent();
  EXPECT_THAT(trace_, ElementsAre());
  Run();
  EXPECT_THAT(trace_, ElementsAre("finished"));
}

TEST_F(StreamTest, CloseCallsNoHandler) {
  Open(Tracing());
  stream_->Close();
  EXPECT_FALSE(stream_->open());
  stream_->Send("ignored");
  stream_->SetReading(true);
  Run();
  EXPECT_THAT(trace_, ElementsAre());
  char byte = 0;
  EXPECT_EQ(::recv(pair_.far.get(), &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(StreamTest, APeerThatDoesNotReadIsClosed) {
  Open(Tracing(), {.low_water = size_t{64} << 20, .max_queued = 1 << 20});
  stream_->Send(kMuch);
  EXPECT_THAT(trace_, ElementsAre());
  Run();
  EXPECT_THAT(trace_, ElementsAre("not-read"));
}

TEST_F(StreamTest, DiesInsideOnData) {
  const auto captured = std::make_shared<std::string>("alive");
  Open({.on_data =
            [&, captured](std::string_view) {
              stream_.reset();
              trace_.push_back(*captured);
            },
        .on_closed = [&](const CloseInfo&) { trace_.emplace_back("closed"); }});
  pair_.Say(std::string(100 << 10, 'x'));
  pair_.far.reset();
  Run();
  EXPECT_THAT(trace_, ElementsAre("alive"));
  EXPECT_EQ(captured.use_count(), 1);
}

TEST_F(StreamTest, DiesInsideOnClosed) {
  Open({.on_data = [](std::string_view) {},
        .on_closed =
            [&](const CloseInfo&) {
              stream_.reset();
              trace_.emplace_back("closed");
            }});
  pair_.far.reset();
  Run();
  EXPECT_THAT(trace_, ElementsAre("closed"));
}

TEST_F(StreamTest, DiesInsideOnDrained) {
  Open({.on_data = [](std::string_view) {},
        .on_closed = [](const CloseInfo&) {},
        .on_drained =
            [&] {
              stream_.reset();
              trace_.emplace_back("drained");
            }},
       {.low_water = 1 << 20});
  stream_->Send(kMuch);
  for (int i = 0; i < 1000 && stream_; ++i) {
    (void)pair_.Arrived();
    loop_->RunOnce(milliseconds{0});
  }
  EXPECT_THAT(trace_, ElementsAre("drained"));
}

TEST_F(StreamTest, DiesWithWorkPending) {
  Open(Tracing());
  stream_->Send(kMuch);
  stream_->CloseWhenSent();
  stream_.reset();
  Run();
  EXPECT_THAT(trace_, ElementsAre());
}

TEST_F(StreamTest, AnExceptionLeavesItWhole) {
  Open({.on_data = [&](std::string_view bytes) -> void {
          trace_.emplace_back(bytes);
          if (trace_.size() == 1) throw std::runtime_error("no");
        },
        .on_closed = [](const CloseInfo&) {}});
  pair_.Say("one");
  EXPECT_THROW(loop_->RunOnce(milliseconds{0}), std::runtime_error);
  pair_.Say("two");
  Run();
  EXPECT_THAT(trace_, ElementsAre("one", "two"));
}

TEST_F(StreamTest, PumpsOutsideOfTheLoop) {
  Open(Tracing(), {.low_water = size_t{64} << 20});
  pair_.Say("one");
  stream_->Pump(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("data one"));
  stream_->Send(kMuch);
  const size_t before = stream_->Queued();
  (void)pair_.Arrived();
  stream_->Pump(milliseconds{0});
  EXPECT_LT(stream_->Queued(), before);
  pair_.far.reset();
  stream_->Pump(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("data one", "peer-closed"));
  stream_->Pump(milliseconds{0});  // nothing is left
}

TEST(CloseInfoTest, TellsWhatTheSystemSaid) {
  EXPECT_EQ((CloseInfo{CloseReason::kPeerClosed}).Text(), "the peer closed the connection");
  EXPECT_EQ((CloseInfo{CloseReason::kPeerClosed, EPIPE}).Text(), "the peer closed the connection: Broken pipe");
  EXPECT_EQ((CloseInfo{CloseReason::kReceiveFailed, EIO}).Text(), "receive: Input/output error");
  EXPECT_EQ((CloseInfo{CloseReason::kSendFailed, EMSGSIZE}).Text(), "send: Message too long");
  EXPECT_EQ((CloseInfo{CloseReason::kTooLarge}).Text(), "a message is too large");
  EXPECT_EQ((CloseInfo{CloseReason::kNotRead}).Text(), "the peer does not read");
  EXPECT_EQ((CloseInfo{CloseReason::kFinished}).Text(), "");
}

}  // namespace
}  // namespace common
