#include "netconf/client.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include "common/socket_io.h"
#include "common/unix_socket.h"
#include "temp_dir/temp_dir.h"

namespace netconf {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::Pair;

constexpr milliseconds kLimit{20000};
constexpr milliseconds kShort{20};
const std::string kNs = "urn:ietf:params:xml:ns:netconf:base:1.0";

std::string ServerHello(const std::vector<std::string>& versions) {
  std::string hello = "<hello xmlns=\"" + kNs + "\"><capabilities>";
  for (const std::string& version : versions) {
    hello += "<capability>urn:ietf:params:netconf:base:" + version + "</capability>";
  }
  return hello + "</capabilities><session-id> 7 </session-id></hello>]]>]]>";
}

/// A client, and the other end of its connection in the hands of the test: what the server is to say is said before the
/// client asks for it, so that nothing has to run at the same time.
class ClientTest : public testing::Test {
 protected:
  ClientTest() {
    auto listening = common::ListenUnix(path_, SOCK_STREAM, 0600);
    EXPECT_TRUE(listening.ok());
    listener_ = std::move(listening).value();
    auto connected = Client::ConnectRaw(path_);
    EXPECT_TRUE(connected.ok()) << connected.error().Text();
    client_ = std::make_unique<Client>(std::move(connected).value());
    auto accepted = common::AcceptUnix(listener_.get());
    EXPECT_TRUE(accepted.ok());
    server_ = std::move(accepted).value();
  }
  void Say(const std::string& bytes) const { EXPECT_EQ(common::SendNow(server_.get(), bytes).size, bytes.size()); }
  /// Everything that the client has sent since the last call.
  [[nodiscard]] std::string Heard() const {
    std::string all;
    std::string buffer(1 << 16, '\0');
    while (true) {
      const auto outcome = common::ReceiveNow(server_.get(), buffer.data(), buffer.size());
      if (outcome.kind != common::IoOutcome::Kind::kBytes) return all;
      all.append(buffer, 0, outcome.size);
    }
  }

