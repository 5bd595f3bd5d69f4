#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "manager_under_test.h"
#include "probe.h"

/// The manager process on real ports that come, go and change their names, and with the configurations that are easy to
/// get wrong.
namespace kernel_test {
namespace {

using frames::Ip;
using netns::MustRun;
using nlohmann::json;

struct Plane {
  std::string name;
  netns::As as;
  std::string label;
};
void PrintTo(const Plane& plane, std::ostream* out) { *out << plane.label; }

class Ports : public testing::TestWithParam<Plane> {
 protected:
  void SetUp() override {
    if (const auto reason = netns::Enter(GetParam().as)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
    manager_.emplace(GetParam().name);
    if (!manager_->Start(options_)) GTEST_SKIP() << "the system does not allow the dataplane " << GetParam().name;
  }

  /// The row of a table of ip-spoofing-ctl that has `member` = `value`; null when there is none.
  json Row(const std::string& table, const std::string& member, const json& value) {
    const std::string output = manager_->Ctl({"show", table, "--json"});
    const json rows = json::parse(output, nullptr, false);
    for (const json& row : rows.is_array() ? rows : json::array())
      if (row.value(member, json{}) == value) return row;
    return nullptr;
  }
  bool WaitForPort(const std::string& port, uint32_t ifindex) {
    return test::Eventually(
        [&] {
          const json row = Row("ports", "port", port);
          return row.is_object() && row.value("ifindex", 0U) == ifindex;
        },
        std::chrono::seconds{20});
  }

  std::vector<std::string> options_;
  std::optional<ManagerUnderTest> manager_;
};

TEST_P(Ports, JudgeASourceByItsOwnPortAndVlan) {
  netns::Wire one{"eth1"}, ten{"eth10"};
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), EnablePort("eth10"), Put("eth1", 0, Ip("10.0.0.1")),
                                Put("eth10", 7, Ip("10.0.0.1")), Put("eth10", 0, Ip("10.0.0.2"))},
                               true));
  Probe first{"eth1", one.station()}, second{"eth10", ten.station()};
  EXPECT_EQ(first.Passes(From("10.0.0.1")), true);
  EXPECT_EQ(first.Passes(From("10.0.0.1", 7)), false);
  EXPECT_EQ(first.Passes(From("10.0.0.2")), false);
  EXPECT_EQ(second.Passes(From("10.0.0.1")), false);
  EXPECT_EQ(second.Passes(From("10.0.0.1", 7)), true);
  EXPECT_EQ(second.Passes(From("10.0.0.2")), true);
}

TEST_P(Ports, StayClosedWhenTheLastEntryGoes) {
  netns::Wire wire{"eth1"};
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1"))}, true));
  Probe probe{"eth1", wire.station()};
  EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
  ASSERT_TRUE(manager_->Submit({Remove("eth1", 0, Ip("10.0.0.1"))}));
  EXPECT_EQ(probe.Passes(From("10.0.0.1")), false);
  ASSERT_TRUE(manager_->Submit({DisablePort("eth1")}));
  EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
}

TEST_P(Ports, TellWhichEntriesNoFrameCanMatch) {
  netns::Wire wire{"eth1"};
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("0.0.0.0")), Put("eth1", 0, Ip("127.0.0.1")),
                                Put("eth1", 0, Ip("10.0.0.1"), {1, 0, 0x5e, 0, 0, 1})},
                               true));
  Probe probe{"eth1", wire.station()};
  for (const char* source : {"0.0.0.0", "127.0.0.1", "10.0.0.1"}) {
    EXPECT_EQ(probe.Passes(From(source)), false) << source;
    const json row = Row("entries", "address", source);
    ASSERT_TRUE(row.is_object()) << source;
    EXPECT_EQ(row.value("state", 1), 0) << row;
    EXPECT_TRUE(row["reason"].is_string()) << row;
  }
}

TEST_P(Ports, ShowViolatorsWithTheirZeroes) {
  if (GetParam().name != "tcx") GTEST_SKIP() << "the nft dataplane has no table of violators";
  netns::Wire wire{"eth1"};
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1")}, true));
  Probe probe{"eth1", wire.station()};
  EXPECT_EQ(probe.Passes(From("0.0.0.0")), false);
  EXPECT_EQ(probe.Passes(From("10.0.0.1", 0, {})), false);
  EXPECT_EQ(probe.Passes(frames::FrameBuilder{{2, 0, 0, 0, 0, 0x0a}}.Type(0x86dd)), false);
  const auto shown = [&](const char* reason) {
    const json row = Row("violators", "reason", reason);
    return row.is_object() ? row["source"].dump() + " " + row["mac"].dump() : "no row";
  };
  EXPECT_EQ(shown("martian"), R"("0.0.0.0" "02:00:00:00:00:0a")");
  EXPECT_EQ(shown("bad-source-mac"), R"("10.0.0.1" "00:00:00:00:00:00")");
  EXPECT_EQ(shown("ipv6"), R"(null "02:00:00:00:00:0a")");
}

