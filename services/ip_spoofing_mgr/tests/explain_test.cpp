#include "control/explain.h"

#include <gtest/gtest.h>

#include "support.h"

namespace mgr::test {
namespace {

using nlohmann::json;

class ExplainTest : public testing::Test {
 protected:
  ExplainTest() {
    bench_.Full({Enable("eth1"), Put("eth1", 100, "10.0.0.1"), Put("eth1", 0, "10.0.0.2", 7), Enable("eth2"),
                 Mode("eth2", AllowAll::kAll)});
    bench_.Wait(milliseconds{100});
  }
  std::string Ask(const json& arguments) {
    auto answer = ExplainCommand(bench_.table, bench_.plane, arguments);
    if (!answer.ok()) return "error: " + answer.error().Text();
    const json& a = answer.value();
    return a.value("verdict", "") + " " + a.value("reason", "") + " (" + a.value("row", "") + ") entry " +
           a["entry"].dump();
  }
  Bench bench_;
};

TEST_F(ExplainTest, TellsTheVerdictTheRowAndTheEntry) {
  struct Case {
    json arguments;
    std::string answer;
  };
  const std::string kUnknown = "drop no-entry (IPv4 without an entry) entry null";
  const std::string kAllowed = "IPv4, entry without MAC or with the frame's source MAC";
  const Case cases[] = {
      {{{"port", "eth1"}, {"source", "10.0.0.1"}, {"vlan", 100}},
       "pass entry (" + kAllowed + ") entry \"10.0.0.1 vlan 100 mac any\""},
      {{{"port", "eth1"}, {"source", "10.0.0.1"}}, kUnknown},
      {{{"port", "eth1"}, {"source", "10.0.0.1"}, {"vlan", 101}}, kUnknown},
      {{{"port", "eth1"}, {"source", "10.0.0.1"}, {"vlan", 4095}},
       "drop vlan (two or more tags, 802.1ad, or VID 4095) entry null"},
      {{{"port", "eth1"}, {"source", "10.0.0.2"}, {"mac", "02:00:00:00:00:09"}},
       "drop mac-mismatch (IPv4, entry with another MAC) entry \"10.0.0.2 vlan 0 mac 00:00:00:00:00:07\""},
      {{{"port", "eth1"}, {"source", "10.0.0.2"}, {"mac", "00:00:00:00:00:07"}},
       "pass entry (" + kAllowed + ") entry \"10.0.0.2 vlan 0 mac 00:00:00:00:00:07\""},
      {{{"port", "eth2"}, {"source", "192.0.2.1"}}, "pass allow-all (allow-all mode ALL) entry null"},
      {{{"port", "eth3"}, {"source", "192.0.2.1"}},
       "pass not-enabled (the port is not enabled: not filtered) entry null"},
      {{{"port", "eth1"}, {"frame", "ff:ff:ff:ff:ff:ff 02:00:00:00:00:01 88cc 00"}}, "pass non-ip (not IP) entry null"},
      {{{"port", "eth1"}, {"frame", "ffffffffffff0200000000010800"}},
       "drop malformed (truncated or contradictory headers) entry null"},
  };
  for (const Case& c : cases) EXPECT_EQ(Ask(c.arguments), c.answer) << c.arguments;
}

/// The nft plane as explain sees it.
class NoTaggedLength final : public Dataplane {
 public:
  [[nodiscard]] std::string_view Name() const override { return "nft"; }
  [[nodiscard]] size_t Capacity() const override { return 0; }
  common::Result<Snapshot> TakeOver() override { return Snapshot{}; }
  std::vector<Failure> Apply(const Changes&) override { return {}; }
  common::Status RemoveEverything() override { return common::Ok(); }
  [[nodiscard]] bool HidesTaggedLength() const override { return true; }
};

TEST_F(ExplainTest, AnswersForThePlaneThatRuns) {
  const json tagged = {{"port", "eth1"}, {"frame", "ffffffffffff 020000000001 8100 0007 0003 424203"}};
  EXPECT_EQ(Ask(tagged), "pass non-ip (not IP) entry null");
  const auto answer = ExplainCommand(bench_.table, NoTaggedLength{}, tagged);
  ASSERT_TRUE(answer.ok());
  EXPECT_EQ(answer.value().value("reason", ""), "malformed");
  EXPECT_EQ(answer.value().value("dataplane", ""), "nft");
}

TEST_F(ExplainTest, ShowsZeroAddresses) {
  const auto ask = [&](const json& arguments) {
    const auto answer = ExplainCommand(bench_.table, bench_.plane, arguments);
    return answer.ok() ? answer.value()["source"].dump() + " " + answer.value()["mac"].dump() : "";
  };
  EXPECT_EQ(ask({{"port", "eth1"}, {"source", "0.0.0.0"}, {"mac", "00:00:00:00:00:00"}}),
            R"("0.0.0.0" "00:00:00:00:00:00")");
  EXPECT_EQ(ask({{"port", "eth1"}, {"frame", "ffffffffffff 020000000001 86dd 60"}}), R"(null "02:00:00:00:00:01")");
}

TEST_F(ExplainTest, RefusesWhatItCannotRead) {
  EXPECT_EQ(Ask(json::object()), "error: explain: which interface?");
  EXPECT_EQ(Ask({{"port", 7}}), "error: explain: which interface?");
  EXPECT_EQ(Ask({{"port", "eth1"}, {"source", "10.0.0"}}), "error: explain source 10.0.0: not an IPv4 address");
  EXPECT_EQ(Ask({{"port", "eth1"}, {"source", "10.0.0.1"}, {"vlan", 4096}}),
            "error: explain vlan: 0 to 4095 are expected");
  EXPECT_EQ(Ask({{"port", "eth1"}, {"source", "10.0.0.1"}, {"mac", "02:00:00:00:00"}}),
            "error: explain mac 02:00:00:00:00: six bytes with colons are expected");
  EXPECT_EQ(Ask({{"port", "eth1"}, {"frame", "0"}}), "error: explain frame: half a byte at the end");
  EXPECT_EQ(Ask({{"port", "eth1"}, {"frame", "0x"}}), "error: explain frame: not hexadecimal");
  EXPECT_EQ(Ask({{"port", "eth1"}, {"frame", ""}}), "error: explain frame: 1 to 65535 bytes are expected");
}

}  // namespace
}  // namespace mgr::test
