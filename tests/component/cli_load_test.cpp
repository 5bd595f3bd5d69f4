/// The operator's command line against a running element.
#include <gmock/gmock.h>

#include <fstream>
#include <optional>

#include "netconf/client.h"
#include "support/element/checks.h"

namespace test {
namespace {

using testing::HasSubstr;

class CliLoad : public testing::Test {
 protected:
  CliLoad() {
    element_.StartAll();
    // A commit without a subscriber is accepted with a warning, which these tests do not want to see.
    EXPECT_TRUE(element_.WaitForLog(Part::kDaemon, "Register ConfD Subscription OK"));
  }
  [[nodiscard]] std::string Write(const std::string& text) const {
    std::ofstream{element_.File("config.xml")} << text;
    return element_.File("config.xml");
  }
  Element element_;
};

Configuration One(const std::string& name) {
  Configuration configuration;
  configuration[name].sources = {{{0x0a000001, 7}, "02:00:00:00:00:01"}};
  return configuration;
}

TEST_F(CliLoad, MergesByDefault) {
  const Finished first = element_.Cli({"load", Write(ToXml(One("eth1")))});
  EXPECT_EQ(first.status, 0) << first.log;
  EXPECT_THAT(first.output, HasSubstr("config.xml: 2 list entries merged into the configuration in "));
  EXPECT_EQ(first.log, "");
  EXPECT_EQ(element_.Cli({"load", Write(ToXml(One("eth2")))}).status, 0);
  Configuration both = One("eth1");
  both.merge(One("eth2"));
  ExpectManagerHolds(element_, both);
}

TEST_F(CliLoad, ReplacesOnDemand) {
  EXPECT_EQ(element_.Cli({"load", Write(ToXml(One("eth1")))}).status, 0);
  const Finished second = element_.Cli({"load", "--replace", Write(ToXml(One("eth2")))});
  EXPECT_EQ(second.status, 0) << second.log;
  EXPECT_THAT(second.output, HasSubstr("put in place of the configuration"));
  ExpectManagerHolds(element_, One("eth2"));
}

TEST_F(CliLoad, ACommentStandsInTheJournal) {
  EXPECT_EQ(element_.Cli({"load", "--comment", "ticket <4711>", Write(ToXml(One("eth1")))}).status, 0);
  EXPECT_EQ(element_.Cli({"load", Write(ToXml(One("eth2")))}).status, 0);
  const Finished table = element_.Cli({"show", "commits"});
  EXPECT_THAT(table.output, HasSubstr("  ticket <4711>  created /ais:config/anti-ip-spoofing/interface{eth1}\n"));
  EXPECT_THAT(table.output, HasSubstr("{eth1}/allowed-ip/ipv4{10.0.0.1 7}: mac = 02:00:00:00:00:01\n"));
  const Finished json = element_.Cli({"show", "commits", "--json"});
  EXPECT_THAT(json.output, HasSubstr("\"comment\": \"ticket <4711>\""));
  EXPECT_THAT(json.output, HasSubstr("\"new-value\": \"02:00:00:00:00:01\""));
  const Finished refused = element_.Cli({"load", "--comment", "", Write(ToXml(One("eth3")))});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.log, HasSubstr("'comment': "));
}

TEST_F(CliLoad, WhatTheElementRefusesIsToldWithFileAndLineAndChangesNothing) {
  EXPECT_EQ(element_.Cli({"load", Write(ToXml(One("eth1")))}).status, 0);
  const std::string file = Write(InContainers("\n" + ToXml("eth0", {}) + "\n" + ToXml("eth1", {}, "create") + "\n"));
  const Finished refused = element_.Cli({"load", file});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "");
  EXPECT_THAT(refused.log, HasSubstr("ip-spoofing-cli: " + file + ":3: /"));
  EXPECT_THAT(refused.log, HasSubstr("interface-name='eth1'"));
  ExpectManagerHolds(element_, One("eth1"));
}

