// The clients' socket, frame by frame: who is let in, what is acknowledged, what ends a connection.
#include "clients/client_server.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "common/unix_socket.h"

namespace mgr {
namespace {

namespace wire = ip_spoofing_mgr::wire;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using wire::FrameType;

/// A client that says exactly what the test says, and notes what it hears: "welcome", "ack 3", "rows 5", "end 5",
/// "error 2: text", "closed".
class RawClient {
 public:
  RawClient(common::EventLoop& loop, const std::string& path) {
    auto socket = common::ConnectUnix(path, SOCK_STREAM | SOCK_NONBLOCK);
    EXPECT_TRUE(socket);
    connection_ = std::make_unique<wire::Connection>(
        loop, std::move(socket).value(),
        wire::Connection::Handlers{
            .on_frame = [this](FrameType type, std::string_view payload) { heard.push_back(Text(type, payload)); },
            .on_closed = [this](const auto&) { heard.emplace_back("closed"); },
            .on_drained = {},
        });
  }
  void Send(FrameType type, std::string_view payload) { connection_->Send(type, payload); }
  void SayHello(uint64_t instance, wire::TakeOver take_over = wire::TakeOver::kYes) {
    Send(FrameType::kHello, wire::EncodeHello({instance, take_over, "client"}));
  }
  void SendBatch(uint64_t sequence, size_t requests, bool full = false, bool last = true) {
    Send(FrameType::kBatch, wire::EncodeBatchPart(sequence, full, last, std::vector<wire::Request>(requests)));
  }
  [[nodiscard]] int Socket() const { return connection_->Socket(); }
  void Hangup() { connection_.reset(); }

  std::vector<std::string> heard;

 private:
  static std::string Text(FrameType type, std::string_view payload) {
    switch (type) {
      case FrameType::kWelcome:
        return "welcome";
      case FrameType::kAck:
        return "ack " + std::to_string(*wire::ParseSequence(payload));
      case FrameType::kListRows: {
        uint32_t id = 0;
        std::vector<ip_spoofing_mgr::AllowedIpStatusEntry> rows;
        EXPECT_TRUE(wire::ParseRows(payload, &id, &rows));
        return "rows " + std::to_string(rows.size()) + " of " + std::to_string(id);
      }
      case FrameType::kListEnd: {
        const auto end = wire::ParseListEnd(payload);
        return "end of " + std::to_string(end->id) + " with " + std::to_string(end->rows);
      }
      case FrameType::kError: {
        const auto failure = wire::ParseFailure(payload);
        return "error " + std::to_string(static_cast<int>(failure->code)) + ": " + failure->text;
      }
      default:
        return "?";
    }
  }
  std::unique_ptr<wire::Connection> connection_;
};

class ClientServerTest : public testing::Test {
 protected:
  ClientServerTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "mgr-server-XXXXXX").string();
    directory_ = ::mkdtemp(pattern.data());
    auto listener = common::ListenUnix(Path(), SOCK_STREAM, 0600);
    EXPECT_TRUE(listener);
    server_ = std::make_unique<ClientServer>(
        *loop_, std::move(listener).value(),
        ClientServer::Handlers{
            .submit =
                [this](const std::vector<wire::Request>& requests, bool full) {
                  batches_.push_back((full ? "full " : "") + std::to_string(requests.size()));
                  return batches_.size();
                },
            .list = [this] { return std::vector<ip_spoofing_mgr::AllowedIpStatusEntry>(rows_); },
        });
  }
  ~ClientServerTest() override { std::filesystem::remove_all(directory_); }

  [[nodiscard]] std::string Path() const { return directory_ + "/mgr.sock"; }
  std::unique_ptr<RawClient> Client() { return std::make_unique<RawClient>(*loop_, Path()); }
  std::unique_ptr<RawClient> WelcomeClient(uint64_t instance = 1) {
    auto client = Client();
    client->SayHello(instance);
    Turn();
    EXPECT_THAT(client->heard, ElementsAre("welcome"));
    client->heard.clear();
    return client;
  }
  void Turn() {
    for (int i = 0; i < 50; ++i) loop_->RunOnce(std::chrono::milliseconds{0});
  }

  std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  std::string directory_;
  std::vector<std::string> batches_;
  size_t rows_ = 0;
  std::unique_ptr<ClientServer> server_;
};

TEST_F(ClientServerTest, ABatchIsAcknowledgedOnceItIsSettled) {
  const auto client = WelcomeClient();
  client->SendBatch(5, 2, true);
  client->SendBatch(6, 1);
  Turn();
  EXPECT_THAT(batches_, ElementsAre("full 2", "1"));
  EXPECT_THAT(client->heard, IsEmpty());
  server_->Settled(1);
  Turn();
  EXPECT_THAT(client->heard, ElementsAre("ack 5"));
  server_->Settled(2);
  server_->Settled(2);
  Turn();
  EXPECT_THAT(client->heard, ElementsAre("ack 5", "ack 6"));
}

TEST_F(ClientServerTest, ABatchInPartsIsOneAndAnUnfinishedOneIsNone) {
  const auto client = WelcomeClient();
  client->SendBatch(1, 3, true, false);
  client->SendBatch(1, 2, true, false);
  Turn();
  EXPECT_THAT(batches_, IsEmpty());
  client->SendBatch(1, 0, true, true);
  client->SendBatch(2, 9, false, false);
  Turn();
  client->Hangup();
  Turn();
  EXPECT_THAT(batches_, ElementsAre("full 5"));
  EXPECT_THAT(server_->Clients(), IsEmpty());
}

