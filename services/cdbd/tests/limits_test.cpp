// Peers that misbehave: each of them harms nobody but itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "cdbd_process.h"
#include "replies.h"

namespace cdbd::test {
namespace {

using netconf::Client;

constexpr std::chrono::milliseconds kLimit = NetconfClient::kLimit;
const std::string kNc = "xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"";
const std::string kGetAll =
    "<rpc message-id=\"1\" " + kNc + "><get-config><source><running/></source></get-config></rpc>";

/// The peer's connection is closed by the server, whatever it sends before.
bool IsClosed(Client& client) {
  for (int i = 0; i < 1000; ++i) {
    const auto message = client.Receive(kLimit);
    if (!message.ok()) return !message.error().IsTimedOut();
  }
  return false;
}

struct Hello {
  std::string name;
  std::string bytes;
};
void PrintTo(const Hello& row, std::ostream* out) { *out << row.bytes.substr(0, 100); }
class BadHello : public testing::TestWithParam<Hello> {};

TEST_P(BadHello, EndsTheSession) {
  CdbdProcess server{{"--max-message", "1"}};
  server.Start();
  auto client = Client::ConnectRaw(server.NetconfSocket());
  ASSERT_TRUE(client.ok());
  // It may be closed while the bytes are on their way.
  (void)client.value().SendBytes(GetParam().bytes, kLimit);
  EXPECT_TRUE(IsClosed(client.value()));
  EXPECT_EQ(server.Connect().Get("<netconf-state xmlns=\"\"><statistics><in-bad-hellos/></statistics></netconf-state>"),
            "<netconf-state xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring\"><statistics><in-bad-hellos>1"
            "</in-bad-hellos></statistics></netconf-state>");
}

INSTANTIATE_TEST_SUITE_P(
    Limits, BadHello,
    testing::Values(Hello{"NoXml", "hello]]>]]>"}, Hello{"AnRpc", kGetAll + "]]>]]>"},
                    Hello{"NoCapabilities", "<hello " + kNc + "/>]]>]]>"},
                    Hello{"NoCommonVersion", "<hello " + kNc +
                                                 "><capabilities><capability>urn:ietf:params:netconf:base:"
                                                 "9.9</capability></capabilities></hello>]]>]]>"},
                    Hello{"ASessionId", "<hello " + kNc +
                                            "><capabilities><capability>urn:ietf:params:netconf:base:1.0"
                                            "</capability></capabilities><session-id>1</session-id></hello>]]>]]>"},
                    Hello{"TooLarge", std::string(2 << 20, ' ')}),
    [](const auto& row) { return row.param.name; });

TEST(Limits, APeerWithoutHelloIsDisconnected) {
  CdbdProcess server{{"--hello-timeout", "0.2"}};
  server.Start();
  auto silent = Client::ConnectRaw(server.NetconfSocket());
  ASSERT_TRUE(silent.ok());
  EXPECT_TRUE(IsClosed(silent.value()));
  EXPECT_TRUE(
      Eventually([&] { return server.Log().find("no hello within the time limit") != std::string::npos; }, kLimit));
  EXPECT_EQ(server.Connect().GetConfig(), "");
}

TEST(Limits, ASessionWithHelloMayBeSilentForLong) {
  CdbdProcess server{{"--hello-timeout", "0.1"}};
  server.Start();
  NetconfClient quiet = server.Connect();
  auto silent = Client::ConnectRaw(server.NetconfSocket());
  ASSERT_TRUE(silent.ok());
  EXPECT_TRUE(IsClosed(silent.value()));  // more than the limit has passed
  EXPECT_EQ(quiet.GetConfig(), "");
}

TEST(Limits, SessionsBeyondTheLimitAreRefusedWithAReason) {
  CdbdProcess server{{"--max-sessions", "2"}};
  server.Start();
  NetconfClient first = server.Connect();
  {
    NetconfClient second = server.Connect();
    auto third = Client::ConnectRaw(server.NetconfSocket());
    ASSERT_TRUE(third.ok());
    EXPECT_EQ(third.value().Hello(kLimit, true).error().Text(), "too many sessions are open: the limit is 2");
    EXPECT_TRUE(IsClosed(third.value()));
    EXPECT_NE(server.Log().find("a connection was refused: there are 2 sessions"), std::string::npos);
    EXPECT_EQ(second.GetConfig(), "");
  }
  EXPECT_TRUE(Eventually([&] { return Client::Connect(server.NetconfSocket(), kLimit).ok(); }, kLimit));
}

struct Framed {
  std::string name;
  std::string bytes;
};
void PrintTo(const Framed& row, std::ostream* out) { *out << row.bytes; }
class BadFraming : public testing::TestWithParam<Framed> {};

TEST_P(BadFraming, EndsTheSessionOnly) {
  CdbdProcess server{{"--max-message", "1"}};
  server.Start();
  NetconfClient other = server.Connect();
  NetconfClient client = server.Connect();
  ASSERT_TRUE(client.raw().SendBytes(GetParam().bytes, kLimit).ok());
  EXPECT_TRUE(IsClosed(client.raw()));
  EXPECT_EQ(other.GetConfig(), "");
}

INSTANTIATE_TEST_SUITE_P(Limits, BadFraming,
                         testing::Values(Framed{"NoChunk", kGetAll + "]]>]]>"}, Framed{"SizeZero", "\n#0\n"},
                                         Framed{"SizeTooLarge", "\n#2000000\n"}, Framed{"NoLineFeed", "\n#4x"},
                                         Framed{"EndWithoutChunk", "\n##\n"}),
                         [](const auto& row) { return row.param.name; });

TEST(Stalls, APeerThatStopsInTheMiddleOfAMessageDelaysNobody) {
  CdbdProcess server;
  server.Start();
  std::vector<NetconfClient> stalled;
  for (const char* part : {"\n", "\n#", "\n#100", "\n#100\n<rpc", "\n#3\n<rp\n#1", "\n#1\n<\n##"}) {
    stalled.push_back(server.Connect());
    ASSERT_TRUE(stalled.back().raw().SendBytes(part, kLimit).ok());
  }
  NetconfClient other = server.Connect();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(IsOk(other.EditConfig(Interfaces({"eth" + std::to_string(i)}))));
}

TEST(Stalls, APeerThatDoesNotReadItsAnswersDelaysNobodyAndIsNotReadForEver) {
  CdbdProcess server{{"--max-unsent", "64"}};
  server.Start();
  NetconfClient other = server.Connect();
  std::string many;
  for (int i = 0; i < 3000; ++i)
    many += "<interface><interface-name>eth" + std::to_string(i) + "</interface-name></interface>";
  ASSERT_TRUE(IsOk(other.EditConfig(AntiSpoofing(many))));
  const std::string all = other.GetConfig();
  ASSERT_GT(all.size(), 150000U);

  NetconfClient deaf = server.Connect();
  std::string request;
  netconf::AppendFrame(netconf::Framing::kChunked, kGetAll, &request);
  // The socket takes what nobody reads at the other end only up to a point.
  std::string requests;
  for (int i = 0; i < 20000; ++i) requests += request;
  ASSERT_FALSE(deaf.raw().SendBytes(requests, std::chrono::milliseconds{500}).ok());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(other.GetConfig(), all);
  // What is sent to it and not read holds the next requests up.
  const std::string state = other.Get("<netconf-state xmlns=\"\"><sessions/></netconf-state>");
  const size_t session = state.find("<session-id>" + deaf.raw().session_id() + "<");
  ASSERT_NE(session, std::string::npos) << state;
  const size_t counter = state.find("<in-rpcs>", session);
  ASSERT_NE(counter, std::string::npos) << state;
  EXPECT_LT(std::stoi(state.substr(counter + std::string{"<in-rpcs>"}.size())), 10);
  // It gets the answers when it reads after all, whole and in order.
  for (int i = 0; i < 50; ++i) {
    const auto reply = deaf.raw().Receive(kLimit);
    ASSERT_TRUE(reply.ok());
    ASSERT_EQ(Inside(reply.value()), "<data>" + all + "</data>");
  }
}

TEST(Stalls, APeerThatGoesAwayInTheMiddleOfAnythingLeavesNothingBehind) {
  CdbdProcess server{{"--max-sessions", "4"}};
  server.Start();
  std::string framed;
  netconf::AppendFrame(netconf::Framing::kChunked, kGetAll, &framed);
  for (size_t cut = 0; cut <= framed.size(); cut += 3) {
    NetconfClient client = server.Connect();
    ASSERT_TRUE(client.raw().SendBytes(framed.substr(0, cut), kLimit).ok());
  }
  EXPECT_TRUE(Eventually(
      [&] {
        const std::string sessions = server.Connect().Get("<netconf-state xmlns=\"\"><sessions/></netconf-state>");
        return sessions.find("<session>") == sessions.rfind("<session>");
      },
      kLimit));
}

TEST(Stalls, AClosedSessionStillGetsTheAnswersBefore) {
  CdbdProcess server;
  server.Start();
  NetconfClient client = server.Connect();
  std::string many;
  for (int i = 0; i < 10000; ++i)
    many += "<interface><interface-name>eth" + std::to_string(i) + "</interface-name></interface>";
  ASSERT_TRUE(IsOk(client.EditConfig(AntiSpoofing(many))));
  const std::string all = client.GetConfig();
  std::string requests;
  netconf::AppendFrame(netconf::Framing::kChunked, kGetAll, &requests);
  netconf::AppendFrame(netconf::Framing::kChunked, "<rpc message-id=\"2\" " + kNc + "><close-session/></rpc>",
                       &requests);
  ASSERT_TRUE(client.raw().SendBytes(requests, kLimit).ok());
  const auto reply = client.raw().Receive(kLimit);
  ASSERT_TRUE(reply.ok()) << reply.error().Text();
  EXPECT_EQ(Inside(reply.value()), "<data>" + all + "</data>");
  const auto closed = client.raw().Receive(kLimit);
  ASSERT_TRUE(closed.ok()) << closed.error().Text();
  EXPECT_EQ(Inside(closed.value()), "<ok/>");
}

TEST(Stalls, AHalfClosedPeerStillGetsItsAnswers) {
  CdbdProcess server;
  server.Start();
  NetconfClient client = server.Connect();
  ASSERT_TRUE(client.raw().Send(kGetAll, kLimit).ok());
  ASSERT_EQ(::shutdown(client.raw().fd(), SHUT_WR), 0);
  const auto reply = client.raw().Receive(kLimit);
  ASSERT_TRUE(reply.ok()) << reply.error().Text();
  EXPECT_EQ(Inside(reply.value()), "<data></data>");
  EXPECT_TRUE(IsClosed(client.raw()));
}

}  // namespace
}  // namespace cdbd::test
