/// A part of the element dies, stands still or fails at each step of a commit's delivery. Whatever happens, the manager
/// ends up with the configuration, the author of the commit is told, and later commits work.
#include <gmock/gmock.h>

#include "support/element/checks.h"
#include "support/element/expected_requests.h"
#include "support/netconf_client.h"

namespace test {
namespace {

using testing::HasSubstr;
using testing::Not;

Configuration Before() {
  Configuration configuration;
  configuration["sp1"].sources = {{{0x0a000001, 0}, ""}, {{0x0a000002, 100}, "02:00:00:00:00:02"}};
  configuration["sp2"].ipv6_all = true;
  configuration["sp2"].sources = {{{0x0a000003, 0}, "02:00:00:00:00:03"}};
  configuration["sp3"].sources = {{{0x0a000004, 7}, ""}};
  return configuration;
}

/// Something of every kind has changed.
Configuration After() {
  Configuration configuration = Before();
  configuration.erase("sp2");
  configuration["sp1"].ipv4_all = true;
  configuration["sp1"].sources = {{{0x0a000001, 0}, "02:00:00:00:00:01"}};
  configuration["sp4"].sources = {{{0x0a000005, 0}, ""}};
  return configuration;
}

int LoadSteps() { return static_cast<int>(RequestsOfLoad(Before()).size()); }
/// Every request, and an acknowledgement for each of the two subscriptions.
int CommitSteps() { return static_cast<int>(RequestsOf(Before(), After()).size()) + 2; }

/// The parameter is the step of the commit before which the daemon stands still, from 1; 0: before it reads the
/// message.
class Delivery : public testing::TestWithParam<int> {
 protected:
  void StartElement(const std::vector<std::string>& cdbd_options = {}) {
    element_.Start(Part::kCdbd, cdbd_options);
    CommitInPlace(element_, Before());
    element_.ProbeRequests(element_.File("requests"));
    if (GetParam() > 0) element_.StopDaemonAt(LoadSteps() + GetParam());
    element_.StartAll();
    ExpectManagerHolds(element_, Before());
    element_.StopDaemonAt(0);  // the daemons after this one
  }

  /// Commits After() in a session of its own, and returns while its delivery stands still.
  void BeginCommit() {
    if (GetParam() == 0) element_.Pause(Part::kDaemon);
    author_ = std::make_unique<NetconfClient>(element_.NetconfSocket());
    const std::string message =
        "<rpc message-id=\"7\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">"
        "<edit-config><target><running/></target><default-operation>replace"
        "</default-operation><config>" +
        ToXml(After()) + "</config></edit-config></rpc>";
    ASSERT_TRUE(author_->raw().Send(message, NetconfClient::kLimit).ok());
    ASSERT_TRUE(element_.WaitForPause(Part::kDaemon));
    NetconfClient reader{element_.NetconfSocket()};
    EXPECT_TRUE(Eventually([&] { return reader.GetConfig().find("sp4") != std::string::npos; }, Element::kLimit));
  }

  /// The answer to BeginCommit().
  std::string Answer() {
    auto answer = author_->raw().Receive(NetconfClient::kLimit);
    return answer.ok() ? answer.value() : "no answer: " + answer.error().Text();
  }

  void ExpectLaterCommitsWork() {
    CommitInPlace(element_, Before());
    ExpectManagerHolds(element_, Before());
  }

