// Readings of one list at the same time: a provider may keep one list for all, so they take turns.
#include <memory>

#include "provider_fixture.h"

namespace cdbd::test {
namespace {

using testing::HasSubstr;

const std::string kGet = "<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><get><filter>" +
                         std::string{kFilter} + "</filter></get></rpc>";
const std::vector<Values> kRows{Row("eth0", 1), Row("eth1", 2)};
const std::string kWhole = kOpen + RowText(0, "eth0", 1) + RowText(1, "eth1", 2) + kClose;

class Turns : public OneProvider {
 protected:
  explicit Turns(const std::vector<std::string>& options = {}) : OneProvider{options} {}
  /// Begins a reading in a session of its own; returns when the server has read the request.
  NetconfClient Begin() {
    NetconfClient reader = server.Connect();
    EXPECT_TRUE(reader.raw().Send(kGet, NetconfClient::kLimit).ok());
    server.Connect().GetConfig();  // a later session: it is read after this one
    return reader;
  }
  /// What is inside <data>, or the whole reply.
  static std::string Reply(NetconfClient& reader) {
    const auto reply = reader.raw().Receive(NetconfClient::kLimit);
    if (!reply.ok()) return reply.error().Text();
    const size_t begin = reply.value().find("<data>");
    if (begin == std::string::npos) return reply.value();
    return reply.value().substr(begin + 6, reply.value().rfind("</data>") - begin - 6);
  }
};
class ImpatientTurns : public Turns {
 protected:
  ImpatientTurns() : Turns{{"--provider-timeout", "0.4"}} {}
};

TEST_F(Turns, ServesFourReadersOneAfterTheOther) {
  std::vector<NetconfClient> readers;
  for (int i = 0; i < 4; ++i) readers.push_back(Begin());
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(provider.Accept(), i + 1);
    EXPECT_TRUE(provider.control.Quiet());
    provider.ServeRows(kRows);
    EXPECT_EQ(Reply(readers[static_cast<size_t>(i)]), kWhole);
  }
  EXPECT_TRUE(provider.control.Quiet());
}

TEST_F(Turns, PassesOverAReaderThatLeft) {
  NetconfClient first = Begin();
  ASSERT_EQ(provider.Accept(), 1);
  { const NetconfClient left = Begin(); }
  ASSERT_TRUE(
      Eventually([&] { return server.Log().find("session 3 ended") != std::string::npos; }, NetconfClient::kLimit));
  NetconfClient last = Begin();
  provider.ServeRows(kRows);
  EXPECT_EQ(Reply(first), kWhole);
  EXPECT_EQ(provider.Accept(), 2);
  provider.ServeRows(kRows);
  EXPECT_EQ(Reply(last), kWhole);
  EXPECT_TRUE(provider.control.Quiet());
}

TEST_F(Turns, IsFreeAgainWhenAllWaitingReadersLeft) {
  NetconfClient first = Begin();
  ASSERT_EQ(provider.Accept(), 1);
  { const NetconfClient left = Begin(); }
  ASSERT_TRUE(
      Eventually([&] { return server.Log().find("session 3 ended") != std::string::npos; }, NetconfClient::kLimit));
  provider.ServeRows(kRows);
  EXPECT_EQ(Reply(first), kWhole);
  NetconfClient later = Begin();
  EXPECT_EQ(provider.Accept(), 2);
  provider.ServeRows(kRows);
  EXPECT_EQ(Reply(later), kWhole);
}

TEST_F(Turns, GivesAllReadersTheProvidersError) {
  NetconfClient first = Begin();
  NetconfClient second = Begin();
  ASSERT_EQ(provider.Accept(), 1);
  provider.control.Disconnect();
  for (NetconfClient* reader : {&first, &second})
    EXPECT_THAT(Reply(*reader), HasSubstr("callpoint 'show-allowed-ip': " + kWho + " disconnected"));
}

TEST_F(Turns, OfAnotherProviderAreItsOwn) {
  NetconfClient first = Begin();
  ASSERT_EQ(provider.Accept(), 1);
  Provider later{server, "later"};
  ASSERT_EQ(later.Register(), "");
  NetconfClient second = Begin();
  EXPECT_EQ(later.Accept(), 2);
  later.ServeRows(kRows);
  EXPECT_EQ(Reply(second), kWhole);
  provider.ServeRows({});
  EXPECT_EQ(Reply(first), "");
}

TEST_F(ImpatientTurns, EachFailsWhenTheProviderNeverAnswers) {
  std::vector<NetconfClient> readers;
  for (int i = 0; i < 3; ++i) readers.push_back(Begin());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(provider.Accept(), i + 1);
    EXPECT_THAT(Reply(readers[static_cast<size_t>(i)]),
                HasSubstr("callpoint 'show-allowed-ip': " + kWho + " did not answer within 0.4 s"));
  }
}

TEST_F(ImpatientTurns, TimeLimitStartsWithTheTurn) {
  NetconfClient first = Begin();
  NetconfClient second = Begin();
  ASSERT_EQ(provider.Accept(), 1);
  EXPECT_THAT(Reply(first), HasSubstr("did not answer within 0.4 s"));
  while (const auto message = provider.worker.ReceiveBytes())  // what was asked for in the first turn
    if (confd_wire::Decode<confd_wire::TransFinish>(*message)) break;
  ASSERT_EQ(provider.Accept(), 2);
  provider.ServeRows(kRows);
  EXPECT_EQ(Reply(second), kWhole);
}

}  // namespace
}  // namespace cdbd::test