TEST_F(CliLoad, ABadFileIsNotSent) {
  const std::string file = Write(
      "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\">\n<anti-ip-spoofing><interface>\n"
      "<interface-name>a b</interface-name></interface></anti-ip-spoofing></config>");
  const Finished bad = element_.Cli({"load", file});
  EXPECT_EQ(bad.status, 3);
  EXPECT_EQ(bad.log, "ip-spoofing-cli: " + file +
                         ":3: /anti-ip-spoofing:config/anti-ip-spoofing/interface/interface-name: an interface name "
                         "has no blank, quote, brace, bracket, slash, backslash or percent sign\n");
}

TEST_F(CliLoad, ProgressIsShownWhenAskedForAndNotOtherwise) {
  Configuration large;
  for (uint32_t i = 0; i < 20000; ++i) large["sp1"].sources[{0x0a000000 + i, 0}] = "";
  const Finished asked = element_.Cli({"load", "--progress", Write(ToXml(large))});
  EXPECT_EQ(asked.status, 0) << asked.log;
  EXPECT_THAT(asked.log, HasSubstr("checking "));
  EXPECT_THAT(asked.log, HasSubstr("committing 20001 list entries\n"));
  EXPECT_EQ(element_.Cli({"load", Write(ToXml(large))}).log, "");
  ExpectManagerHolds(element_, large);
}

TEST_F(CliLoad, AnElementThatIsDownIsSaidToBeDown) {
  element_.Stop(Part::kCdbd);
  const Finished down = element_.Cli({"load", Write(ToXml(One("eth1")))});
  EXPECT_EQ(down.status, 4);
  EXPECT_THAT(down.log, HasSubstr("ip-spoofing-cli: cannot open a session with the element: connect " +
                                  element_.NetconfSocket()));
}

TEST_F(CliLoad, SaysThatAllSessionsAreInUse) {
  element_.Stop(Part::kCdbd);
  element_.Start(Part::kCdbd, {"--max-sessions", "1"});
  std::optional<netconf::Client> other;
  ASSERT_TRUE(Eventually(
      [&] {
        auto connected = netconf::Client::Connect(element_.NetconfSocket(), Element::kLimit);
        if (connected.ok()) other.emplace(std::move(connected).value());
        return other.has_value();
      },
      Element::kLimit));
  const Finished refused = element_.Cli({"show", "config"});
  EXPECT_EQ(refused.status, 4);
  EXPECT_EQ(refused.log,
            "ip-spoofing-cli: cannot open a session with the element: too many sessions are open: the limit is 1\n");
}

TEST_F(CliLoad, RefusesATimeLimitThatIsNotANumber) {
  for (const char* value : {"-1", "0", "nan"}) {
    const Finished refused = element_.Cli({"--timeout", value, "show", "config"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.log, HasSubstr("--timeout: '" + std::string{value} + "' is not a number from 0.001 to 86400"));
  }
}

TEST_F(CliLoad, AnElementThatDoesNotAnswerIsGivenUp) {
  element_.Pause(Part::kCdbd);
  const Finished silent = element_.Cli({"--timeout", "0.2", "load", Write(ToXml(One("eth1")))});
  EXPECT_EQ(silent.status, 4);
  EXPECT_THAT(silent.log, HasSubstr("no answer within the time limit"));
  element_.Resume(Part::kCdbd);
}

TEST_F(CliLoad, TheExamplesLoad) {
  const Finished loaded = element_.Cli({"load", "--replace", EXAMPLES_DIR "/two-ports.xml"});
  EXPECT_EQ(loaded.status, 0) << loaded.log;
  const std::string source = SourceLine("sp1", "10.0.0.2", 0, "02:00:00:00:00:02");
  EXPECT_TRUE(Eventually([&] { return ManagerTable(element_).contains(source); }, Element::kLimit));
}

}  // namespace
}  // namespace test
