// Loading a file into an element that answers as the test says.
#include "load.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "common/paths.h"
#include "fake_element.h"

namespace cli {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr const char* kOneSource =
    "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\">\n<anti-ip-spoofing>\n"
    "<interface><interface-name>eth1</interface-name><allowed-ip>\n"
    "<ipv4><address>10.0.0.1</address><vlan>0</vlan></ipv4>\n"
    "</allowed-ip></interface></anti-ip-spoofing></config>";

class LoadTest : public testing::Test {
 protected:
  struct Outcome {
    ExitStatus status;
    std::string request;
    std::string output;
    std::string complaints;
  };
  /// Loads a file with `text` into an element that answers with `content` in an <rpc-reply>.
  Outcome Run(const std::string& text, const std::string& content, LoadMode mode = LoadMode::kMerge,
              const std::optional<std::string>& comment = std::nullopt,
              Progress::Show progress = Progress::Show::kNever) {
    std::ofstream{file_} << text;
    FakeElement element{Framed(netconf::Framing::kChunked, Reply(content))};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const ExitStatus status =
        Load({element.path(), common::ModelsDir(), std::chrono::seconds{20}}, file_, mode, comment, progress);
    std::fflush(stdout);
    return {status, element.Request(), testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
  }
  static std::string Error(const std::string& severity, const std::string& path) {
    return "<rpc-error><error-type>application</error-type><error-tag>t</error-tag><error-severity>" + severity +
           "</error-severity><error-path>" + path + "</error-path><error-message>why</error-message></rpc-error>";
  }

  const test::TempDir folder_;
  const std::string file_ = folder_.path() + "/config.xml";
};

TEST_F(LoadTest, SendsOneEditOfRunning) {
  const Outcome done = Run(kOneSource, "<ok/>");
  EXPECT_EQ(done.status, kDone);
  EXPECT_EQ(done.complaints, "");
  EXPECT_THAT(done.output, MatchesRegex("/.*/config.xml: 2 list entries merged into the configuration in [0-9.]+ s\n"));
  EXPECT_THAT(done.request,
              EndsWith("<edit-config><target><running/></target><default-operation>merge</default-operation>"
                       "<error-option>rollback-on-error</error-option>"
                       "<nc:config xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns=\"\">" +
                       std::string{kOneSource} + "</nc:config></edit-config></rpc>\n##\n"));
}

TEST_F(LoadTest, SendsModeAndComment) {
  const Outcome done = Run(kOneSource, "<ok/>", LoadMode::kReplace, "a<b");
  EXPECT_THAT(done.output, HasSubstr("2 list entries put in place of the configuration in "));
  EXPECT_THAT(done.request, HasSubstr("<default-operation>replace</default-operation>"));
  EXPECT_THAT(done.request, HasSubstr("</nc:config><comment xmlns=\"urn:ip-spoofing:cdb-monitor\">a&lt;b</comment>"
                                      "</edit-config>"));
}

TEST_F(LoadTest, ShowsProgressOnDemand) {
  EXPECT_THAT(Run(kOneSource, "<ok/>", LoadMode::kMerge, std::nullopt, Progress::Show::kAlways).complaints,
              MatchesRegex("checking /.*/config.xml\n(.|\n)*committing 2 list entries\n"));
}

TEST_F(LoadTest, ARefusalNamesTheLine) {
  const Outcome refused =
      Run(kOneSource, Error("error",
                            "/ais:config/ais:anti-ip-spoofing/ais:interface[ais:interface-name='eth1']/"
                            "ais:allowed-ip/ais:ipv4[ais:address='10.0.0.1'][ais:vlan='0']"));
  EXPECT_EQ(refused.status, kRefused);
  EXPECT_EQ(refused.output, "");
  EXPECT_THAT(refused.complaints, HasSubstr("ip-spoofing-cli: " + file_ + ":4: /ais:config/"));
  EXPECT_THAT(refused.complaints, EndsWith(": why\n"));
}

TEST_F(LoadTest, AWarningIsTold) {
  const Outcome done = Run(kOneSource, Error("warning", "/ais:config/ais:anti-ip-spoofing"));
  EXPECT_EQ(done.status, kDone);
  EXPECT_EQ(done.complaints, "ip-spoofing-cli: " + file_ + ":2: warning: /ais:config/ais:anti-ip-spoofing: why\n");
}

TEST_F(LoadTest, ARefusedBadFileIsTheFilesFault) {
  std::string text = kOneSource;
  text.replace(text.find("10.0.0.1"), 8, "10.0.0.300");
  const Outcome refused = Run(text, Error("error", ""));
  EXPECT_EQ(refused.status, kBadFile);
  EXPECT_EQ(
      refused.complaints,
      "ip-spoofing-cli: " + file_ +
          ":4: /anti-ip-spoofing:config/anti-ip-spoofing/interface[interface-name='eth1']/allowed-ip/ipv4/address: "
          "an IPv4 address is four numbers 0 to 255 separated by dots\n");
}

TEST(Load, AFileThatIsNotXmlIsNotSent) {
  const test::TempDir folder;
  std::ofstream{folder.path() + "/x"} << "eth1";
  testing::internal::CaptureStderr();
  EXPECT_EQ(Load({folder.path() + "/none.sock", common::ModelsDir(), std::chrono::seconds{1}}, folder.path() + "/x",
                 LoadMode::kMerge, std::nullopt, Progress::Show::kNever),
            kBadFile);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ip-spoofing-cli: " + folder.path() + "/x:1: syntax error\n");
}

}  // namespace
}  // namespace cli
