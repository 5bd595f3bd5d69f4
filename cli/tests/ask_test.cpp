// What becomes of each kind of answer, over a real socket.
#include "ask.h"

#include <gtest/gtest.h>

#include "fake_element.h"

namespace cli {
namespace {

class Notes final : public DataReader {
 public:
  void OnStart(size_t /*level*/, const netconf::XmlName& name) override { text += "<" + std::string{name.local}; }
  void OnEnd(size_t /*level*/, const netconf::XmlName& /*name*/, std::string_view content) override {
    text += ">" + std::string{content};
  }
  void OnComplete() override { text += " complete"; }
  std::string text;
};

struct Answered {
  std::string name;
  std::string answer;  ///< bytes after the request
  ExitStatus status;
  std::string told;
  std::string complaint;  ///< on standard error, without the program's name
};
void PrintTo(const Answered& row, std::ostream* out) { *out << row.name; }
class AskForDataTest : public testing::TestWithParam<Answered> {};

TEST_P(AskForDataTest, HandsOnTheDataOrComplains) {
  const FakeElement element{GetParam().answer};
  Notes notes;
  testing::internal::CaptureStderr();
  const ExitStatus status = AskForData({element.path(), "", std::chrono::seconds{20}}, "<get/>", notes);
  const std::string complaint = testing::internal::GetCapturedStderr();
  EXPECT_EQ(status, GetParam().status);
  EXPECT_EQ(notes.text, GetParam().told);
  EXPECT_EQ(complaint, GetParam().complaint.empty() ? "" : "ip-spoofing-cli: " + GetParam().complaint + "\n");
}

std::string Chunked(const std::string& content) { return Framed(netconf::Framing::kChunked, Reply(content)); }
std::string RpcError(const std::string& severity) {
  return "<rpc-error><error-type>protocol</error-type><error-tag>in-use</error-tag><error-severity>" + severity +
         "</error-severity><error-message>why</error-message></rpc-error>";
}

INSTANTIATE_TEST_SUITE_P(
    Answers, AskForDataTest,
    testing::Values(Answered{"Data", Chunked("<data><a>1</a></data>"), kDone, "<a>1 complete", ""},
                    Answered{"NoRow", Chunked("<data/>"), kDone, " complete", ""},
                    Answered{"AnError", Chunked(RpcError("error")), kRefused, "", "why"},
                    Answered{"AWarningBesideData", Chunked(RpcError("warning") + "<data><a/></data>"), kDone,
                             "<a> complete", "warning: why"},
                    Answered{"NeitherDataNorError", Chunked("<ok/>"), kUnreachable, "",
                             "the element's answer has no data"},
                    Answered{"NotXml", Framed(netconf::Framing::kChunked, "<rpc-reply>\n<a></b>"), kUnreachable, "",
                             "the element's answer is not XML: parse XML: mismatched tag"},
                    Answered{"CutShort", Framed(netconf::Framing::kChunked, Reply("<data><a>1</a>").substr(0, 92)),
                             kUnreachable, "<a>1", "the element's answer is not XML: parse XML: unclosed token"},
                    Answered{"TheConnectionEnds", "\n#20\n<rpc-reply>", kUnreachable, "",
                             "no answer from the element: receive: the peer closed the connection"},
                    Answered{"BadFraming", "<rpc-reply/>", kUnreachable, "",
                             "no answer from the element: receive: a chunk must start with a line feed and '#'"}),
    [](const auto& row) { return row.param.name; });

struct Greeted {
  std::string name;
  std::string hello;  ///< bytes in place of a hello
  std::string complaint;
};
void PrintTo(const Greeted& row, std::ostream* out) { *out << row.name; }
class NoSessionTest : public testing::TestWithParam<Greeted> {};

TEST_P(NoSessionTest, IsExplained) {
  const FakeElement element{"", GetParam().hello};
  testing::internal::CaptureStderr();
  const Answer answer = Ask({element.path(), "", std::chrono::seconds{20}}, "<get/>");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ip-spoofing-cli: cannot open a session with the element: " + GetParam().complaint + "\n");
  EXPECT_EQ(answer.status, kUnreachable);
  EXPECT_EQ(answer.reply, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Greetings, NoSessionTest,
    testing::Values(Greeted{"ARefusal",
                            Framed(netconf::Framing::kEndOfMessage,
                                   Reply("<rpc-error><error-message>too many</error-message></rpc-error>")),
                            "too many"},
                    Greeted{"ARefusalWithoutWords", Framed(netconf::Framing::kEndOfMessage, Reply("<rpc-error/>")),
                            "refused by the server"},
                    Greeted{"AnotherMessage", Framed(netconf::Framing::kEndOfMessage, Reply("<ok/>")),
                            "hello: the server sent no hello"}),
    [](const auto& row) { return row.param.name; });

TEST(Ask, AnElementThatIsDownIsExplained) {
  const test::TempDir folder;
  testing::internal::CaptureStderr();
  const Answer answer = Ask({folder.path() + "/none.sock", "", std::chrono::seconds{1}}, "<get/>");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ip-spoofing-cli: cannot open a session with the element: connect " + folder.path() +
                "/none.sock: No such file or directory\n");
  EXPECT_EQ(answer.status, kUnreachable);
}

}  // namespace
}  // namespace cli