TEST_P(Ports, BindAnEntryToItsMac) {
  netns::Wire wire{"eth1"};
  const frames::Mac mac = {2, 0, 0, 0, 0, 0x0a}, other = {2, 0, 0, 0, 0, 0x0b};
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1"), mac)}, true));
  Probe probe{"eth1", wire.station()};
  EXPECT_EQ(probe.Passes(From("10.0.0.1", 0, mac)), true);
  EXPECT_EQ(probe.Passes(From("10.0.0.1", 0, other)), false);
  ASSERT_TRUE(manager_->Submit({Put("eth1", 0, Ip("10.0.0.1"), other)}));
  EXPECT_EQ(probe.Passes(From("10.0.0.1", 0, mac)), false);
  EXPECT_EQ(probe.Passes(From("10.0.0.1", 0, other)), true);
}

TEST_P(Ports, ThatAppearLaterAreFilteredFromThen) {
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1"))}, true));
  const json absent = Row("ports", "port", "eth1");
  ASSERT_TRUE(absent.is_object());
  EXPECT_EQ(absent.value("state", 1), 0);
  EXPECT_TRUE(absent["reason"].is_string()) << absent;
  netns::Wire wire{"eth1"};
  ASSERT_TRUE(WaitForPort("eth1", wire.ifindex()));
  Probe probe{"eth1", wire.station()};
  EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
  EXPECT_EQ(probe.Passes(From("192.0.2.1")), false);
}

TEST_P(Ports, ThatAreMadeAnewUnderTheSameNameAreFilteredAgain) {
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1"))}, true));
  uint32_t last = 0;
  for (int i = 0; i < 3; ++i) {
    netns::Wire wire{"eth1"};
    EXPECT_NE(wire.ifindex(), last);
    last = wire.ifindex();
    ASSERT_TRUE(WaitForPort("eth1", last));
    Probe probe{"eth1", wire.station()};
    EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
    EXPECT_EQ(probe.Passes(From("192.0.2.1")), false);
    MustRun("ip link del eth1");
    ASSERT_TRUE(WaitForPort("eth1", 0));
  }
}

TEST_P(Ports, AreTheNamesTheInterfacesHave) {
  netns::Wire one{"eth1"}, two{"eth2"};
  ASSERT_TRUE(manager_->Submit(
      {EnablePort("eth1"), EnablePort("eth2"), Put("eth1", 0, Ip("10.0.0.1")), Put("eth2", 0, Ip("10.0.0.2"))}, true));
  const uint32_t first = one.ifindex(), second = two.ifindex();
  ASSERT_TRUE(WaitForPort("eth2", second));
  // The two swap their names; then one leaves its name altogether.
  MustRun(
      "ip link set eth1 down && ip link set eth2 down && ip link set eth1 name tmp && ip link set eth2 name eth1 && "
      "ip link set tmp name eth2 && ip link set eth1 up && ip link set eth2 up");
  ASSERT_TRUE(WaitForPort("eth1", second));
  ASSERT_TRUE(WaitForPort("eth2", first));
  {
    Probe at_first{"eth2", one.station()}, at_second{"eth1", two.station()};
    EXPECT_EQ(at_first.Passes(From("10.0.0.2")), true);
    EXPECT_EQ(at_first.Passes(From("10.0.0.1")), false);
    EXPECT_EQ(at_second.Passes(From("10.0.0.1")), true);
    EXPECT_EQ(at_second.Passes(From("10.0.0.2")), false);
  }
  MustRun("ip link set eth2 down && ip link set eth2 name other && ip link set other up");
  ASSERT_TRUE(WaitForPort("eth2", 0));
  Probe unnamed{"other", one.station()};
  EXPECT_EQ(unnamed.Passes(From("192.0.2.1")), true) << "an interface that is no port is filtered";
}

