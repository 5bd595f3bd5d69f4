#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>

#include "manager_under_test.h"
#include "netns/netns.h"
#include "traffic.h"

/// A station that sends from as many different addresses as it can, next to one that may send.
namespace kernel_test {
namespace {

using frames::Ip;
using nlohmann::json;

constexpr auto kDuration = std::chrono::seconds{10};
constexpr size_t kSpoofedAddresses = 20'000;
constexpr size_t kSpoofedToOneAllowed = 20;
constexpr size_t kMostViolators = 4096;
constexpr size_t kEventsPerSecond = 20;  // of a port and CPU

size_t ResidentKilobytes(pid_t pid) {
  std::ifstream file{"/proc/" + std::to_string(pid) + "/status"};
  std::string word;
  size_t kilobytes = 0;
  while (file >> word)
    if (word == "VmRSS:") file >> kilobytes;
  return kilobytes;
}

TEST(Flood, OfSpoofedSourcesHarmsNeitherTheManagerNorTheAllowed) {
  if (const auto reason = netns::Enter(netns::As::kRoot)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
  ManagerUnderTest manager{"tcx"};
  if (!manager.Start()) GTEST_SKIP() << "the system does not allow the tcx dataplane";
  const netns::Wire wire{"port0"};
  ASSERT_TRUE(manager.Submit({EnablePort("port0"), Put("port0", 0, Ip("10.0.0.1"))}, true));
  ASSERT_TRUE(manager.WaitForPorts("\"state\": 1"));
  PassedFrames allowed{"port0", 10}, spoofed{"port0", 198};

  const auto from = [](uint32_t source_be) {
    return frames::FrameBuilder{{2, 0, 0, 0, 0, 0x0a}}.With(frames::Ipv4{.source_be = source_be}).Pad(60).Build();
  };
  std::vector<frames::Frame> flood;
  for (uint32_t i = 0; i < kSpoofedAddresses; ++i) {
    flood.push_back(from(htonl(0xC6120000U + i)));  // 198.18.0.0/15
    if (i % kSpoofedToOneAllowed == 0) flood.push_back(from(Ip("10.0.0.1")));
  }
  const size_t resident = ResidentKilobytes(manager.pid());
  const auto watch = manager.Watch({"watch", "drops", "--json"});
  Traffic traffic{wire.station(), flood};
  std::this_thread::sleep_for(kDuration);
  traffic.Stop();
  // Before anything is asked: answers take memory of their own, and a sanitizer keeps it.
  const size_t flooded = ResidentKilobytes(manager.pid());

  EXPECT_EQ(LostOnWire(wire.station()), 0U);
  EXPECT_GT(traffic.Rounds(), 1U);
  EXPECT_EQ(spoofed.Count(), 0U);
  EXPECT_EQ(allowed.Count(), traffic.Rounds() * (kSpoofedAddresses / kSpoofedToOneAllowed));
  const json violators = json::parse(manager.Ctl({"show", "violators", "--json"}), nullptr, false);
  ASSERT_TRUE(violators.is_array());
  EXPECT_GT(violators.size(), kMostViolators / 4);
  EXPECT_LE(violators.size(), kMostViolators);
  const std::string events = watch->Output();
  const auto lines = static_cast<size_t>(std::count(events.begin(), events.end(), '\n'));
  EXPECT_GT(lines, 0U);
  const size_t processors = std::thread::hardware_concurrency();
  EXPECT_LE(lines, (static_cast<size_t>(kDuration.count()) + 2) * kEventsPerSecond * processors);
  EXPECT_LT(flooded, resident + 8192);
  std::printf("  %lu spoofed frames, %zu violators, %zu events, %zu to %zu kB\n", traffic.Rounds() * kSpoofedAddresses,
              violators.size(), lines, resident, flooded);
}

}  // namespace
}  // namespace kernel_test
