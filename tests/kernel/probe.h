#pragma once

#include <optional>
#include <string>

#include "netns/netns.h"

namespace kernel_test {

/// Sends single frames into a port and tells what became of each.
class Probe final {
 public:
  /// `station` is the other end of the wire that leads to the interface `port`.
  Probe(const std::string& port, const std::string& station)
      : sender_{station}, passed_{port, 0x0800}, follower_{port, kFollower} {
    netns::WaitUntilRunning(station);
    netns::WaitUntilRunning(port);
  }

  /// True when the IPv4 frame passed the filter. A frame that always passes is sent behind it and waited for, so that
  /// "not passed" is not "not yet". Fails, as nothing, when that one does not come through either.
  std::optional<bool> Passes(const frames::Frame& frame) {
    passed_.Count(0);
    const frames::Frame follower = frames::FrameBuilder{{2, 0, 0, 0, 0, 0x0f}}.Type(kFollower);
    if (!sender_.Send(frame) || !sender_.Send(follower) || follower_.Count(1) != 1) return std::nullopt;
    return passed_.Count(0) == 1;
  }

 private:
  static constexpr uint16_t kFollower = 0x88cc;  // LLDP
  netns::Sender sender_;
  netns::Receiver passed_;
  netns::Receiver follower_;
};

/// An IPv4 frame from `source`, tagged when `vlan` is not 0.
inline frames::Frame From(const std::string& source, uint16_t vlan = 0,
                          const frames::Mac& mac = {2, 0, 0, 0, 0, 0x0a}) {
  frames::FrameBuilder builder{mac};
  if (vlan != 0) builder.VlanTag(vlan);
  return builder.With(frames::Ipv4{.source_be = frames::Ip(source)});
}

}  // namespace kernel_test
