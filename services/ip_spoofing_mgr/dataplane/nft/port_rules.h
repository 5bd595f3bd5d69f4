#pragma once

#include <string>
#include <vector>

#include "dataplane/dataplane.h"
#include "dataplane/nft/rule.h"
#include "dataplane/verdict.h"

/// The verdict table as nf_tables rules of one port.
///
/// What they cannot say, because no rule compares two lengths of a frame: an 802.3 length field beyond the end of the
/// frame is not seen as malformed (the frame holds no IPv4 that a receiver would take).
namespace mgr::nft {

// Sets of the table. The first three hold the entries; words are four bytes each.
inline constexpr const char* kAnyMac = "any_mac";        ///< port, VLAN, source: entries without MAC
inline constexpr const char* kBound = "bound";           ///< port, VLAN, source, MAC (two words): entries with MAC
inline constexpr const char* kBoundKeys = "bound_to";    ///< port, VLAN, source of the entries with MAC
inline constexpr const char* kSameBytes = "same_bytes";  ///< pairs of words with the same byte
inline constexpr const char* kTags = "tags";
inline constexpr const char* kEncapsulations = "encapsulations";
inline constexpr const char* kIpOverLlc = "ip_over_llc";
inline constexpr const char* kNoRoomForUdp = "no_room_for_udp";  ///< IHL, total length of IPv4 without a UDP header

/// The chains of a port; the first is bound to its interface.
std::vector<std::string> ChainNames(PortId port);
std::string CounterName(PortId port, verdict_reason reason, bool monitored);
/// The rules of all its chains, in order.
std::vector<Rule> PortRules(const PortConfig& port);

}  // namespace mgr::nft