  const ::test::TempDir dir_;
  const std::string path_ = dir_.path() + "/netconf.sock";
  common::UniqueFd listener_;
  common::UniqueFd server_;
  std::unique_ptr<Client> client_;
};

TEST_F(ClientTest, HelloAgreesOnChunkedFraming) {
  Say(ServerHello({"1.0", "1.1"}));
  ASSERT_TRUE(client_->Hello(kLimit, true).ok());
  EXPECT_EQ(Heard(), "<hello xmlns=\"" + kNs +
                         "\"><capabilities><capability>urn:ietf:params:netconf:base:1.0</capability><capability>"
                         "urn:ietf:params:netconf:base:1.1</capability></capabilities></hello>]]>]]>");
  EXPECT_EQ(client_->session_id(), "7");
  EXPECT_THAT(client_->capabilities(),
              ElementsAre("urn:ietf:params:netconf:base:1.0", "urn:ietf:params:netconf:base:1.1"));
  ASSERT_TRUE(client_->Send("<a/>", kLimit).ok());
  EXPECT_EQ(Heard(), "\n#4\n<a/>\n##\n");
}

TEST_F(ClientTest, KeepsTheOldFramingUnlessBothTakeTheNew) {
  Say(ServerHello({"1.0"}));
  ASSERT_TRUE(client_->Hello(kLimit, true).ok());
  (void)Heard();
  ASSERT_TRUE(client_->Send("<a/>", kLimit).ok());
  EXPECT_EQ(Heard(), "<a/>]]>]]>");
}

TEST_F(ClientTest, AnnouncesBase11OnlyIfAsked) {
  Say(ServerHello({"1.0", "1.1"}));
  ASSERT_TRUE(client_->Hello(kLimit, false).ok());
  EXPECT_THAT(Heard(), testing::Not(testing::HasSubstr("base:1.1")));
  ASSERT_TRUE(client_->Send("<a/>", kLimit).ok());
  EXPECT_EQ(Heard(), "<a/>]]>]]>");
}

TEST_F(ClientTest, RefusesAnythingButAHello) {
  Say("<greetings/>]]>]]>");
  const common::Status hello = client_->Hello(kLimit, true);
  ASSERT_FALSE(hello.ok());
  EXPECT_EQ(hello.error().Text(), "hello: the server sent no hello");
}

TEST_F(ClientTest, RpcWrapsNumbersAndReturnsTheReply) {
  Say("<rpc-reply message-id=\"1\"/>]]>]]><rpc-reply message-id=\"2\"/>]]>]]>");
  const auto first = client_->Rpc("<get/>", kLimit);
  const auto second = client_->Rpc("<get/>", kLimit);
  ASSERT_TRUE(first.ok() && second.ok());
  EXPECT_EQ(first.value(), "<rpc-reply message-id=\"1\"/>");
  EXPECT_EQ(second.value(), "<rpc-reply message-id=\"2\"/>");
  EXPECT_EQ(Heard(), "<rpc message-id=\"1\" xmlns=\"" + kNs + "\"><get/></rpc>]]>]]><rpc message-id=\"2\" xmlns=\"" +
                         kNs + "\"><get/></rpc>]]>]]>");
}

TEST_F(ClientTest, ASilentServerIsATimeout) {
  const auto message = client_->Receive(kShort);
  ASSERT_FALSE(message.ok());
  EXPECT_TRUE(message.error().IsTimedOut());
}

TEST_F(ClientTest, AServerThatDoesNotReadIsATimeout) {
  const common::Status sent = client_->Send(std::string(16 << 20, 'x'), kShort);
  ASSERT_FALSE(sent.ok());
  EXPECT_TRUE(sent.error().IsTimedOut());
}

TEST_F(ClientTest, AClosedConnectionIsToldFromATimeout) {
  Say("half a mess");
  server_.reset();
  const auto message = client_->Receive(kLimit);
  ASSERT_FALSE(message.ok());
  EXPECT_TRUE(message.error().IsClosed());
  EXPECT_EQ(message.error().Text(), "receive: the peer closed the connection");
}

TEST_F(ClientTest, BadFramingIsDamage) {
  client_->SetFraming(Framing::kChunked);
  Say("\n#x\n");
  const auto message = client_->Receive(kLimit);
  ASSERT_FALSE(message.ok());
  EXPECT_TRUE(message.error().IsDamaged());
}

TEST_F(ClientTest, HearsTheAnswerOfAServerThatHangsUp) {
  Say("<rpc-reply><rpc-error/></rpc-reply>]]>]]>");
  server_.reset();
  const auto reply = client_->Rpc(std::string(1 << 20, 'x'), kLimit);
  ASSERT_TRUE(reply.ok()) << reply.error().Text();
  EXPECT_EQ(reply.value(), "<rpc-reply><rpc-error/></rpc-reply>");
}

TEST_F(ClientTest, ASendToAClosedConnectionIsClosed) {
  server_.reset();
  const common::Status sent = client_->Send("<a/>", kLimit);
  ASSERT_FALSE(sent.ok());
  EXPECT_TRUE(sent.error().IsClosed());
}

TEST_F(ClientTest, TellsTheProgressOfASend) {
  std::vector<std::pair<size_t, size_t>> told;
  client_->OnProgress([&](size_t sent, size_t total) { told.emplace_back(sent, total); });
  ASSERT_TRUE(client_->SendBytes("0123456789", kLimit).ok());
  EXPECT_THAT(told, ElementsAre(Pair(10U, 10U)));
  told.clear();
  EXPECT_FALSE(client_->SendBytes(std::string(16 << 20, 'x'), kShort).ok());
  ASSERT_FALSE(told.empty());
  EXPECT_EQ(told.back().second, size_t{16} << 20);
  EXPECT_LT(told.back().first, told.back().second);
  EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
}

TEST(ClientConnect, SaysThatNothingListens) {
  const ::test::TempDir dir;
  const auto absent = Client::Connect(dir.path() + "/netconf.sock", kLimit);
  ASSERT_FALSE(absent.ok());
  EXPECT_TRUE(absent.error().IsNotFound());
}

}  // namespace
}  // namespace netconf
