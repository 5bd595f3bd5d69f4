#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"
#include "table/table.h"

namespace mgr {

/// The bytes of a frame written in hexadecimal; blanks, colons and line ends between bytes are allowed.
common::Result<std::vector<uint8_t>> ParseHex(const std::string& text);
/// "02:00:00:00:00:01".
std::optional<MacAddress> ParseMac(const std::string& text);
/// A well-formed UDP packet from `source_be`, tagged unless `vlan` is 0.
std::vector<uint8_t> SampleFrame(uint16_t vlan, uint32_t source_be, const MacAddress& mac);

/// What becomes of `frame` on the port of that name with what is in force now in `plane`, and the row of the verdict
/// table that says so: {"port", "dataplane", "verdict", "reason", "row", "vlan", "ethertype", "source", "mac", "entry",
/// "monitor"}. "source" is null where the frame has none. A port in monitor mode lets pass what the verdict drops.
nlohmann::json Explain(const Table& table, const Dataplane& plane, const std::string& port,
                       const std::vector<uint8_t>& frame);

/// The same, for the arguments of the operator's command: {"port", and "frame" (hex) or "source", "vlan", "mac"}.
common::Result<nlohmann::json> ExplainCommand(const Table& table, const Dataplane& plane,
                                              const nlohmann::json& arguments);

}  // namespace mgr
