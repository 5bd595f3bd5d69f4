#pragma once

#include <string>
#include <vector>

#include "dataplane/dataplane.h"
#include "dataplane/nft/rule.h"
#include "dataplane/verdict.h"

/// The verdict table as nf_tables rules of one port.
///
/// What they cannot say: whether the 802.3 length of a frame with a tag is right, because the kernel takes the tag out
/// and shows rules a made-up header without that field. All such frames are dropped as malformed.
namespace mgr::nft {

// Sets of the table. The first three hold the entries; words are four bytes each.
inline constexpr const char* kAnyMac = "any_mac";        ///< port, VLAN, source: entries without MAC
inline constexpr const char* kBound = "bound";           ///< port, VLAN, source, MAC (two words): entries with MAC
inline constexpr const char* kBoundKeys = "bound_to";    ///< port, VLAN, source of the entries with MAC
inline constexpr const char* kSameBytes = "same_bytes";  ///< pairs of words with the same byte
inline constexpr const char* kTags = "tags";
inline constexpr const char* kEncapsulations = "encapsulations";
inline constexpr const char* kIpOverLlc = "ip_over_llc";
inline constexpr const char* kNoRoomForDhcp =
    "no_room_for_dhcp";  ///< IHL, total length of IPv4 with less than kDhcpBytes
/// Pairs of hexadecimal digits at the same place of a length field and of a length: equal ones, and larger ones of the
/// field.
inline constexpr const char* kSameDigits = "same_digits";
inline constexpr const char* kLongerDigits = "longer_digits";

/// UDP, and DHCP up to the end of a hardware address of six bytes.
inline constexpr unsigned kDhcpBytes = 8 + 34;

/// The chains of a port; the first is bound to its interface.
std::vector<std::string> ChainNames(PortId port);
std::string CounterName(PortId port, verdict_reason reason, bool monitored);
/// The rules of all its chains, in order.
std::vector<Rule> PortRules(const PortConfig& port);

}  // namespace mgr::nft
