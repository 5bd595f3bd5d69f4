#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/engine.h"
#include "ip_spoofing_mgr_client.h"
#include "table/table.h"

namespace mgr {

/// What keeps a port or an entry out of force.
enum class Hindrance : uint8_t {
  kNone,
  kUnknownInterface,  ///< the logical interface id names none
  kPortRefused,       ///< by the dataplane
  kNoInterface,
  kAlternativeName,  ///< of an interface; it is not filtered under that name
  kPortNotEnabled,
  kEntryRefused,  ///< by the dataplane
  kBeyondCapacity,
  kIpv6,
  kVlan,
  kGroupMac,  ///< no frame comes from a group MAC address
  kMartian,   ///< no frame from this address passes, whatever is allowed
  kBeingChanged,
  kNotGuarded,  ///< the filter is in place, and frames pass by it
};
inline constexpr size_t kHindrances = 14;
/// As metrics name it, "beyond-capacity"; "none" for kNone.
std::string_view NameOf(Hindrance hindrance);

/// kNone when the port filters as it is wanted to. One that is not wanted enabled does not.
Hindrance HindranceOf(const Port& port);

/// How many entries are wanted, and how many of them each hindrance keeps out of force. Walks all entries, which takes
/// about 2 ms for 262,144.
struct EntryTally {
  size_t wanted = 0;
  std::array<size_t, kHindrances> by_hindrance{};
  [[nodiscard]] size_t Of(Hindrance hindrance) const { return by_hindrance.at(static_cast<size_t>(hindrance)); }
  [[nodiscard]] size_t InForce() const { return Of(Hindrance::kNone); }
};
EntryTally TallyEntries(const Table& table);

/// Why a port does not filter as it is wanted to; empty when it does. One that is not wanted enabled has a reason too.
std::string ReasonOf(const Port& port);

/// Why an entry is not in force; empty when it is.
std::string ReasonOf(const Table& table, const Engine& engine, const EntryKey& key, const EntryRow& row);
std::string ReasonOf(const Table& table, const OddKey& key);

/// The rows that clients read: one for each wanted entry (type 0), and one for each port with an allow-all mode (type 1
/// to 3, VLAN 0: the mode holds for all VLANs). `state` is 1 when the row is in force. `flag` is 0 when frames from
/// other sources are dropped at the port, and 1 when they pass: the port is not enabled, absent, in monitor mode, or
/// not guarded.
std::vector<ip_spoofing_mgr::AllowedIpStatusEntry> StatusRows(const Table& table, const Engine& engine);

}  // namespace mgr