TEST_F(ClientServerTest, ListsGoAsFastAsTheirReaderTakesThemOneAfterTheOther) {
  rows_ = 100'000;
  const auto client = WelcomeClient();
  client->Send(FrameType::kListRequest, wire::EncodeId(7));
  client->Send(FrameType::kListRequest, wire::EncodeId(8));
  for (int i = 0; i < 5000 && (client->heard.empty() || client->heard.back() != "end of 8 with 100000"); ++i) Turn();
  const size_t parts = (rows_ + wire::kRowsPerFrame - 1) / wire::kRowsPerFrame;
  ASSERT_EQ(client->heard.size(), 2 * (parts + 1));
  EXPECT_EQ(client->heard.front(), "rows 4096 of 7");
  EXPECT_EQ(client->heard[parts], "end of 7 with 100000");
  EXPECT_EQ(client->heard[parts + 1], "rows 4096 of 8");
}

TEST_F(ClientServerTest, TheNewestClientConfiguresUnlessItGivesWay) {
  const auto first = WelcomeClient(1);
  const auto second = Client();
  second->SayHello(2, wire::TakeOver::kNo);
  Turn();
  EXPECT_THAT(second->heard, ElementsAre(StartsWith("error 3: another client configures: client (process "), "closed"));
  EXPECT_THAT(first->heard, IsEmpty());
  const auto third = WelcomeClient(3);
  EXPECT_THAT(first->heard, ElementsAre(StartsWith("error 4: another client took over: client (process "), "closed"));
  third->SendBatch(1, 1);
  Turn();
  EXPECT_THAT(batches_, ElementsAre("1"));
  third->Hangup();
  Turn();
  const auto fourth = Client();
  fourth->SayHello(1, wire::TakeOver::kNo);
  Turn();
  EXPECT_THAT(fourth->heard, ElementsAre("welcome"));
}

TEST_F(ClientServerTest, TheSameProcessMayConnectAgainWhileItsOldConnectionIsThere) {
  const auto first = WelcomeClient(1);
  const auto again = Client();
  again->SayHello(1, wire::TakeOver::kNo);
  Turn();
  EXPECT_THAT(again->heard, ElementsAre("welcome"));
  EXPECT_EQ(server_->Clients().size(), 1U);
}

struct Refused {
  std::string name;
  bool hello;
  FrameType type;
  std::string payload;
  std::string error;
};

class Refusals : public ClientServerTest, public testing::WithParamInterface<Refused> {};

TEST_P(Refusals, EndTheConnectionWithAReasonAndDisturbNobody) {
  const auto good = WelcomeClient(1);
  const auto client = Client();
  if (GetParam().hello) {
    good->Hangup();
    Turn();
    client->SayHello(2);
  }
  client->Send(GetParam().type, GetParam().payload);
  Turn();
  ASSERT_THAT(client->heard, testing::SizeIs(GetParam().hello ? 3 : 2));
  EXPECT_THAT(client->heard[client->heard.size() - 2], HasSubstr(GetParam().error));
  EXPECT_EQ(client->heard.back(), "closed");
  EXPECT_THAT(batches_, IsEmpty());
  const auto next = WelcomeClient(3);
  next->SendBatch(1, 1);
  Turn();
  EXPECT_THAT(batches_, ElementsAre("1"));
}

std::string HelloOfVersion(uint16_t version) {
  std::string hello = wire::EncodeHello({1, wire::TakeOver::kYes, "x"});
  std::memcpy(hello.data() + sizeof wire::kMagic, &version, sizeof version);
  return hello;
}
std::string BatchOfUnknownKind() {
  std::vector<wire::Request> requests(1);
  requests[0].kind = static_cast<wire::RequestKind>(9);
  return wire::EncodeBatchPart(1, false, true, requests);
}

INSTANTIATE_TEST_SUITE_P(
    , Refusals,
    testing::Values(
        Refused{"AnotherVersion", false, FrameType::kHello, HelloOfVersion(2),
                "error 2: the client speaks version 2, the manager version 1"},
        Refused{"AHelloOfSomethingElse", false, FrameType::kHello, "GET / HTTP/1.0", "error 1: damaged hello"},
        Refused{"AnEmptyHello", false, FrameType::kHello, "", "error 1: damaged hello"},
        Refused{"ABatchBeforeTheHello", false, FrameType::kBatch, wire::EncodeBatchPart(1, true, true, {}),
                "error 1: unexpected frame of type 2"},
        Refused{"ASecondHello", true, FrameType::kHello, wire::EncodeHello({1, wire::TakeOver::kYes, "x"}),
                "error 1: unexpected frame of type 1"},
        Refused{"AnUnknownFrame", true, static_cast<FrameType>(99), "x", "error 1: unexpected frame of type 99"},
        Refused{"ABatchCutShort", true, FrameType::kBatch, "12345", "error 1: damaged batch"},
        Refused{"HalfARequest", true, FrameType::kBatch, wire::EncodeBatchPart(1, false, true, {}) + "xyz",
                "error 1: damaged batch"},
        Refused{"AnUnknownRequest", true, FrameType::kBatch, BatchOfUnknownKind(), "error 1: damaged batch"},
        Refused{"ADamagedListRequest", true, FrameType::kListRequest, "x", "error 1: damaged list request"}),
    [](const auto& test) { return test.param.name; });

TEST_F(ClientServerTest, AFrameThatIsTooLargeEndsTheConnection) {
  const auto client = WelcomeClient();
  const uint32_t size = wire::kMaxPayload + 1;
  ASSERT_EQ(::send(client->Socket(), &size, sizeof size, 0), static_cast<ssize_t>(sizeof size));
  ASSERT_EQ(::send(client->Socket(), "\2", 1, 0), 1);
  Turn();
  EXPECT_THAT(client->heard, ElementsAre("closed"));
  EXPECT_THAT(server_->Clients(), IsEmpty());
}

}  // namespace
}  // namespace mgr
