#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>

namespace test {

/// A configuration of the element, kept as plainly as can be.
using Source = std::pair<uint32_t, int>;  ///< IPv4 address in host order, VLAN
struct Interface {
  bool all = false;
  bool ipv4_all = false;
  bool ipv6_all = false;
  std::map<Source, std::string> sources;  ///< to the MAC address in lower case, "" for any

  bool operator==(const Interface&) const = default;
};
using Configuration = std::map<std::string, Interface>;

/// What the manager must hold, a line for each object: "port eth0", "port eth0 allows all",
/// "source eth0 10.0.0.1 vlan 5 mac any".
using Table = std::set<std::string>;
Table TableOf(const Configuration& configuration);
std::string PortLine(const std::string& interface);
std::string ModeLine(const std::string& interface, const std::string& mode);
std::string SourceLine(const std::string& interface, const std::string& address, int vlan, const std::string& mac);

/// "10.0.0.1".
std::string Dotted(uint32_t address);

/// The data as XML, fit for <config> of an edit-config and for a file.
std::string ToXml(const Configuration& configuration);
/// One <interface> with all that is below it; one <ipv4>. `operation` as for InContainers().
std::string ToXml(const std::string& name, const Interface& interface, const std::string& operation = "");
std::string ToXml(const Source& source, const std::string& mac, const std::string& operation = "");
/// `inside` in the containers around the interface list. `operation`, when given, is the nc:operation of
/// <anti-ip-spoofing>; the prefix nc is declared in any case.
std::string InContainers(const std::string& inside, const std::string& operation = "");
/// " nc:operation="..."" for the start tag of an element.
std::string Operation(const std::string& operation);

using Random = std::mt19937;
/// A whole number from 0 to `bound` - 1.
int Below(Random& random, int bound);
/// Up to `interfaces` interfaces with up to `sources` sources each; small numbers come often, empty ones too. Names and
/// addresses come from small pools, so that two configurations have much in common.
Configuration RandomConfiguration(Random& random, int interfaces, int sources);
std::string RandomInterfaceName(Random& random);
Source RandomSource(Random& random);
std::string RandomMac(Random& random);  ///< "" every other time
Interface RandomInterface(Random& random, int sources);

}  // namespace test
