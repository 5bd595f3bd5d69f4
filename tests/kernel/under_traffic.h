#pragma once

#include <cstdint>
#include <vector>

#include "manager_under_test.h"
#include "netns/netns.h"
#include "traffic.h"

namespace kernel_test {

/// The wire of `port0` at full rate, frames from the allowed sources 10.0.0.1 to 10.0.0.3 and spoofed ones in turn,
/// from its construction on. What is configured meanwhile allows those three, and drops the rest.
class UnderTraffic final {
 public:
  static constexpr frames::Mac kStation = {2, 0, 0, 0, 0, 0x0a};
  static constexpr uint64_t kRoundsBetween = 2000;

  /// `port0` is enabled already.
  explicit UnderTraffic(const netns::Wire& wire);
  /// Lets the traffic flow for a while.
  void Flow() { WaitForRounds(traffic_, kRoundsBetween); }
  [[nodiscard]] const Traffic& traffic() const noexcept { return traffic_; }
  /// Ends the traffic and expects that not one spoofed frame has passed and not one allowed frame is lost.
  void ExpectAllAndOnlyAllowed();

 private:
  const std::string station_;
  PassedFrames allowed_, spoofed_;
  Traffic traffic_;
};

/// Requests that enable `port0` and allow 10.0.0.1 to 10.0.0.3 and `others` more, which differ from one `generation` to
/// the next.
std::vector<Request> Configuration(size_t others, uint32_t generation = 0);
std::vector<Request> Others(size_t count, uint32_t generation);

}  // namespace kernel_test
