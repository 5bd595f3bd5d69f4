#include "under_traffic.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace kernel_test {
namespace {

using frames::Ip;

constexpr uint32_t kAllowedNet = 0x0A000000;  // 10.0.0.0

frames::Frame FromStation(const char* source) {
  return frames::FrameBuilder{UnderTraffic::kStation}.With(frames::Ipv4{.source_be = Ip(source)}).Pad(60).Build();
}

}  // namespace

UnderTraffic::UnderTraffic(const netns::Wire& wire)
    : station_{wire.station()},
      allowed_{wire.port(), 10},
      spoofed_{wire.port(), 192},
      traffic_{station_,
               {FromStation("10.0.0.1"), FromStation("192.0.2.66"), FromStation("10.0.0.2"), FromStation("192.0.2.67"),
                FromStation("10.0.0.3"), FromStation("192.0.2.68")}} {
  Flow();
}

void UnderTraffic::ExpectAllAndOnlyAllowed() {
  Flow();
  traffic_.Stop();
  const uint64_t sent = 3 * traffic_.Rounds();
  EXPECT_EQ(LostOnWire(station_), 0U) << "the wire itself lost frames";
  EXPECT_EQ(spoofed_.Count(), 0U) << "of " << sent << " spoofed frames";
  EXPECT_EQ(allowed_.Count(), sent) << "allowed frames";
  std::printf("  %lu frames: spoofed passed %lu, allowed lost %ld\n", 2 * sent, spoofed_.Count(),
              static_cast<long>(sent - allowed_.Count()));
}

std::vector<Request> Configuration(size_t others, uint32_t generation) {
  std::vector<Request> requests = {EnablePort("port0")};
  for (uint32_t i = 1; i <= 3; ++i) requests.push_back(Put("port0", 0, htonl(kAllowedNet + i)));
  for (const Request& request : Others(others, generation)) requests.push_back(request);
  return requests;
}

std::vector<Request> Others(size_t count, uint32_t generation) {
  std::vector<Request> requests;
  for (uint32_t i = 0; i < count; ++i)
    requests.push_back(Put("port0", static_cast<uint16_t>(i % 100), htonl(0x0B000000 + (generation << 16) + i)));
  return requests;
}

}  // namespace kernel_test
