#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "dataplane/dataplane.h"
#include "dataplane/verdict.h"

namespace mgr {

/// A VLAN tag that is held beside the bytes of a frame. Host order.
struct MetadataTag {
  uint16_t tci = 0;
  uint16_t protocol = 0x8100;
};

struct Judgement {
  verdict result{};
  verdict_keys keys{};
  std::optional<MacAddress> entry{};  ///< the entry that was found, when one was looked for: its MAC, zero for any
};

/// The entry of {the port, `vlan`, `source_be`}: its MAC, zero for any; nullopt if no such entry exists.
using FindEntry = std::function<std::optional<MacAddress>(uint16_t vlan, uint32_t source_be)>;

/// What a plane cannot see of a frame.
enum class Sight : uint8_t { kWhole, kNoTaggedLength };

/// What the verdict table says of a frame, from its destination MAC on. Reads no byte outside of `frame`.
Judgement Judge(std::span<const uint8_t> frame, const std::optional<MetadataTag>& tag, const verdict_port& port,
                const FindEntry& find, Sight sight = Sight::kWhole);

}  // namespace mgr
