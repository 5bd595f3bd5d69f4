/// @file config_model.h
/// The configuration's vocabulary: the data model's nodes, the texts of their paths, the keys in keypaths.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "confd_lib.h"
#include "ip_spoofing_mgr_client.h"

namespace ip_spoofing_app {

using ip_spoofing_mgr::AllowedAllMode;
using ip_spoofing_mgr::AllowedIpEntry;
using ip_spoofing_mgr::AllowedIpStatusEntry;

inline constexpr uint32_t IP_SPOOFING_NS_HASH = 0x41fef11b;

inline constexpr char kConfigName[] = "anti-ip-spoofing";
inline constexpr char kConfigPath[] = "/config/anti-ip-spoofing";
inline constexpr char kInterfacePath[] = "/config/anti-ip-spoofing/interface";
inline constexpr char kAllowedIpv4Path[] = "/config/anti-ip-spoofing/interface/allowed-ip/ipv4";

// Relative to an interface.
inline constexpr char kAllowedIpv4[] = "allowed-ip/ipv4";
inline constexpr char kAllowedAll[] = "allowed-ip/all";
inline constexpr char kAllowedIpv4All[] = "allowed-ip/ipv4-all";
inline constexpr char kAllowedIpv6All[] = "allowed-ip/ipv6-all";

// Suffixes of an instance's path.
inline constexpr char kInterfaceNameLeaf[] = "/interface-name";
inline constexpr char kAddressLeaf[] = "/address";
inline constexpr char kVlanLeaf[] = "/vlan";
inline constexpr char kMacLeaf[] = "/mac";

/// Elements of a keypath from the root down to an interface's keys, and down to those of an IPv4 entry.
inline constexpr int kInterfaceEntryLength = 4;
inline constexpr int kIpv4EntryLength = 7;

/// Path of an interface by its key, which is inserted as it stands: quotes and braces in it are not escaped.
std::string interface_path(const std::string& name);
/// Path of a list's instance by its position, from 0.
std::string instance_path(const std::string& list_path, int position);

/// The path of a keypath as text, cut to what 8192 bytes hold. Wraps `confd_pp_kpath`.
std::string keypath_text(const confd_hkeypath_t* kp);

/// The interface in whose entry, or below it, the keypath lies. One that ends above an interface entry, or whose key
/// is not a string, is a programming fault and fails an assertion.
std::string interface_name_of(const confd_hkeypath_t* kp);

/// "NONE", "IPV4_ALL", "IPV6_ALL" or "ALL".
const char* allowed_all_name(AllowedAllMode mode);

/// The allow-all mode of the interface at the path `interface`, from the presence of its three leaves as a read session
/// shows them, whose socket is asked for before each test. A leaf that cannot be tested counts as absent.
AllowedAllMode read_allowed_all_mode(const std::function<int()>& socket, const std::string& interface);

/// A record with every byte zero but for the id of interface index 0.
AllowedIpEntry new_entry();

using AddressText = std::array<char, INET6_ADDRSTRLEN>;
/// The entry's address as text, for log lines.
AddressText address_text(const AllowedIpEntry& entry);

}  // namespace ip_spoofing_app
