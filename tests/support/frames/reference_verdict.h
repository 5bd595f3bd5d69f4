#pragma once

#include <vector>

#include "frames/verdict_corpus.h"

namespace frames {

struct ReferenceResult {
  verdict_reason reason;
  verdict_row row;
  bool operator==(const ReferenceResult&) const = default;
};

/// The verdict table read line by line, slowly: every line is asked whether it applies, and the first that does wins.
/// Shares nothing with the function it checks but the names of reasons and rows.
ReferenceResult ReferenceVerdict(const Frame& frame, bool enabled, verdict_mode mode,
                                 const std::vector<Entry>& entries);

/// True when a receiver could take `frame` for IPv4, alone or after one tag, from a source that `entries` do not
/// allow on its VLAN, the address-less DHCP client excepted. Such a frame must never pass a port with mode NONE.
bool IsSpoofedIpv4(const Frame& frame, const std::vector<Entry>& entries);

}  // namespace frames