TEST_P(Ports, UnderAnAlternativeNameAreRefusedWithTheMainOne) {
  netns::Wire wire{"eth1"};
  MustRun("ip link property add dev eth1 altname uplink");
  ASSERT_TRUE(manager_->Submit({EnablePort("uplink"), Put("uplink", 0, Ip("10.0.0.1"))}, true));
  const std::string reason = "an alternative name of eth1: configure eth1";
  const auto reported = [&](const std::string& text) {
    const json port = Row("ports", "port", "uplink"), entry = Row("entries", "port", "uplink");
    return port.is_object() && port.value("state", 1) == 0 && port["reason"] == text && entry.is_object() &&
           entry.value("state", 1) == 0 && entry["reason"] == text;
  };
  EXPECT_TRUE(test::Eventually([&] { return reported(reason); }, std::chrono::seconds{20}));
  EXPECT_NE(manager_->Log().find("port uplink is not filtered: it is an alternative name of eth1\n"),
            std::string::npos);
  {
    Probe probe{"eth1", wire.station()};
    EXPECT_EQ(probe.Passes(From("192.0.2.1")), true) << "eth1 itself is not configured";
    ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.2"))}));
    EXPECT_EQ(probe.Passes(From("10.0.0.2")), true);
    EXPECT_EQ(probe.Passes(From("10.0.0.1")), false) << "the other name's entries do not count";
  }
  MustRun("ip link property del dev eth1 altname uplink");
  EXPECT_TRUE(test::Eventually([&] { return reported("no such interface"); }, std::chrono::seconds{20}));
  netns::Wire other{"uplink"};
  ASSERT_TRUE(WaitForPort("uplink", other.ifindex()));
  Probe probe{"uplink", other.station()};
  EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
  EXPECT_EQ(probe.Passes(From("10.0.0.2")), false);
}

TEST_P(Ports, ThatMoveToAnotherNamespaceAreLeftAloneThereAndFilteredWhenTheyReturn) {
  if (GetParam().as == netns::As::kUnprivileged) GTEST_SKIP() << "moving interfaces back needs privilege over both";
  netns::Wire wire{"eth1"};
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1"))}, true));
  ASSERT_TRUE(WaitForPort("eth1", wire.ifindex()));
  const netns::OtherNamespace other;
  const std::string there = "nsenter --net=/proc/" + std::to_string(other.pid()) + "/ns/net ";
  MustRun("ip link set eth1 netns " + std::to_string(other.pid()));
  ASSERT_TRUE(WaitForPort("eth1", 0));
  MustRun(there + "ip link set eth1 netns " + std::to_string(getpid()));
  MustRun("ip link set eth1 up");
  ASSERT_TRUE(WaitForPort("eth1", wire.ifindex()));
  Probe probe{"eth1", wire.station()};
  EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
  EXPECT_EQ(probe.Passes(From("192.0.2.1")), false);
}

TEST_P(Ports, InMonitorModeDropNothingAndCountWhatTheyWould) {
  netns::Wire wire{"eth1"};
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1"))}, true));
  Probe probe{"eth1", wire.station()};
  EXPECT_EQ(probe.Passes(From("192.0.2.1")), false);
  EXPECT_EQ(manager_->Ctl({"monitor", "eth1", "on"}), "");
  EXPECT_EQ(probe.Passes(From("192.0.2.1")), true);
  const json would = Row("counters", "verdict", "pass");
  EXPECT_TRUE(Row("counters", "reason", "no-entry").is_object()) << would;
  EXPECT_EQ(manager_->Ctl({"monitor", "eth1", "off"}), "");
  EXPECT_EQ(probe.Passes(From("192.0.2.1")), false);
}

TEST_P(Ports, KeepTheEntryBeyondTheCapacityOutUntilThereIsRoom) {
  EXPECT_EQ(manager_->Stop(), 0);
  ASSERT_TRUE(manager_->Start({"--capacity", "2"}));
  netns::Wire wire{"eth1"};
  ASSERT_TRUE(
      manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1")), Put("eth1", 0, Ip("10.0.0.2"))}, true));
  ASSERT_TRUE(manager_->Submit({Put("eth1", 0, Ip("10.0.0.3"))}));
  Probe probe{"eth1", wire.station()};
  EXPECT_EQ(probe.Passes(From("10.0.0.2")), true);
  EXPECT_EQ(probe.Passes(From("10.0.0.3")), false);
  const json waiting = Row("entries", "address", "10.0.0.3");
  ASSERT_TRUE(waiting.is_object());
  EXPECT_EQ(waiting.value("state", 1), 0);
  EXPECT_TRUE(waiting["reason"].is_string());
  ASSERT_TRUE(manager_->Submit({Remove("eth1", 0, Ip("10.0.0.1"))}));
  EXPECT_EQ(probe.Passes(From("10.0.0.3")), true);
  EXPECT_EQ(probe.Passes(From("10.0.0.1")), false);
}

INSTANTIATE_TEST_SUITE_P(Planes, Ports,
                         testing::Values(Plane{"tcx", netns::As::kRoot, "tcx"}, Plane{"nft", netns::As::kRoot, "nft"},
                                         Plane{"nft", netns::As::kUnprivileged, "nft_unprivileged"}),
                         [](const auto& plane) { return plane.param.label; });

}  // namespace
}  // namespace kernel_test
