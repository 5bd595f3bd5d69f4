#include "configuration.h"

#include <array>
#include <cstdio>

#include "netconf/xml.h"

namespace test {
namespace {

/// One is a prefix of another, one has 15 characters, some carry what must be escaped on the way.
constexpr std::array kNames{
    "eth0", "eth1", "eth10",           "eth2",  "sp1", "sp11", "ge-1.100", "x@y", "a:b", "b&w<>",
    "Z",    "zz_z", "longname0123456", "br0+1", "v~1", "c,d;e"};

std::string_view ModeName(const Interface& interface) {
  if (interface.all || (interface.ipv4_all && interface.ipv6_all)) return "all";
  if (interface.ipv6_all) return "ipv6-all";
  return interface.ipv4_all ? "ipv4-all" : "";
}

}  // namespace

std::string PortLine(const std::string& interface) { return "port " + interface; }
std::string ModeLine(const std::string& interface, const std::string& mode) {
  return "port " + interface + " allows " + mode;
}
std::string SourceLine(const std::string& interface, const std::string& address, int vlan, const std::string& mac) {
  return "source " + interface + " " + address + " vlan " + std::to_string(vlan) + " mac " +
         (mac.empty() ? "any" : mac);
}

Table TableOf(const Configuration& configuration) {
  Table table;
  for (const auto& [name, interface] : configuration) {
    table.insert(PortLine(name));
    if (const std::string mode{ModeName(interface)}; !mode.empty()) table.insert(ModeLine(name, mode));
    for (const auto& [source, mac] : interface.sources) {
      table.insert(SourceLine(name, Dotted(source.first), source.second, mac));
    }
  }
  return table;
}

std::string Dotted(uint32_t address) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", address >> 24, address >> 16 & 255U, address >> 8 & 255U,
                address & 255U);
  return text.data();
}

std::string Operation(const std::string& operation) {
  return operation.empty() ? "" : " nc:operation=\"" + operation + "\"";
}

std::string ToXml(const Source& source, const std::string& mac, const std::string& operation) {
  std::string xml = "<ipv4" + Operation(operation) + "><address>" + Dotted(source.first) + "</address><vlan>" +
                    std::to_string(source.second) + "</vlan>";
  if (!mac.empty()) xml += "<mac>" + mac + "</mac>";
  return xml + "</ipv4>";
}

std::string ToXml(const std::string& name, const Interface& interface, const std::string& operation) {
  std::string xml =
      "<interface" + Operation(operation) + "><interface-name>" + netconf::Escaped(name) + "</interface-name>";
  std::string inside;
  if (interface.all) inside += "<all/>";
  if (interface.ipv4_all) inside += "<ipv4-all/>";
  if (interface.ipv6_all) inside += "<ipv6-all/>";
  for (const auto& [source, mac] : interface.sources) inside += ToXml(source, mac);
  if (!inside.empty()) xml += "<allowed-ip>" + inside + "</allowed-ip>";
  return xml + "</interface>";
}

std::string InContainers(const std::string& inside, const std::string& operation) {
  return "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\" "
         "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><anti-ip-spoofing" +
         Operation(operation) + ">" + inside + "</anti-ip-spoofing></config>";
}

std::string ToXml(const Configuration& configuration) {
  std::string inside;
  for (const auto& [name, interface] : configuration) inside += ToXml(name, interface);
  return InContainers(inside);
}

int Below(Random& random, int bound) { return std::uniform_int_distribution<int>{0, bound - 1}(random); }

std::string RandomInterfaceName(Random& random) { return kNames[Below(random, kNames.size())]; }

Source RandomSource(Random& random) {
  constexpr std::array kVlans{0, 0, 0, 1, 2, 100, 4093, 4094};
  const uint32_t net = Below(random, 8) == 0 ? 0xdfffff00U : Below(random, 2) == 0 ? 0x0a000000U : 0xc0a80100U;
  return {net + static_cast<uint32_t>(Below(random, 40)), kVlans[Below(random, kVlans.size())]};
}

std::string RandomMac(Random& random) {
  if (Below(random, 2) == 0) return {};
  std::array<char, 18> text{};
  std::snprintf(text.data(), text.size(), "02:00:5e:%02x:%02x:%02x", Below(random, 256), Below(random, 256),
                Below(random, 3));
  return text.data();
}

Interface RandomInterface(Random& random, int sources) {
  Interface interface;
  interface.all = Below(random, 8) == 0;
  interface.ipv4_all = Below(random, 5) == 0;
  interface.ipv6_all = Below(random, 5) == 0;
  for (int left = Below(random, 4) == 0 ? 0 : Below(random, sources + 1); left > 0; --left) {
    interface.sources[RandomSource(random)] = RandomMac(random);
  }
  return interface;
}

Configuration RandomConfiguration(Random& random, int interfaces, int sources) {
  Configuration configuration;
  for (int left = Below(random, 10) == 0 ? 0 : Below(random, interfaces + 1); left > 0; --left) {
    configuration[RandomInterfaceName(random)] = RandomInterface(random, sources);
  }
  return configuration;
}

}  // namespace test
