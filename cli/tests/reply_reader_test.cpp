#include "reply_reader.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

/// Notes what it is told.
class Notes final : public DataReader {
 public:
  void OnStart(size_t level, const netconf::XmlName& name) override {
    text += std::to_string(level) + "<" + std::string{name.local};
  }
  void OnEnd(size_t level, const netconf::XmlName& name, std::string_view content) override {
    text += ">" + std::string{content} + "</" + std::string{name.local} + std::to_string(level);
  }
  void OnComplete() override {}
  std::string text;
};

class ReplyReaderTest : public testing::Test {
 protected:
  void Read(const std::string& content) {
    const std::string reply = "<rpc-reply xmlns=\"" + std::string{netconf::kBaseNs} + "\">" + content + "</rpc-reply>";
    ASSERT_TRUE(xml_.Add(reply).ok());
    ASSERT_TRUE(xml_.Finish().ok());
  }
  Notes notes_;
  ReplyReader reply_{notes_};
  netconf::XmlReader xml_{reply_};
};

TEST_F(ReplyReaderTest, HandsOnWhatIsInTheData) {
  Read("<data>\n <a xmlns=\"u\"><b> 1\n</b><c/></a></data>");
  EXPECT_EQ(notes_.text, "1<a2<b>1</b22<c></c2></a1");
  EXPECT_TRUE(reply_.has_data());
  EXPECT_TRUE(reply_.errors().empty());
}

TEST_F(ReplyReaderTest, KeepsErrorsAndWarnings) {
  Read(
      "<rpc-error><error-type>rpc</error-type><error-tag>in-use</error-tag><error-severity>error</error-severity>"
      "<error-path>/a</error-path><error-message>why\n</error-message><error-info><error-tag>x</error-tag></error-info>"
      "</rpc-error><rpc-error><error-severity>warning</error-severity><error-tag>t</error-tag></rpc-error>");
  ASSERT_EQ(reply_.errors().size(), 2U);
  EXPECT_EQ(reply_.errors()[0].Text(), "/a: why");
  EXPECT_EQ(reply_.errors()[0].tag, "in-use");
  EXPECT_FALSE(reply_.errors()[0].warning);
  EXPECT_EQ(reply_.errors()[1].Text(), "t");
  EXPECT_TRUE(reply_.errors()[1].warning);
  EXPECT_FALSE(reply_.has_data());
  EXPECT_EQ(notes_.text, "");
}

TEST_F(ReplyReaderTest, OtherElementsAreNotData) {
  Read("<ok/><data xmlns=\"urn:other\"><a/></data>");
  EXPECT_FALSE(reply_.has_data());
  EXPECT_EQ(notes_.text, "");
}

}  // namespace
}  // namespace cli
