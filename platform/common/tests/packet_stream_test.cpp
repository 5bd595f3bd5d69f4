#include "common/packet_stream.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "socket_pair.h"

namespace common {
namespace {

using std::chrono::milliseconds;
using test::NameOf;
using test::SocketPair;
using testing::ElementsAre;

class PacketStreamTest : public testing::Test {
 protected:
  void Open(const PacketStream::Options& options = {}) {
    stream_ = std::make_unique<PacketStream>(
        *loop_, std::move(pair_.near), options,
        PacketStream::Handlers{
            .on_packet = [this](std::string_view packet) { trace_.push_back("packet " + std::string{packet}); },
            .on_closed = [this](const CloseInfo& why) { trace_.push_back(NameOf(why.reason)); }});
  }
  void Run() {
    for (int i = 0; i < 100; ++i) loop_->RunOnce(milliseconds{0});
  }
  /// The next packet at the peer, or "none".
  [[nodiscard]] std::string Next() const {
    std::string buffer(1 << 20, '\0');
    const IoOutcome outcome = ReceivePacketNow(pair_.far.get(), buffer.data(), buffer.size());
    return outcome.kind == IoOutcome::Kind::kBytes ? buffer.substr(0, outcome.size) : "none";
  }

  const std::unique_ptr<EventLoop> loop_ = EventLoop::Create(false);
  SocketPair pair_{SOCK_SEQPACKET};
  std::unique_ptr<PacketStream> stream_;
  std::vector<std::string> trace_;
};

TEST_F(PacketStreamTest, HandsOnPacketByPacket) {
  Open();
  pair_.Say("one");
  pair_.Say("two");
  Run();
  EXPECT_THAT(trace_, ElementsAre("packet one", "packet two"));
}

TEST_F(PacketStreamTest, SendsPacketByPacket) {
  Open();
  stream_->Send("one");
  stream_->Send("two");
  EXPECT_EQ(Next(), "one");
  EXPECT_EQ(Next(), "two");
  EXPECT_EQ(Next(), "none");
}

TEST_F(PacketStreamTest, KeepsInOrderWhatTheSocketDoesNotTake) {
  Open();
  constexpr int kPackets = 500;
  for (int i = 0; i < kPackets; ++i) stream_->Send(std::to_string(i) + std::string(4000, ' '));
  EXPECT_GT(stream_->Queued(), 0U);
  std::vector<int> arrived;
  for (int i = 0; i < 1000 && arrived.size() < kPackets; ++i) {
    for (std::string packet = Next(); packet != "none"; packet = Next()) arrived.push_back(std::stoi(packet));
    loop_->RunOnce(milliseconds{0});
  }
  ASSERT_EQ(arrived.size(), size_t{kPackets});
  for (int i = 0; i < kPackets; ++i) EXPECT_EQ(arrived[static_cast<size_t>(i)], i);
  EXPECT_EQ(stream_->Queued(), 0U);
}

TEST_F(PacketStreamTest, ReadsSoManyPacketsInATurn) {
  Open({.packets_per_turn = 2});
  for (const char* packet : {"1", "2", "3"}) pair_.Say(packet);
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("packet 1", "packet 2"));
  loop_->RunOnce(milliseconds{0});
  EXPECT_THAT(trace_, ElementsAre("packet 1", "packet 2", "packet 3"));
}

TEST_F(PacketStreamTest, APacketOfTheLimitPassesAndALongerOneEndsIt) {
  Open({.max_packet = 8});
  pair_.Say("12345678");
  Run();
  EXPECT_THAT(trace_, ElementsAre("packet 12345678"));
  pair_.Say("123456789");
  Run();
  EXPECT_THAT(trace_, ElementsAre("packet 12345678", "too-large"));
}

TEST_F(PacketStreamTest, ThePeersEndComesAfterItsPackets) {
  Open();
  pair_.Say("last");
  pair_.far.reset();
  stream_->Send("nobody reads this");  // EPIPE
  EXPECT_THAT(trace_, ElementsAre());
  Run();
  EXPECT_THAT(trace_, ElementsAre("packet last", "peer-closed"));
  EXPECT_FALSE(stream_->open());
}

TEST_F(PacketStreamTest, APacketThatTheSystemRefusesEndsIt) {
  Open();
  stream_->Send(std::string(32 << 20, 'x'));  // EMSGSIZE
  EXPECT_THAT(trace_, ElementsAre());
  Run();
  EXPECT_THAT(trace_, ElementsAre("send-failed"));
}

TEST_F(PacketStreamTest, APeerThatDoesNotReadIsClosed) {
  Open({.max_queued = 1 << 20});
  for (int i = 0; i < 100; ++i) stream_->Send(std::string(32 << 10, 'x'));
  Run();
  EXPECT_THAT(trace_, ElementsAre("not-read"));
}

TEST_F(PacketStreamTest, CloseCallsNoHandler) {
  Open();
  stream_->Close();
  stream_->Send("ignored");
  Run();
  EXPECT_THAT(trace_, ElementsAre());
  EXPECT_EQ(stream_->Queued(), 0U);
  char byte = 0;
  EXPECT_EQ(::recv(pair_.far.get(), &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(PacketStreamTest, DiesInsideItsHandlers) {
  stream_ = std::make_unique<PacketStream>(
      *loop_, std::move(pair_.near), PacketStream::Options{},
      PacketStream::Handlers{.on_packet =
                                 [this](std::string_view) {
                                   stream_.reset();
                                   trace_.emplace_back("packet");
                                 },
                             .on_closed = [this](const CloseInfo&) { trace_.emplace_back("closed"); }});
  pair_.Say("one");
  pair_.Say("two");
  Run();
  EXPECT_THAT(trace_, ElementsAre("packet"));
}

}  // namespace
}  // namespace common
