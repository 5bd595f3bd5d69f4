#include "common/socket_io.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>

#include <cerrno>

#include "common/unix_socket.h"
#include "socket_pair.h"
#include "temp_dir/temp_dir.h"

namespace common {
namespace {

using std::chrono::milliseconds;
using test::SocketPair;
using Kind = IoOutcome::Kind;

TEST(SocketIo, ReceivesBytesThenWouldBlockThenEnd) {
  SocketPair pair{SOCK_STREAM};
  std::string buffer(8, '\0');
  EXPECT_EQ(ReceiveNow(pair.near.get(), buffer.data(), buffer.size()).kind, Kind::kWouldBlock);
  pair.Say("0123456789");
  EXPECT_EQ(ReceiveNow(pair.near.get(), buffer.data(), buffer.size()).size, 8U);
  EXPECT_EQ(ReceiveNow(pair.near.get(), buffer.data(), buffer.size()).size, 2U);
  pair.far.reset();
  const IoOutcome end = ReceiveNow(pair.near.get(), buffer.data(), buffer.size());
  EXPECT_EQ(end.kind, Kind::kEnd);
  EXPECT_TRUE(end.PeerIsGone());
}

TEST(SocketIo, TellsTheFullSizeOfACutPacket) {
  SocketPair pair{SOCK_SEQPACKET};
  std::string buffer(4, '\0');
  pair.Say("0123456789");
  pair.Say("next");
  EXPECT_EQ(ReceivePacketNow(pair.near.get(), buffer.data(), buffer.size()).size, 10U);
  EXPECT_EQ(buffer, "0123");
  EXPECT_EQ(ReceivePacketNow(pair.near.get(), buffer.data(), buffer.size()).size, 4U);
  EXPECT_EQ(buffer, "next");
}

TEST(SocketIo, PeekTakesNothing) {
  SocketPair pair{SOCK_SEQPACKET};
  EXPECT_EQ(PeekNow(pair.near.get()).kind, Kind::kWouldBlock);
  pair.Say("packet");
  EXPECT_EQ(PeekNow(pair.near.get()).kind, Kind::kBytes);
  std::string buffer(8, '\0');
  EXPECT_EQ(ReceivePacketNow(pair.near.get(), buffer.data(), buffer.size()).size, 6U);
  pair.far.reset();
  EXPECT_TRUE(PeekNow(pair.near.get()).PeerIsGone());
}

TEST(SocketIo, SendsUntilTheSocketIsFull) {
  SocketPair pair{SOCK_STREAM};
  const std::string much(1 << 20, 'x');
  IoOutcome outcome;
  size_t total = 0;
  for (int i = 0; i < 100 && outcome.kind == Kind::kBytes; ++i) {
    outcome = SendNow(pair.near.get(), much);
    total += outcome.size;
  }
  EXPECT_EQ(outcome.kind, Kind::kWouldBlock);
  EXPECT_EQ(pair.Arrived().size(), total);
}

TEST(SocketIo, ASendToNobodyRaisesNoSignal) {
  SocketPair pair{SOCK_STREAM};
  pair.far.reset();
  const IoOutcome outcome = SendNow(pair.near.get(), "x");
  EXPECT_EQ(outcome.kind, Kind::kFailed);
  EXPECT_EQ(outcome.system_error, EPIPE);
  EXPECT_TRUE(outcome.PeerIsGone());
}

TEST(SocketIo, AnInvalidDescriptorIsAFailureOfOurs) {
  const IoOutcome outcome = SendNow(-1, "x");
  EXPECT_EQ(outcome.system_error, EBADF);
  EXPECT_FALSE(outcome.PeerIsGone());
}

TEST(SocketIo, WaitsForInputOrTheDeadline) {
  SocketPair pair{SOCK_STREAM};
  const Status late = WaitReady(pair.near.get(), POLLIN, std::chrono::steady_clock::now());
  ASSERT_FALSE(late.ok());
  EXPECT_TRUE(late.error().IsTimedOut());
  EXPECT_EQ(late.error().Text(), "wait: no answer within the time limit");
  pair.Say("x");
  EXPECT_TRUE(WaitReady(pair.near.get(), POLLIN, std::chrono::steady_clock::now()).ok());
  EXPECT_TRUE(WaitReady(pair.near.get(), POLLOUT, std::chrono::steady_clock::now()).ok());
}

class UnixSocket : public testing::Test {
 protected:
  const ::test::TempDir dir_;
  const std::string path_ = dir_.path() + "/socket";
};

TEST_F(UnixSocket, APathInUseIsRefused) {
  const auto first = ListenUnix(path_, SOCK_STREAM, 0600);
  ASSERT_TRUE(first.ok());
  for (const int type : {SOCK_STREAM, SOCK_SEQPACKET}) {
    const auto second = ListenUnix(path_, type, 0600);
    ASSERT_FALSE(second.ok());
    EXPECT_TRUE(second.error().IsInUse());
    EXPECT_EQ(second.error().Text(), "bind " + path_ + ": Address already in use");
  }
}

TEST_F(UnixSocket, ThePathOfADeadListenerIsTakenOver) {
  ASSERT_TRUE(ListenUnix(path_, SOCK_STREAM, 0600).ok());  // closed, and its path stays
  const auto second = ListenUnix(path_, SOCK_STREAM, 0600);
  ASSERT_TRUE(second.ok()) << second.error().Text();
  EXPECT_TRUE(ConnectUnix(path_, SOCK_STREAM).ok());
}

TEST_F(UnixSocket, AFileThatIsNotASocketStays) {
  ASSERT_TRUE(UniqueFd{::open(path_.c_str(), O_CREAT | O_WRONLY, 0600)});
  const auto listening = ListenUnix(path_, SOCK_STREAM, 0600);
  ASSERT_FALSE(listening.ok());
  EXPECT_TRUE(listening.error().IsInUse());
}

TEST_F(UnixSocket, APathThatDoesNotFitIsRefused) {
  EXPECT_TRUE(UnixAddress(std::string(107, 'p')).ok());
  for (const std::string& path : {std::string{}, std::string(108, 'p')}) {
    const auto address = UnixAddress(path);
    ASSERT_FALSE(address.ok());
    EXPECT_TRUE(address.error().IsInvalid());
    EXPECT_FALSE(ConnectUnix(path, SOCK_STREAM).ok());
    EXPECT_FALSE(ListenUnix(path, SOCK_STREAM, 0600).ok());
  }
}

TEST_F(UnixSocket, ConnectingToNothingSaysWhy) {
  const auto absent = ConnectUnix(path_, SOCK_STREAM);
  ASSERT_FALSE(absent.ok());
  EXPECT_TRUE(absent.error().IsNotFound());
  ASSERT_TRUE(ListenUnix(path_, SOCK_STREAM, 0600).ok());
  const auto dead = ConnectUnix(path_, SOCK_STREAM);
  ASSERT_FALSE(dead.ok());
  EXPECT_TRUE(dead.error().IsClosed());
}

}  // namespace
}  // namespace common