  Element element_;
  std::unique_ptr<NetconfClient> author_;
};

std::string StepName(const testing::TestParamInfo<int>& row) {
  return row.param == 0 ? "BeforeTheMessage" : "BeforeStep" + std::to_string(row.param);
}

TEST_P(Delivery, ToADaemonThatIsKilledIsReportedAndMadeUpForByTheNext) {
  StartElement();
  BeginCommit();
  element_.Kill(Part::kDaemon);
  const std::string answer = Answer();
  EXPECT_TRUE(IsOk(answer)) << answer;
  EXPECT_THAT(answer, HasSubstr("<error-severity>warning</error-severity>"));
  EXPECT_THAT(answer, HasSubstr("ip-spoofing-app"));
  element_.Start(Part::kDaemon);
  ExpectManagerHolds(element_, After());
  ExpectLaterCommitsWork();
}

TEST_P(Delivery, GoesOnWhenTheDaemonDoesAndHoldsUpNoReader) {
  StartElement();
  BeginCommit();
  NetconfClient reader{element_.NetconfSocket()};
  EXPECT_THAT(reader.GetConfig(), HasSubstr("sp4"));
  element_.Resume(Part::kDaemon);
  const std::string answer = Answer();
  EXPECT_TRUE(IsOk(answer)) << answer;
  EXPECT_THAT(answer, Not(HasSubstr("rpc-error")));
  ExpectManagerHolds(element_, After());
  ExpectLaterCommitsWork();
}

TEST_P(Delivery, ToADaemonThatStandsStillTooLongIsGivenUpAndMadeUpForLater) {
  StartElement({"--subscriber-timeout", "0.2"});
  BeginCommit();
  const std::string answer = Answer();
  EXPECT_TRUE(IsOk(answer)) << answer;
  EXPECT_THAT(answer, HasSubstr("<error-severity>warning</error-severity>"));
  EXPECT_THAT(answer, HasSubstr("ip-spoofing-app"));
  Commit(element_, ToXml(After()));
  element_.Resume(Part::kDaemon);
  ExpectManagerHolds(element_, After());
  EXPECT_TRUE(element_.Running(Part::kDaemon));
  ExpectLaterCommitsWork();
}

TEST_P(Delivery, IsMadeUpForWhenTheDatabaseServerIsKilled) {
  StartElement();
  BeginCommit();
  element_.Kill(Part::kCdbd);
  EXPECT_THAT(Answer(), HasSubstr("no answer"));
  element_.Start(Part::kCdbd);
  ASSERT_TRUE(element_.WaitForSocket(Part::kCdbd));
  element_.Resume(Part::kDaemon);
  ExpectManagerHolds(element_, After());
  EXPECT_TRUE(element_.Running(Part::kDaemon));
  ExpectLaterCommitsWork();
}

TEST_P(Delivery, ReachesAManagerThatWasKilledMeanwhile) {
  StartElement();
  BeginCommit();
  element_.Kill(Part::kManager);
  element_.Resume(Part::kDaemon);
  const std::string answer = Answer();
  EXPECT_TRUE(IsOk(answer)) << answer;
  EXPECT_THAT(answer, Not(HasSubstr("rpc-error")));
  element_.Start(Part::kManager);
  ExpectManagerHolds(element_, After());
  ExpectLaterCommitsWork();
}

INSTANTIATE_TEST_SUITE_P(Steps, Delivery, testing::Range(0, CommitSteps() + 1), StepName);

/// The number of the walk that fails: each of the two subscriptions has one for deletions and one for the rest.
class FailedWalk : public testing::TestWithParam<int> {};

TEST_P(FailedWalk, IsReportedAndMadeUpFor) {
  Element element;
  element.Start(Part::kCdbd, {"--subscriber-timeout", "0.2"});
  CommitInPlace(element, Before());
  element.ProbeRequests(element.File("requests"));
  element.FailWalk(GetParam());
  element.StartAll();
  ExpectManagerHolds(element, Before());
  NetconfClient client{element.NetconfSocket()};
  const std::string answer = client.EditConfig(ToXml(After()), "<default-operation>replace</default-operation>");
  EXPECT_TRUE(IsOk(answer)) << answer;
  EXPECT_THAT(answer, HasSubstr("ip-spoofing-app"));
  ExpectManagerHolds(element, After());
  CommitInPlace(element, Before());
  ExpectManagerHolds(element, Before());
}

INSTANTIATE_TEST_SUITE_P(CreateAndEdit, FailedWalk, testing::Values(2, 4), testing::PrintToStringParamName());

TEST(Commit, WithNobodySubscribedIsAcceptedWithAWarning) {
  Element element;
  element.Start(Part::kCdbd);
  NetconfClient client{element.NetconfSocket()};
  const std::string answer = client.EditConfig(ToXml(Before()));
  EXPECT_TRUE(IsOk(answer)) << answer;
  EXPECT_THAT(answer, HasSubstr("<error-severity>warning</error-severity>"));
}

}  // namespace
}  // namespace test
