#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "http/http_get.h"
#include "manager_under_test.h"
#include "probe.h"

/// The metrics of the manager process, after frames and batches that are known to the last one.
namespace kernel_test {
namespace {

using frames::Ip;
using nlohmann::json;
using Lines = std::vector<std::string>;

struct Plane {
  std::string name;
  netns::As as;
  std::string label;
  [[nodiscard]] bool Filters() const { return name != "memory"; }
};
void PrintTo(const Plane& plane, std::ostream* out) { *out << plane.label; }

/// The whole number right behind `prefix` in `text`; none when `prefix` is not there.
std::optional<int> NumberAfter(const std::string& text, const std::string& prefix) {
  const size_t at = text.find(prefix);
  if (at == std::string::npos) return std::nullopt;
  return std::atoi(text.c_str() + at + prefix.size());
}

/// Its value is a duration, or a count that depends on durations.
bool IsOfDurations(const std::string& line) {
  return line.find("_seconds_sum ") != std::string::npos || line.starts_with("ip_spoofing_guard_checks_total ") ||
         (line.find("_seconds_bucket{le=") != std::string::npos && line.find("+Inf") == std::string::npos);
}

/// The text that is served, with `*` for the durations.
Lines Known(const std::string& text) {
  Lines lines;
  std::istringstream stream{text};
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(IsOfDurations(line) ? line.substr(0, line.rfind(' ')) + " *" : line);
  }
  return lines;
}

class Metrics : public testing::TestWithParam<Plane> {
 protected:
  void SetUp() override {
    if (const auto reason = netns::Enter(GetParam().as)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
    manager_.emplace(GetParam().name);
    if (!manager_->Start({"--metrics-port", "0", "--capacity", "2"})) GTEST_SKIP() << "not allowed here";
  }
  std::optional<std::string> Get() {
    const auto port = NumberAfter(manager_->Log(), "metrics on http://127.0.0.1:");
    if (!port) return std::nullopt;
    const auto answer = http::Get("127.0.0.1", static_cast<uint16_t>(*port), "/metrics");
    return answer && answer->status == 200 ? std::optional{answer->body} : std::nullopt;
  }
  /// The lines of ip_spoofing_frames_total that follow from what ip-spoofing-ctl shows.
  Lines FramesByCtl() {
    static const std::set<std::string> kPasses{"entry", "non-ip"};
    std::set<std::string> lines;
    for (const json& row : json::parse(manager_->Ctl({"show", "counters", "--json"}))) {
      const std::string reason = row["reason"];
      const std::string verdict = row["verdict"] == "drop" ? "drop" : kPasses.contains(reason) ? "pass" : "would-drop";
      lines.insert("ip_spoofing_frames_total{port=\"" + row["port"].get<std::string>() + "\",verdict=\"" + verdict +
                   "\",reason=\"" + reason + "\"} " + std::to_string(row["frames"].get<uint64_t>()));
    }
    return {lines.begin(), lines.end()};
  }

  std::optional<ManagerUnderTest> manager_;
};

TEST_P(Metrics, TellOfEveryFrameAndBatch) {
  std::optional<netns::Wire> wire;
  if (GetParam().Filters()) wire.emplace("eth1");
  ASSERT_TRUE(
      manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1")), Put("eth1", 4095, Ip("10.0.0.9"))}, true));
  ASSERT_TRUE(manager_->Submit({EnablePort("eth2"), Put("eth2", 0, Ip("10.0.0.2"))}));
  ASSERT_TRUE(manager_->Submit({Put("eth1", 0, Ip("10.0.0.3"))}));
  if (wire) {
    Probe probe{"eth1", wire->station()};  // every frame is followed by one that is not IP
    for (int i = 0; i < 3; ++i) EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(probe.Passes(From("192.0.2.1")), false);
    EXPECT_EQ(probe.Passes(From("10.0.0.1", 7)), false);
    EXPECT_EQ(manager_->Ctl({"monitor", "eth1", "on"}), "");
    EXPECT_EQ(probe.Passes(From("192.0.2.1")), true);
  }
  const auto text = Get();
  ASSERT_TRUE(text);
  const bool filters = GetParam().Filters(), events = GetParam().name == "tcx";
  const Lines frames = FramesByCtl();
  const Lines expected_frames =
      filters ? Lines{R"(ip_spoofing_frames_total{port="eth1",verdict="drop",reason="no-entry"} 3)",
                      R"(ip_spoofing_frames_total{port="eth1",verdict="pass",reason="entry"} 3)",
                      R"(ip_spoofing_frames_total{port="eth1",verdict="pass",reason="non-ip"} 7)",
                      R"(ip_spoofing_frames_total{port="eth1",verdict="would-drop",reason="no-entry"} 1)"}
              : Lines{};
  EXPECT_EQ(frames, expected_frames);

  const std::string responding = "always 1: a manager that is too busy to answer serves nothing";
  Lines expected{
      "# HELP ip_spoofing_manager_responding " + responding,
      "# TYPE ip_spoofing_manager_responding gauge",
      "ip_spoofing_manager_responding 1",
      "# HELP ip_spoofing_build_info The manager's version and dataplane; always 1",
      "# TYPE ip_spoofing_build_info gauge",
      "ip_spoofing_build_info{version=\"" VERSION "\",dataplane=\"" + GetParam().name + "\"} 1",
      "# HELP ip_spoofing_frames_total Frames judged, by port, verdict and reason",
      "# TYPE ip_spoofing_frames_total counter",
  };
  expected.insert(expected.end(), frames.begin(), frames.end());
  const auto one = [&](const std::string& name, const std::string& type, const std::string& help,
                       const std::vector<std::pair<std::string, int>>& values) {
    expected.push_back("# HELP ip_spoofing_" + name + " " + help);
    expected.push_back("# TYPE ip_spoofing_" + name + " " + type);
    for (const auto& [labels, value] : values)
      expected.push_back("ip_spoofing_" + name + labels + " " + std::to_string(value));
  };
  one("entries", "gauge", "Entries that are wanted", {{"", 4}});
  one("entries_in_force", "gauge", "Entries that are wanted and in force", {{"", filters ? 1 : 0}});
  one("entries_not_in_force", "gauge", "Entries that are wanted and not in force, by reason",
      {{"{reason=\"unknown-interface\"}", 0},
       {"{reason=\"port-refused\"}", 0},
       {"{reason=\"no-interface\"}", filters ? 1 : 2},
       {"{reason=\"alternative-name\"}", 0},
       {"{reason=\"port-not-enabled\"}", 0},
       {"{reason=\"entry-refused\"}", 0},
       {"{reason=\"beyond-capacity\"}", 1},
       {"{reason=\"ipv6\"}", 0},
       {"{reason=\"vlan\"}", 1},
       {"{reason=\"group-mac\"}", 0},
       {"{reason=\"martian\"}", 0},
       {"{reason=\"being-changed\"}", 0},
       {"{reason=\"not-guarded\"}", 0}});
  one("entries_installed", "gauge", "Entries that the dataplane holds", {{"", 2}});
  one("entries_capacity", "gauge", "Entries that the dataplane can hold", {{"", 2}});
  one("ports", "gauge", "Ports that are known", {{"", 2}});
  one("ports_enabled", "gauge", "Ports that are wanted enabled", {{"", 2}});
  one("ports_present", "gauge", "Ports whose interface is there", {{"", filters ? 1 : 0}});
  one("ports_filtering", "gauge", "Ports that filter as they are wanted to", {{"", filters ? 1 : 0}});
  one("ports_monitored", "gauge", "Ports in monitor mode, which drop nothing", {{"", filters ? 1 : 0}});
  one("guard_intact", "gauge",
      "1 when the kernel was found to enforce everything that it was told to at the last comparison", {{"", 1}});
  one("ports_unguarded", "gauge", "Enabled ports whose frames are not judged as they should be", {{"", 0}});
  one("guard_checks_total", "counter", "Complete comparisons of the kernel's state with the desired one", {});
  expected.emplace_back("ip_spoofing_guard_checks_total *");
  one("guard_repairs_total", "counter", "Changes by other programs that were put back", {{"", 0}});
  one("batches_total", "counter", "Batches applied; full ones replace the whole configuration",
      {{"{kind=\"change\"}", 2}, {"{kind=\"full\"}", 1}});
  one("batch_requests_total", "counter", "Requests in them", {{"{kind=\"change\"}", 3}, {"{kind=\"full\"}", 3}});
  one("batch_duration_seconds", "histogram", "Time from the last byte of a batch until the dataplane had what it adds",
      {{"_count", 3}});
  expected.emplace_back("ip_spoofing_batch_duration_seconds_sum *");
  for (const char* bound : {"0.0001", "0.00025", "0.001", "0.0025", "0.01", "0.025", "0.1", "0.25", "1", "2.5"})
    expected.push_back(std::string{"ip_spoofing_batch_duration_seconds_bucket{le=\""} + bound + "\"} *");
  expected.emplace_back("ip_spoofing_batch_duration_seconds_bucket{le=\"+Inf\"} 3");
  one("client_connected", "gauge", "1 when a client that configures is connected", {{"", 1}});
  one("drop_events_total", "counter", "Events about dropped frames", {{"", events ? 4 : 0}});
  one("drop_events_lost_total", "counter",
      "Dropped frames without an event of their own, held back by the rate limit or for want of room", {{"", 0}});
  EXPECT_EQ(Known(*text), expected);
}

TEST_P(Metrics, CountTheDropsThatHadNoEventOfTheirOwn) {
  if (GetParam().name != "tcx") GTEST_SKIP() << "reports no drops";
  netns::Wire wire{"eth1"};
  ASSERT_TRUE(manager_->Submit({EnablePort("eth1"), Put("eth1", 0, Ip("10.0.0.1"))}, true));
  Probe probe{"eth1", wire.station()};
  constexpr int kDrops = 2000;  // more than a second's events on every processor
  netns::Sender sender{wire.station()};
  for (int i = 0; i < kDrops; ++i) ASSERT_TRUE(sender.Send(From("192.0.2.1")));
  // An event of a later second tells of what was held back.
  ASSERT_TRUE(test::Eventually(
      [&] {
        EXPECT_EQ(probe.Passes(From("192.0.2.2")), false);
        const auto lost = NumberAfter(Get().value_or(""), "\nip_spoofing_drop_events_lost_total ");
        return lost && *lost > kDrops / 2;
      },
      std::chrono::seconds{20}));
}

/// The local addresses, as the kernel writes them, of the TCP sockets that listen in the network namespace of a
/// process.
Lines Listening(pid_t process) {
  Lines addresses;
  for (const char* table : {"tcp", "tcp6"}) {
    std::ifstream sockets{"/proc/" + std::to_string(process) + "/net/" + table};
    std::string line;
    EXPECT_TRUE(std::getline(sockets, line)) << table << ": the heading";
    std::string slot, local, remote, state;
    while (sockets >> slot >> local >> remote >> state && std::getline(sockets, line))
      if (state == "0A") addresses.push_back(local);
  }
  return addresses;
}

TEST_P(Metrics, AreNotServedUnlessAskedFor) {
  const auto port = NumberAfter(manager_->Log(), "metrics on http://127.0.0.1:");
  ASSERT_TRUE(port);
  char loopback[16];
  std::snprintf(loopback, sizeof loopback, "0100007F:%04X", static_cast<unsigned>(*port));
  EXPECT_EQ(Listening(manager_->pid()), Lines{loopback}) << "asked for, on that address alone";
  EXPECT_EQ(manager_->Stop(), 0);
  ASSERT_TRUE(manager_->Start());
  EXPECT_EQ(Listening(manager_->pid()), Lines{});
  EXPECT_EQ(Get(), std::nullopt);
}

TEST_P(Metrics, OnAPortInUseEndTheManagerWithOneLine) {
  const common::UniqueFd taken{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(taken.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(listen(taken.get(), 1), 0);
  ASSERT_EQ(getsockname(taken.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  const std::string port = std::to_string(ntohs(address.sin_port));
  EXPECT_EQ(manager_->Stop(), 0);
  const std::string before = manager_->Log();
  EXPECT_EQ(manager_->Run({"--metrics-port", port}), 1);
  const std::string line = manager_->Log().substr(before.size());
  EXPECT_THAT(line, testing::EndsWith("ip-spoofing-mgr: metrics 127.0.0.1:" + port + ": Address already in use\n"));
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
}

INSTANTIATE_TEST_SUITE_P(Planes, Metrics,
                         testing::Values(Plane{"memory", netns::As::kUnprivileged, "memory"},
                                         Plane{"tcx", netns::As::kRoot, "tcx"}, Plane{"nft", netns::As::kRoot, "nft"},
                                         Plane{"nft", netns::As::kUnprivileged, "nft_unprivileged"}),
                         [](const auto& plane) { return plane.param.label; });

}  // namespace
}  // namespace kernel_test
