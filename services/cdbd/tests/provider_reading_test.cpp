// How a provider is asked for its list, page by page, and what the server makes of its answers.
#include "provider_fixture.h"

namespace cdbd::test {
namespace {

using testing::HasSubstr;

/// What is said on the worker connection, packet by packet. "< rows 3": the server asks for the rows from position 3
/// on; "< finish". "> 3,4 next 5", "> 3 end", "> next 3": a page; "> again ...": the page as an answer to the request
/// before; "> error": the provider fails; "died": it goes.
struct Course {
  std::string name;
  std::vector<std::string> packets;
  std::string reply;  ///< numbers of the rows in the reply, one digit each, or a part of the error
};

class Conversation final {
 public:
  explicit Conversation(Provider& provider) : provider_{provider} {}

  /// What the server's next packet says.
  std::string Hear() {
    const std::string message = provider_.worker.ReceiveBytes().value_or("");
    if (const auto rows = confd_wire::Decode<ReadRows>(message)) {
      before_ = std::exchange(request_, rows->request);
      return "< rows " + std::to_string(rows->from);
    }
    return confd_wire::Decode<confd_wire::TransFinish>(message) ? "< finish" : "< something else";
  }
  void Say(std::string answer) {
    const bool again = answer.starts_with("> again ");
    answer.erase(0, again ? 8 : 2);
    confd_wire::Rows page;
    page.request = again ? before_ : request_;
    if (answer == "error") return provider_.worker.Send(confd_wire::ReadFailed{page.request, "no such luck"});
    page.end = answer.ends_with("end");
    if (const size_t next = answer.find("next "); next != std::string::npos) page.next = answer[next + 5] - '0';
    for (size_t at = 0; at < answer.size() && answer[at] >= '0' && answer[at] <= '9'; at += 2)
      page.rows.push_back({Key(answer[at] - '0'), Row("eth0", static_cast<char>(answer[at] - '0'))});
    provider_.worker.Send(page);
  }

 private:
  Provider& provider_;
  uint64_t request_ = 0;
  uint64_t before_ = 0;
};

class ProviderCourse : public OneProvider, public testing::WithParamInterface<Course> {};

TEST_P(ProviderCourse, GoesLikeThis) {
  PendingGet get{server, kFilter};
  provider.Accept();
  Conversation conversation{provider};
  for (const std::string& packet : GetParam().packets) {
    if (packet == "died") {
      provider.worker.Disconnect();
    } else if (packet[0] == '>') {
      conversation.Say(packet);
    } else {
      ASSERT_EQ(conversation.Hear(), packet);
    }
  }
  const std::string& wanted = GetParam().reply;
  std::string rows;
  for (const char row : wanted) rows += RowText(row - '0', "eth0", row - '0');
  if (wanted.find_first_not_of("0123456789") != std::string::npos)
    EXPECT_THAT(get.Reply(), HasSubstr("callpoint 'show-allowed-ip': " + wanted));
  else
    EXPECT_EQ(get.Reply(), wanted.empty() ? "" : kOpen + rows + kClose);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ProviderCourse,
    testing::Values(
        Course{"EmptyList", {"< rows -1", "> end", "< finish"}, ""},
        Course{"OnePage", {"< rows -1", "> 0,1,2 end", "< finish"}, "012"},
        Course{"SeveralPages",
               {"< rows -1", "> 0,1 next 2", "< rows 2", "> 2 next 5", "< rows 5", "> 5 end", "< finish"},
               "0125"},
        Course{"EmptyPageThenRows", {"< rows -1", "> next 0", "< rows 0", "> 0 end", "< finish"}, "0"},
        Course{"EndWithoutRows", {"< rows -1", "> 0 next 1", "< rows 1", "> end", "< finish"}, "0"},
        Course{"AnswerGivenTwice",
               {"< rows -1", "> 0 next 1", "< rows 1", "> again 0 next 1", "> 1 end", "< finish"},
               "01"},
        Course{"ErrorAtOnce", {"< rows -1", "> error", "< finish"}, "no such luck"},
        Course{"ErrorAfterRows", {"< rows -1", "> 0 next 1", "< rows 1", "> error", "< finish"}, "no such luck"},
        Course{"AnswerAfterError", {"< rows -1", "> error", "< finish", "> 0 end"}, "no such luck"},
        Course{"DyingAtOnce", {"< rows -1", "died"}, kWho},
        Course{"DyingAfterRows", {"< rows -1", "> 0 next 1", "< rows 1", "died"}, kWho}),
    [](const auto& row) { return row.param.name; });

TEST_F(OneProvider, MalformedAnswerEndsTheConnection) {
  PendingGet get{server, kFilter};
  provider.Accept();
  std::string packet = confd_wire::Encode(confd_wire::Rows{provider.Asked().request, {}, true, -1});
  packet.pop_back();
  provider.worker.SendBytes(packet);
  EXPECT_THAT(get.Reply(), HasSubstr(kWho));
  EXPECT_TRUE(provider.worker.Closed());
}

/// Sends a reading and goes away; returns when the server has noticed.
class LeavingReader : public OneProvider {
 protected:
  void AskAndLeave(const std::function<void()>& meanwhile) {
    {
      NetconfClient reader = server.Connect();
      ASSERT_TRUE(reader.raw()
                      .Send("<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><get><filter>" +
                                std::string{kFilter} + "</filter></get></rpc>",
                            NetconfClient::kLimit)
                      .ok());
      meanwhile();
    }
    ASSERT_TRUE(
        Eventually([&] { return server.Log().find("session 1 ended") != std::string::npos; }, NetconfClient::kLimit));
  }
};

TEST_F(LeavingReader, EndsTheTransaction) {
  AskAndLeave([&] { provider.Accept(); });
  provider.Answer(provider.Asked().request, 0, {Row("eth0", 1)}, false);
  EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
}

TEST_F(LeavingReader, EndsTheTransactionInMidList) {
  ReadRows second;
  AskAndLeave([&] {
    provider.Accept();
    provider.Answer(provider.Asked().request, 0, {Row("eth0", 1)}, false);
    second = provider.Asked();
  });
  provider.Answer(second.request, 1, {Row("eth0", 2)}, false);
  EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
  provider.Answer(second.request, 1, {Row("eth0", 2)}, false);  // no reading waits for it
  PendingGet again{server, kFilter};
  provider.Serve({Row("eth0", 2)});
  EXPECT_EQ(again.Reply(), kOpen + RowText(0, "eth0", 2) + kClose);
}

}  // namespace
}  // namespace cdbd::test
