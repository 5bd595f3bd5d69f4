// Sends the frames of a table into ports that are filtered as examples/two-ports.xml says, and prints what was
// expected, what happened, and under which reason the manager counted it. Exit status 1 when anything happened
// otherwise.
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "frames/frame_builder.h"
#include "netns/netns.h"

namespace {

using frames::Arp;
using frames::Frame;
using frames::FrameBuilder;
using frames::Ip;
using frames::Ipv4;
using frames::Mac;

constexpr Mac kAnyStation = {0x02, 0, 0, 0, 0, 0x0a};
constexpr Mac kBoundStation = {0x02, 0, 0, 0, 0, 0x02};
constexpr uint16_t kFollower = 0x88cc;  // LLDP: passes every port, and shows that what was sent before it is through

struct Row {
  std::string port;
  std::string what;
  Frame frame;
  bool passes;
};

FrameBuilder From(const Mac& mac = kAnyStation) { return FrameBuilder{mac}; }
Ipv4 Source(const char* source) { return {.source_be = Ip(source)}; }

std::vector<Row> Rows() {
  frames::Bytes ipv6(48);
  ipv6[0] = 0x60;
  return {
      {"sp1", "IPv4 from 10.0.0.1, allowed", From().With(Source("10.0.0.1")), true},
      {"sp1", "IPv4 from 10.0.0.7, no entry", From().With(Source("10.0.0.7")), false},
      {"sp1", "IPv4 from 10.0.0.2, its MAC", From(kBoundStation).With(Source("10.0.0.2")), true},
      {"sp1", "IPv4 from 10.0.0.2, another MAC", From().With(Source("10.0.0.2")), false},
      {"sp1", "IPv4 from 10.1.0.1, VLAN 100", From().VlanTag(100).With(Source("10.1.0.1")), true},
      {"sp1", "IPv4 from 10.1.0.1, VLAN 101", From().VlanTag(101).With(Source("10.1.0.1")), false},
      {"sp1", "IPv4 from 10.1.0.1, two tags", From().VlanTag(100).VlanTag(100).With(Source("10.1.0.1")), false},
      {"sp1", "DHCP, no address yet", From().With(frames::DhcpRequest({.client = kAnyStation})), true},
      {"sp1", "ARP for 10.0.0.1",
       From().With(Arp{.operation = 2, .sender_mac = kAnyStation, .sender_be = Ip("10.0.0.1")}), true},
      {"sp1", "ARP for 10.0.0.7",
       From().With(Arp{.operation = 2, .sender_mac = kAnyStation, .sender_be = Ip("10.0.0.7")}), false},
      {"sp1", "IPv6", From().Type(0x86dd, ipv6), false},
      {"sp1", "MPLS", From().Type(0x8847), false},
      {"sp2", "IPv4 from 10.2.0.9, VLAN 200", From().VlanTag(200).With(Source("10.2.0.9")), true},
      {"sp2", "IPv4 from 10.0.0.1, allowed on sp1", From().With(Source("10.0.0.1")), false},
      {"sp2", "IPv6, all allowed", From().Type(0x86dd, ipv6), true},
      {"sp3", "IPv4 from 10.0.0.7, port not listed", From().With(Source("10.0.0.7")), true},
  };
}

/// Frames so far by reason, as ip-spoofing-ctl shows them.
std::map<std::string, uint64_t> Counters(const std::string& port) {
  std::map<std::string, uint64_t> counters;
  const netns::Ran ran = netns::Run("ip-spoofing-ctl show counters --json --port " + port);
  const auto rows = nlohmann::json::parse(ran.output, nullptr, false);
  if (!rows.is_array()) return counters;
  for (const auto& row : rows) counters[row.value("reason", "")] += row.value("frames", uint64_t{0});
  return counters;
}

/// The reason whose count grew, besides the follower's.
std::string Grown(const std::map<std::string, uint64_t>& before, const std::map<std::string, uint64_t>& after) {
  for (const auto& [reason, frames] : after) {
    const auto it = before.find(reason);
    if (reason != "non-ip" && frames > (it == before.end() ? 0 : it->second)) return reason;
  }
  return "-";
}

}  // namespace

int main() {
  std::printf("%-6s%-38s%-10s%-10s%s\n", "PORT", "FRAME", "EXPECTED", "HAPPENED", "COUNTED AS");
  int wrong = 0;
  for (const Row& row : Rows()) {
    netns::Sender sender{"s-" + row.port};
    netns::Receiver passed{row.port, netns::ReceivedType(row.frame)}, follower{row.port, kFollower};
    const auto before = Counters(row.port);
    const bool sent = sender.Send(row.frame) && sender.Send(FrameBuilder{kAnyStation}.Type(kFollower));
    if (!sent || follower.Count(1) != 1) {
      std::fprintf(stderr, "no frame comes through %s\n", row.port.c_str());
      return 1;
    }
    const bool passes = passed.Count(0) == 1;
    if (passes != row.passes) ++wrong;
    std::printf("%-6s%-38s%-10s%-10s%s\n", row.port.c_str(), row.what.c_str(), row.passes ? "pass" : "drop",
                passes ? "pass" : "drop", Grown(before, Counters(row.port)).c_str());
  }
  return wrong == 0 ? 0 : 1;
}
