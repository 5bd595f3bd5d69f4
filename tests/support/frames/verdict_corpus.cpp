#include "frames/verdict_corpus.h"

#include <algorithm>
#include <utility>

namespace frames {
namespace {

constexpr uint16_t kMoreFragments = 0x2000;
constexpr uint16_t kDontFragment = 0x4000;
constexpr Mac kBroadcast = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

class Rows final {
 public:
  void Mode(verdict_mode mode, bool enabled = true) {
    mode_ = mode;
    enabled_ = enabled;
  }
  void Expect(verdict_reason reason, verdict_row row) {
    reason_ = reason;
    row_ = row;
  }
  void Add(std::string name, Frame frame) {
    rows_.push_back({std::move(name), mode_, std::move(frame), reason_, row_, enabled_});
  }
  std::vector<VerdictRow> Take() { return std::move(rows_); }

 private:
  std::vector<VerdictRow> rows_;
  verdict_mode mode_ = VERDICT_MODE_NONE;
  bool enabled_ = true;
  verdict_reason reason_ = VERDICT_NON_IP;
  verdict_row row_ = VERDICT_ROW_NON_IP;
};

FrameBuilder From(const Mac& mac = kStation) { return FrameBuilder{mac}; }
Ipv4 Source(const char* text) { return {.source_be = Ip(text)}; }
Arp Sender(const char* text, uint16_t operation = 1, const Mac& mac = kStation) {
  return {.operation = operation, .sender_mac = mac, .sender_be = Ip(text)};
}
Ipv4 Discover() { return DhcpRequest({.client = kStation}); }

void AddUnfiltered(Rows& rows) {
  for (const bool enabled : {false, true}) {
    const std::string prefix = enabled ? "all: " : "not enabled: ";
    const verdict_mode mode = enabled ? VERDICT_MODE_ALL : VERDICT_MODE_NONE;
    rows.Mode(mode, enabled);
    if (enabled)
      rows.Expect(VERDICT_ALLOW_ALL, VERDICT_ROW_ALLOW_ALL);
    else
      rows.Expect(VERDICT_NOT_ENABLED, VERDICT_ROW_NOT_ENABLED);
    rows.Add(prefix + "unknown source", From().With(Source("192.0.2.66")));
    rows.Add(prefix + "unknown source with a tag", From().VlanTag(7).With(Source("192.0.2.66")));
    rows.Add(prefix + "two tags", From().VlanTag(7).VlanTag(8).With(Source("192.0.2.66")));
    rows.Add(prefix + "header too short", From().With(Ipv4{.source_be = Ip("192.0.2.66"), .header_words = 4}));
    rows.Add(prefix + "zero source MAC", From(Mac{}).With(Source("192.0.2.66")));
    rows.Add(prefix + "ARP of an unknown sender", From().With(Sender("192.0.2.66")));
    rows.Add(prefix + "IPv6", From().Type(0x86dd));
    rows.Add(prefix + "MPLS", From().Type(0x8847));
  }
  rows.Mode(VERDICT_MODE_NONE);
}

void AddMalformed(Rows& rows) {
  rows.Expect(VERDICT_MALFORMED, VERDICT_ROW_MALFORMED);
  for (const size_t size : {0, 6, 12, 13})
    rows.Add("Ethernet cut after " + std::to_string(size) + " bytes", From().With(Source("10.0.0.1")).Cut(size));
  for (const size_t size : {14, 15, 16, 17})
    rows.Add("tag cut, " + std::to_string(size) + " bytes", From().VlanTag(100).With(Source("10.0.0.1")).Cut(size));
  rows.Add("IPv4 header cut after 19 bytes", From().With(Source("10.0.0.1")).Cut(14 + 19));
  rows.Add("IPv4 without a byte", From().With(Source("10.0.0.1")).Cut(14));
  rows.Add("tagged IPv4 header cut", From().VlanTag(100).With(Source("10.0.0.1")).Cut(18 + 19));
  rows.Add("total length one byte more than the frame", From().With(Source("10.0.0.1")).Cut(14 + 27));
  rows.Add("tagged, total length one byte more than the frame",
           From().VlanTag(100).With(Source("10.0.0.1")).Cut(18 + 27));
  rows.Add("total length 0", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .total_length = 0}));
  rows.Add("total length 0, TCP", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .protocol = 6, .total_length = 0}));
  rows.Add("total length 19", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .total_length = 19}));
  rows.Add("total length 65535", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .total_length = 65535}));
  rows.Add("total length within the options",
           From().With(Ipv4{.source_be = Ip("10.0.0.1"), .header_words = 7, .total_length = 27}));
  rows.Add("IHL 4", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .header_words = 4}));
  rows.Add("IHL 0", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .header_words = 0}));
  rows.Add("options cut", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .header_words = 15}).Cut(14 + 59));
  for (const uint8_t version : {0, 3, 5, 6, 15})
    rows.Add("IPv4 type with version " + std::to_string(version),
             From().With(Ipv4{.source_be = Ip("10.0.0.1"), .version = version}));
  rows.Add("ARP cut after 27 bytes", From().With(Sender("10.0.0.1")).Cut(14 + 27));
  rows.Add("ARP without a byte", From().With(Sender("10.0.0.1")).Cut(14));
  for (const auto& [hardware, protocol] : {std::pair{5, 4}, {7, 4}, {0, 4}, {6, 3}, {6, 5}, {6, 16}, {8, 4}}) {
    Arp packet = Sender("10.0.0.1");
    packet.hardware_size = static_cast<uint8_t>(hardware);
    packet.protocol_size = static_cast<uint8_t>(protocol);
    rows.Add("ARP with sizes " + std::to_string(hardware) + " and " + std::to_string(protocol),
             From().With(packet).Pad(100));
  }
  rows.Add("802.3 length one byte more than the frame", From().Llc(0x42, 0x42, Bytes(30), 34));
  for (const auto& [field, there] : {std::pair{4, 3},
                                     {0x100, 0xff},
                                     {0x100, 0x0f},
                                     {0x1ff, 0x1fe},
                                     {0x210, 0x20f},
                                     {0x2f0, 0x2e0},
                                     {0x5dc, 0x5db},
                                     {0x5dc, 0x100},
                                     {0x010, 0x00f}})
    rows.Add("802.3 length " + std::to_string(field) + " of " + std::to_string(there),
             From().Llc(0x42, 0x42, Bytes(static_cast<size_t>(there - 3)), static_cast<uint16_t>(field)));
  rows.Add("802.3 length 0", From().Type(0));
  rows.Add("802.3 length 2: no room for LLC", From().Type(2));
  rows.Add("length 1501", From().Type(1501, Bytes(1501)));
  rows.Add("802.3 length 2, tagged", From().VlanTag(100).Type(2));
  rows.Add("802.3 length one byte more than the frame, tagged", From().VlanTag(100).Llc(0x42, 0x42, Bytes(30), 34));
  rows.Add("SNAP, length one byte more than the frame, tagged", From().VlanTag(100).Llc(0xaa, 0xaa, Bytes(30), 34));
  rows.Add("length 1501, tagged with VID 0, an IPv4 header after it",
           From().VlanTag(0).Type(1501, {0x45, 0, 0, 28}).Pad(60));
  rows.Add("type 0x05ff: neither a length nor a type", From().Type(0x05ff, Bytes(1600)));
  rows.Add("malformed comes before a bad source MAC", From(Mac{}).With(Ipv4{.header_words = 4}));
  rows.Add("malformed comes before the VLAN", From().VlanTag(4095).With(Ipv4{.header_words = 4}));
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Add("ipv4-all: IHL 4", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .header_words = 4}));
  rows.Add("ipv4-all: ARP sizes", From().With(Arp{.sender_mac = kStation, .protocol_size = 5}).Pad(60));
  rows.Mode(VERDICT_MODE_NONE);
}

void AddSourceMac(Rows& rows) {
  rows.Expect(VERDICT_BAD_SOURCE_MAC, VERDICT_ROW_SOURCE_MAC);
  rows.Add("source MAC zero", From(Mac{}).With(Source("10.0.0.1")));
  rows.Add("source MAC broadcast", From(kBroadcast).With(Source("10.0.0.1")));
  rows.Add("source MAC group", From(Mac{0x01, 0, 0x5e, 0, 0, 1}).With(Source("10.0.0.1")));
  rows.Add("source MAC group bit alone", From(Mac{0x01}).With(Source("10.0.0.1")));
  rows.Add("source MAC zero, ARP", From(Mac{}).With(Sender("10.0.0.1", 1, Mac{})));
  rows.Add("source MAC zero, not IP", From(Mac{}).Type(0x88cc));
  rows.Add("a bad source MAC comes before the VLAN", From(Mac{}).VlanTag(1).VlanTag(2).With(Source("10.0.0.1")));
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Add("ipv4-all: source MAC zero", From(Mac{}).With(Source("10.0.0.1")));
  rows.Mode(VERDICT_MODE_NONE);
  rows.Expect(VERDICT_ENTRY, VERDICT_ROW_ENTRY);
  rows.Add("source MAC 00:00:00:00:00:01", From(Mac{0, 0, 0, 0, 0, 1}).With(Source("10.0.0.1")));
  rows.Add("source MAC 02:00:00:00:00:00", From(Mac{2}).With(Source("10.0.0.1")));
  rows.Add("source MAC fe:ff:ff:ff:ff:ff", From(Mac{0xfe, 0xff, 0xff, 0xff, 0xff, 0xff}).With(Source("10.0.0.1")));
}

void AddVlan(Rows& rows) {
  rows.Expect(VERDICT_ENTRY, VERDICT_ROW_ENTRY);
  rows.Add("one tag, VID 0", From().VlanTag(0).With(Source("10.0.0.1")));
  rows.Add("one tag, VID 0, priority 7", From().VlanTag(0xe000).With(Source("10.0.0.1")));
  rows.Add("one tag, VID 1", From().VlanTag(1).With(Source("10.0.1.1")));
  rows.Add("one tag, VID 100, drop eligible", From().VlanTag(0x1064).With(Source("10.0.0.1")));
  rows.Add("one tag, VID 4094", From().VlanTag(4094).With(Source("10.0.1.2")));
  rows.Expect(VERDICT_VLAN, VERDICT_ROW_VLAN);
  rows.Add("one tag, VID 4095", From().VlanTag(4095).With(Source("10.0.0.1")));
  rows.Add("one tag, VID 4095, priority 7", From().VlanTag(0xffff).With(Source("10.0.0.1")));
  rows.Add("802.1ad tag, VID 100", From().VlanTag(100, 0x88a8).With(Source("10.0.0.1")));
  rows.Add("802.1ad tag, VID 0", From().VlanTag(0, 0x88a8).With(Source("10.0.0.1")));
  rows.Add("802.1ad outside 802.1Q", From().VlanTag(100, 0x88a8).VlanTag(100).With(Source("10.0.0.1")));
  rows.Add("802.1Q outside 802.1ad", From().VlanTag(100).VlanTag(100, 0x88a8).With(Source("10.0.0.1")));
  rows.Add("two tags", From().VlanTag(100).VlanTag(100).With(Source("10.0.0.1")));
  rows.Add("two tags, the first VID 0", From().VlanTag(0).VlanTag(100).With(Source("10.0.0.1")));
  rows.Add("two tags, both VID 0", From().VlanTag(0).VlanTag(0).With(Source("10.0.0.1")));
  rows.Add("three tags", From().VlanTag(100).VlanTag(100).VlanTag(100).With(Source("10.0.0.1")));
  rows.Add("two tags around a broken IPv4 header", From().VlanTag(100).VlanTag(100).With(Ipv4{.header_words = 4}));
  rows.Add("802.1ad tag, not IP", From().VlanTag(100, 0x88a8).Type(0x88cc));
  rows.Add("802.1ad tag, ARP", From().VlanTag(100, 0x88a8).With(Sender("10.0.0.1")));
  rows.Add("two tags around LLDP", From().VlanTag(1).VlanTag(1).Type(0x88cc));
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Add("ipv4-all: two tags", From().VlanTag(100).VlanTag(100).With(Source("10.0.0.1")));
  rows.Add("ipv4-all: VID 4095", From().VlanTag(4095).With(Source("10.0.0.1")));
  rows.Mode(VERDICT_MODE_IPV6_ALL);
  rows.Add("ipv6-all: 802.1ad tag", From().VlanTag(5, 0x88a8).Type(0x86dd));
  rows.Mode(VERDICT_MODE_NONE);
  rows.Expect(VERDICT_MALFORMED, VERDICT_ROW_MALFORMED);
  rows.Add("the second tag cut after one byte", From().VlanTag(100).Type(0x8100, {0}));
  rows.Add("the second tag cut after three bytes", From().VlanTag(100).Type(0x8100, {0, 0, 0}));
}

void AddMartian(Rows& rows) {
  for (const auto& [mode, prefix] : {std::pair{VERDICT_MODE_NONE, ""},
                                     {VERDICT_MODE_IPV4_ALL, "ipv4-all: "},
                                     {VERDICT_MODE_IPV6_ALL, "ipv6-all: "}}) {
    rows.Mode(mode);
    rows.Expect(VERDICT_MARTIAN, VERDICT_ROW_MARTIAN);
    for (const char* source : {"0.0.0.0", "0.0.0.1", "0.255.255.255", "127.0.0.0", "127.0.0.1", "127.255.255.255",
                               "224.0.0.0", "224.0.0.1", "239.255.255.255", "240.0.0.0", "255.255.255.254"})
      rows.Add(prefix + std::string{source}, From().With(Source(source)));
    rows.Add(prefix + std::string{"127.0.0.1, tagged"}, From().VlanTag(7).With(Source("127.0.0.1")));
    rows.Add(prefix + std::string{"127.0.0.1, with options"},
             From().With(Ipv4{.source_be = Ip("127.0.0.1"), .header_words = 15}));
    rows.Add(prefix + std::string{"224.0.0.1, a later fragment"},
             From().With(Ipv4{.source_be = Ip("224.0.0.1"), .flags_and_offset = 9}));
    rows.Add(prefix + std::string{"255.255.255.255, with an entry"}, From().With(Source("255.255.255.255")));
    rows.Add(prefix + std::string{"0.0.0.0, with an entry"}, From().VlanTag(4).With(Source("0.0.0.0")));
  }
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Expect(VERDICT_IPV4_ALL, VERDICT_ROW_IPV4_ALL);
  for (const char* source : {"1.0.0.0", "126.255.255.255", "128.0.0.0", "223.255.255.255"})
    rows.Add(std::string{"ipv4-all: "} + source, From().With(Source(source)));
  rows.Mode(VERDICT_MODE_NONE);
  rows.Expect(VERDICT_NO_ENTRY, VERDICT_ROW_NO_ENTRY);
  for (const char* source : {"1.0.0.0", "126.255.255.255", "128.0.0.0", "223.255.255.255"})
    rows.Add(source, From().With(Source(source)));
}

/// The union of two modes, in force between them.
void AddBothProtocols(Rows& rows) {
  rows.Mode(VERDICT_MODE_IPV4_AND_IPV6);
  rows.Expect(VERDICT_IPV4_ALL, VERDICT_ROW_IPV4_ALL);
  rows.Add("both: unknown source", From().With(Source("192.0.2.66")));
  rows.Add("both: unknown source, tagged", From().VlanTag(7).With(Source("192.0.2.66")));
  rows.Expect(VERDICT_IPV4_ALL, VERDICT_ROW_ARP);
  rows.Add("both: ARP of an unknown sender", From().With(Sender("192.0.2.66", 2)));
  rows.Expect(VERDICT_IPV6_ALL, VERDICT_ROW_IPV6_ALL);
  rows.Add("both: IPv6", From().Type(0x86dd));
  rows.Expect(VERDICT_MARTIAN, VERDICT_ROW_MARTIAN);
  rows.Add("both: 127.0.0.1", From().With(Source("127.0.0.1")));
  rows.Expect(VERDICT_ENCAPSULATED, VERDICT_ROW_ENCAPSULATED);
  for (const uint16_t type : {0x8847, 0x8864, 0x88e7})
    rows.Add("both: type " + Hex({static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type & 0xff)}),
             From().Type(type));
  rows.Add("both: SNAP with IPv4", From().Llc(0xaa, 0xaa, {0, 0, 0, 8, 0, 0x45, 0, 0, 20}));
  rows.Expect(VERDICT_VLAN, VERDICT_ROW_VLAN);
  rows.Add("both: two tags", From().VlanTag(1).VlanTag(1).With(Source("192.0.2.66")));
  rows.Expect(VERDICT_MALFORMED, VERDICT_ROW_MALFORMED);
  rows.Add("both: IHL 4", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .header_words = 4}));
  rows.Expect(VERDICT_BAD_SOURCE_MAC, VERDICT_ROW_SOURCE_MAC);
  rows.Add("both: source MAC zero", From(Mac{}).With(Source("10.0.0.1")));
  rows.Mode(VERDICT_MODE_NONE);
}

void AddIpv4(Rows& rows) {
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Expect(VERDICT_IPV4_ALL, VERDICT_ROW_IPV4_ALL);
  rows.Add("ipv4-all: unknown source", From().With(Source("192.0.2.66")));
  rows.Add("ipv4-all: unknown source, tagged", From().VlanTag(7).With(Source("192.0.2.66")));
  rows.Add("ipv4-all: entry with another MAC", From(kOtherStation).With(Source("10.0.0.2")));
  rows.Add("ipv4-all: DHCP", From().With(Discover()));
  rows.Add("ipv4-all: DHCP for another MAC", From(kOtherStation).With(Discover()));
  rows.Mode(VERDICT_MODE_NONE);

  rows.Expect(VERDICT_ENTRY, VERDICT_ROW_ENTRY);
  rows.Add("entry without MAC", From().With(Source("10.0.0.1")));
  rows.Add("entry without MAC, another station", From(kOtherStation).With(Source("10.0.0.1")));
  rows.Add("entry with the frame's MAC", From().With(Source("10.0.0.2")));
  rows.Add("entry with the frame's MAC, tagged", From().VlanTag(100).With(Source("10.0.0.3")));
  rows.Add("entry, with options", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .header_words = 15}));
  rows.Add("entry, header alone", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .payload = 0}).Cut(34));
  rows.Add("entry, padded", From().With(Source("10.0.0.1")).Pad(60));
  rows.Add("entry, first fragment", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .flags_and_offset = kMoreFragments}));
  rows.Add("entry, last fragment", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .flags_and_offset = 100}));
  rows.Add("entry, 1500 bytes", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .payload = 1480}));
  rows.Add("entry, TCP", From().With(Ipv4{.source_be = Ip("10.0.0.1"), .protocol = 6, .payload = 20}));
  rows.Add("entry, IP in IP: the outer source counts",
           From().With(Ipv4{.source_be = Ip("10.0.0.1"), .protocol = 4, .payload = 28}));

  rows.Expect(VERDICT_MAC_MISMATCH, VERDICT_ROW_MAC_MISMATCH);
  rows.Add("entry with another MAC", From(kOtherStation).With(Source("10.0.0.2")));
  rows.Add("entry with a MAC that differs in the first byte", From(Mac{6, 0, 0, 0, 0, 0x0a}).With(Source("10.0.0.2")));
  rows.Add("entry with a MAC that differs in the middle", From(Mac{2, 0, 0, 1, 0, 0x0a}).With(Source("10.0.0.2")));
  rows.Add("entry with another MAC, tagged", From(kOtherStation).VlanTag(100).With(Source("10.0.0.3")));
}

void AddDhcp(Rows& rows) {
  rows.Expect(VERDICT_DHCP, VERDICT_ROW_DHCP);
  const auto with = [](auto change) {
    Ipv4 packet = Discover();
    change(packet);
    return packet;
  };
  rows.Add("DHCP", From().With(Discover()));
  rows.Add("DHCP, tagged", From().VlanTag(7).With(Discover()));
  rows.Add("DHCP, with all options of IPv4", From().With(with([](Ipv4& p) { p.header_words = 15; })));
  rows.Add("DHCP, don't-fragment", From().With(with([](Ipv4& p) { p.flags_and_offset = kDontFragment; })));
  rows.Add("DHCP up to the hardware address", From().With(with([](Ipv4& p) { p.payload = 42; })));
  rows.Add("DHCP, tagged, options, up to the hardware address",
           From().VlanTag(7).With(with([](Ipv4& p) { p.header_words = 15, p.payload = 42; })));
  rows.Add("DHCP, tagged, with an entry 0.0.0.0", From().VlanTag(4).With(Discover()));
  rows.Add("DHCP, with an entry 0.0.0.0 of another MAC", From().VlanTag(5).With(Discover()));
  rows.Add("DHCP, another hardware type", From().With(DhcpRequest({.client = kStation, .hardware = 6})));

  rows.Expect(VERDICT_DHCP_MAC, VERDICT_ROW_DHCP_MAC);
  rows.Add("DHCP for another MAC", From(kOtherStation).With(Discover()));
  rows.Add("DHCP for another MAC, tagged", From(kOtherStation).VlanTag(7).With(Discover()));
  for (size_t byte = 0; byte < 6; ++byte) {
    Mac client = kStation;
    client[byte] ^= 0x10;
    rows.Add("DHCP for a MAC that differs in byte " + std::to_string(byte),
             From().With(DhcpRequest({.client = client})));
  }
  rows.Add("DHCP for MAC zero", From().With(DhcpRequest({})));

  rows.Expect(VERDICT_MARTIAN, VERDICT_ROW_MARTIAN);
  rows.Add("DHCP, a reply", From().With(DhcpRequest({.client = kStation, .operation = 2})));
  rows.Add("DHCP, hardware address of 5 bytes", From().With(DhcpRequest({.client = kStation, .hardware_size = 5})));
  rows.Add("DHCP of a relay", From().With(DhcpRequest({.client = kStation, .relay_be = Ip("10.0.0.254")})));
  rows.Add("DHCP of a relay, one bit", From().With(DhcpRequest({.client = kStation, .relay_be = Ip("0.0.0.1")})));
  rows.Add("DHCP, UDP header alone", From().With(with([](Ipv4& p) { p.payload = 8; })));
  rows.Add("DHCP, hardware address cut", From().With(with([](Ipv4& p) { p.payload = 41; })));
  rows.Add("DHCP from an address", From().With(with([](Ipv4& p) { p.source_be = Ip("0.0.0.1"); })));
  rows.Add("DHCP to one server", From().With(with([](Ipv4& p) { p.destination_be = Ip("10.0.0.254"); })));
  rows.Add("DHCP to 255.255.255.254", From().With(with([](Ipv4& p) { p.destination_be = Ip("255.255.255.254"); })));
  rows.Add("DHCP from port 67", From().With(with([](Ipv4& p) { p.source_port = 67; })));
  rows.Add("DHCP from port 69", From().With(with([](Ipv4& p) { p.source_port = 69; })));
  rows.Add("DHCP to port 66", From().With(with([](Ipv4& p) { p.destination_port = 66; })));
  rows.Add("DHCP to port 68", From().With(with([](Ipv4& p) { p.destination_port = 68; })));
  rows.Add("DHCP over TCP", From().With(with([](Ipv4& p) { p.protocol = 6; })));
  rows.Add("DHCP, first fragment", From().With(with([](Ipv4& p) { p.flags_and_offset = kMoreFragments; })));
  rows.Add("DHCP, a later fragment", From().With(with([](Ipv4& p) { p.flags_and_offset = 1; })));
  rows.Add("DHCP, the last possible fragment", From().With(with([](Ipv4& p) { p.flags_and_offset = 0x1fff; })));
  rows.Add("DHCP, UDP header cut by the total length",
           From().With(with([](Ipv4& p) { p.total_length = 27, p.payload = 8; })));
  rows.Add("DHCP, hardware address cut by the total length", From().With(with([](Ipv4& p) { p.total_length = 61; })));
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Add("ipv4-all: DHCP of a relay", From().With(DhcpRequest({.client = kStation, .relay_be = Ip("10.0.0.254")})));
  rows.Mode(VERDICT_MODE_NONE);
}

void AddNoEntry(Rows& rows) {
  rows.Expect(VERDICT_NO_ENTRY, VERDICT_ROW_NO_ENTRY);
  rows.Add("unknown source", From().With(Source("192.0.2.66")));
  rows.Add("the address below an entry", From().With(Source("10.0.0.0")));
  rows.Add("the address above an entry", From().With(Source("10.0.0.4")));
  rows.Add("an entry's address in reverse", From().With(Source("1.0.0.10")));
  rows.Add("an entry of another VLAN", From().VlanTag(101).With(Source("10.0.0.1")));
  rows.Add("an entry of VLAN 0, tagged", From().VlanTag(100).With(Source("10.0.0.2")));
  rows.Add("an entry of VLAN 100, untagged", From().With(Source("10.0.0.3")));
  rows.Add("an entry of VLAN 100, VID 0", From().VlanTag(0).With(Source("10.0.0.3")));
  rows.Add("an entry of another port", From().With(Source("10.9.9.9")));
  rows.Add("unknown source, first fragment",
           From().With(Ipv4{.source_be = Ip("192.0.2.66"), .flags_and_offset = kMoreFragments}));
  rows.Add("unknown source, a later fragment", From().With(Ipv4{.source_be = Ip("192.0.2.66"), .flags_and_offset = 9}));
  rows.Add("unknown source, with options", From().With(Ipv4{.source_be = Ip("192.0.2.66"), .header_words = 15}));
  rows.Add("unknown source, an allowed destination",
           From().With(Ipv4{.source_be = Ip("192.0.2.66"), .destination_be = Ip("10.0.0.1")}));
  rows.Add("unknown source, to the broadcast MAC", FrameBuilder{kStation, kBroadcast}.With(Source("192.0.2.66")));
  rows.Mode(VERDICT_MODE_IPV6_ALL);
  rows.Add("ipv6-all: unknown source", From().With(Source("192.0.2.66")));
  rows.Mode(VERDICT_MODE_NONE);
}

void AddArp(Rows& rows) {
  rows.Expect(VERDICT_ARP_MAC, VERDICT_ROW_ARP_MAC);
  rows.Add("ARP request for another MAC", From().With(Sender("10.0.0.1", 1, kOtherStation)));
  rows.Add("ARP reply for another MAC", From().With(Sender("10.0.0.1", 2, kOtherStation)));
  rows.Add("ARP request, sender MAC differs in the last byte",
           From().With(Sender("10.0.0.1", 1, Mac{2, 0, 0, 0, 0, 0x0c})));
  rows.Add("ARP probe for another MAC", From().With(Sender("0.0.0.0", 1, kOtherStation)));
  rows.Add("ARP of an unknown sender for another MAC", From().With(Sender("192.0.2.66", 1, kOtherStation)));
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Add("ipv4-all: ARP for another MAC", From().With(Sender("10.0.0.1", 2, kOtherStation)));
  rows.Expect(VERDICT_IPV4_ALL, VERDICT_ROW_ARP);
  rows.Add("ipv4-all: ARP of an unknown sender", From().With(Sender("192.0.2.66", 2)));
  rows.Expect(VERDICT_ARP, VERDICT_ROW_ARP);
  rows.Add("ipv4-all: ARP reply from 0.0.0.0", From().With(Sender("0.0.0.0", 2)));
  for (const char* sender : {"0.0.0.1", "127.0.0.1", "224.0.0.1", "255.255.255.255"}) {
    rows.Add(std::string{"ipv4-all: ARP of "} + sender, From().With(Sender(sender)));
    rows.Add(std::string{"ipv4-all: ARP reply of "} + sender, From().VlanTag(7).With(Sender(sender, 2)));
  }
  rows.Mode(VERDICT_MODE_NONE);

  rows.Expect(VERDICT_ENTRY, VERDICT_ROW_ARP);
  rows.Add("ARP request of an entry", From().With(Sender("10.0.0.1")));
  rows.Add("ARP reply of an entry", From().With(Sender("10.0.0.1", 2)));
  rows.Add("ARP request of an entry with MAC", From().With(Sender("10.0.0.2")));
  rows.Add("ARP request of an entry, tagged", From().VlanTag(100).With(Sender("10.0.0.3")));
  rows.Add("ARP request of an entry, padded", From().With(Sender("10.0.0.1")).Pad(60));
  Arp gratuitous = Sender("10.0.0.1");
  gratuitous.target_be = gratuitous.sender_be;
  rows.Add("gratuitous ARP of an entry", From().With(gratuitous));
  rows.Add("ARP of an entry, another operation", From().With(Sender("10.0.0.1", 9)));
  rows.Expect(VERDICT_ARP_PROBE, VERDICT_ROW_ARP);
  rows.Add("ARP probe", From().With(Sender("0.0.0.0")));
  rows.Add("ARP probe, tagged", From().VlanTag(7).With(Sender("0.0.0.0")));

  rows.Expect(VERDICT_ARP, VERDICT_ROW_ARP);
  rows.Add("ARP reply from 0.0.0.0", From().With(Sender("0.0.0.0", 2)));
  rows.Add("ARP reply from 0.0.0.0 with an entry 0.0.0.0", From().VlanTag(4).With(Sender("0.0.0.0", 2)));
  rows.Add("ARP of 255.255.255.255, with an entry", From().With(Sender("255.255.255.255")));
  rows.Add("ARP of 127.0.0.1", From().With(Sender("127.0.0.1")));
  rows.Add("ARP from 0.0.0.0, operation 0", From().With(Sender("0.0.0.0", 0)));
  rows.Add("ARP from 0.0.0.0, operation 257", From().With(Sender("0.0.0.0", 0x0101)));
  rows.Add("ARP request of 11.0.0.0, zeroes after its first byte", From().With(Sender("11.0.0.0")));
  rows.Add("ARP request of an unknown sender", From().With(Sender("192.0.2.66")));
  rows.Add("ARP reply of an unknown sender", From().With(Sender("192.0.2.66", 2)));
  rows.Add("gratuitous ARP of an unknown sender",
           From().With(Arp{.sender_mac = kStation, .sender_be = Ip("192.0.2.66"), .target_be = Ip("192.0.2.66")}));
  rows.Add("ARP of an entry of another VLAN", From().VlanTag(101).With(Sender("10.0.0.1")));
  rows.Add("ARP of an entry with another MAC", From(kOtherStation).With(Sender("10.0.0.2", 1, kOtherStation)));
  rows.Add("ARP for an allowed target",
           From().With(Arp{.sender_mac = kStation, .sender_be = Ip("192.0.2.66"), .target_be = Ip("10.0.0.1")}));
  rows.Add("ARP of IEEE 802 hardware",
           From().With(Arp{.sender_mac = kStation, .sender_be = Ip("10.0.0.1"), .hardware = 6}));
  rows.Add("ARP of another protocol",
           From().With(Arp{.sender_mac = kStation, .sender_be = Ip("10.0.0.1"), .protocol = 0x86dd}));
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Add("ipv4-all: ARP of IEEE 802 hardware",
           From().With(Arp{.sender_mac = kStation, .sender_be = Ip("10.0.0.1"), .hardware = 6}));
  rows.Expect(VERDICT_ARP, VERDICT_ROW_RARP);
  rows.Add("ipv4-all: RARP", From().With(Sender("10.0.0.1", 3), 0x8035));
  rows.Mode(VERDICT_MODE_NONE);
  rows.Add("RARP of an entry", From().With(Sender("10.0.0.1", 3), 0x8035));
  rows.Add("RARP, tagged", From().VlanTag(100).With(Sender("0.0.0.0", 3), 0x8035));
  rows.Add("RARP without a byte", From().Type(0x8035, {}));
}

void AddIpv6(Rows& rows) {
  Bytes packet(48);
  packet[0] = 0x60;
  packet[6] = 58;
  for (const auto mode : {VERDICT_MODE_NONE, VERDICT_MODE_IPV4_ALL}) {
    const std::string prefix = mode == VERDICT_MODE_NONE ? "" : "ipv4-all: ";
    rows.Mode(mode);
    rows.Expect(VERDICT_IPV6, VERDICT_ROW_IPV6);
    rows.Add(prefix + "IPv6", From().Type(0x86dd, packet));
    rows.Add(prefix + "IPv6, tagged", From().VlanTag(100).Type(0x86dd, packet));
    rows.Add(prefix + "IPv6 without a byte", From().Type(0x86dd, {}));
    rows.Expect(VERDICT_NON_IP, VERDICT_ROW_NON_IP);
    rows.Add(prefix + "the type below IPv6", From().Type(0x86dc, packet));
    rows.Add(prefix + "the type above IPv6", From().Type(0x86de, packet));
  }
  rows.Mode(VERDICT_MODE_IPV6_ALL);
  rows.Expect(VERDICT_IPV6_ALL, VERDICT_ROW_IPV6_ALL);
  rows.Add("ipv6-all: IPv6", From().Type(0x86dd, packet));
  rows.Add("ipv6-all: IPv6, tagged", From().VlanTag(100).Type(0x86dd, packet));
  rows.Mode(VERDICT_MODE_NONE);
}

void AddEncapsulated(Rows& rows) {
  rows.Expect(VERDICT_ENCAPSULATED, VERDICT_ROW_ENCAPSULATED);
  for (const uint16_t type : {0x08ff, 0x1001, 0x100f, 0x22e9, 0x22eb, 0x22f1, 0x22f3, 0x4305, 0x6558, 0x6559, 0x8180,
                              0x876b, 0x880b, 0x883e, 0x8847, 0x8848, 0x884c, 0x8863, 0x8864, 0x886c, 0x8870, 0x8884,
                              0x88b7, 0x88be, 0x88e5, 0x88e7, 0x8903, 0x8909, 0x8926, 0x892f, 0x893b, 0x893f, 0x8946,
                              0x8947, 0x894f, 0x9100, 0x9200, 0x9300, 0xa0ed, 0xdada, 0xdadb, 0xdadc, 0xf1c1}) {
    const std::string hex = Hex({static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type & 0xff)});
    rows.Add("encapsulation " + hex, From().Type(type));
    rows.Add("encapsulation " + hex + ", tagged", From().VlanTag(100).Type(type));
  }
  rows.Add("type 8870 with SNAP and IPv4", From().Type(0x8870, {0xaa, 0xaa, 3, 0, 0, 0, 8, 0, 0x45, 0, 0, 20}));
  rows.Add("encapsulation without a byte", From().Type(0x8847, {}));
  rows.Add("SNAP with IPv4", From().Llc(0xaa, 0xaa, {0, 0, 0, 8, 0, 0x45, 0, 0, 20}));
  rows.Add("SNAP with another OUI", From().Llc(0xaa, 0xaa, {0, 0, 0x0c, 0x20, 0}));
  rows.Add("SNAP, tagged", From().VlanTag(100).Llc(0xaa, 0xaa, {0, 0, 0, 8, 0}));
  rows.Add("SNAP, LLC alone", From().Llc(0xaa, 0xaa, {}));
  rows.Add("SNAP, the destination half", From().Llc(0xaa, 0x42));
  rows.Add("SNAP, the source half, a response", From().Llc(0x42, 0xab));
  rows.Add("SNAP, the destination half, a group", From().Llc(0xab, 0x42));
  rows.Add("IP over LLC", From().Llc(0x06, 0x06));
  rows.Add("IP over LLC, the source half", From().Llc(0x42, 0x06));
  rows.Add("ARP over LLC", From().Llc(0x98, 0x98));
  rows.Add("ARP over LLC, the source half, a response", From().Llc(0x42, 0x99));
  rows.Mode(VERDICT_MODE_IPV4_ALL);
  rows.Add("ipv4-all: SNAP with IPv4", From().Llc(0xaa, 0xaa, {0, 0, 0, 8, 0, 0x45, 0, 0, 20}));
  rows.Mode(VERDICT_MODE_NONE);

  rows.Expect(VERDICT_NON_IP, VERDICT_ROW_NON_IP);
  rows.Add("spanning tree", From().Llc(0x42, 0x42));
  rows.Add("spanning tree, padded", From().Llc(0x42, 0x42).Pad(60));
  rows.Add("LLC alone", From().Llc(0x42, 0x42, {}));
  rows.Add("LLC of 1500 bytes", From().Llc(0xfe, 0xfe, Bytes(1497)));
  rows.Add("LLC of 1500 bytes in a larger frame", From().Llc(0xfe, 0xfe, Bytes(2500), 1500));
  rows.Add("LLC of 31 bytes in 32", From().Llc(0x42, 0x42, Bytes(29), 31));
  rows.Add("LLC of 255 bytes in 256", From().Llc(0x42, 0x42, Bytes(253), 255));
  rows.Add("LLC of 16 bytes in 2003", From().Llc(0x42, 0x42, Bytes(2000), 16));
  rows.Add("LLC, tagged", From().VlanTag(100).Llc(0x42, 0x42));
  rows.Add("raw 802.3", From().Type(0x003f, Bytes(63, 0xff)));
  rows.Add("raw 802.3, tagged", From().VlanTag(0).Type(0x003f, Bytes(63, 0xff)));
  rows.Add("LLC next to ARP", From().Llc(0x96, 0x9a));
  rows.Add("LLC next to SNAP", From().Llc(0xa8, 0xac));
  rows.Add("LLC next to IP", From().Llc(0x04, 0x08));
  for (const uint16_t type : {0x0800 - 1, 0x08fe, 0x0900, 0x1000, 0x1010, 0x22ea, 0x22f0, 0x22f4, 0x8871, 0x888e,
                              0x88a2, 0x88fb, 0x8899, 0x890d, 0x8915, 0x8940})
    rows.Add("control or network of its own, type " +
                 Hex({static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type & 0xff)}),
             From().Type(type));
  for (const uint16_t type :
       {0x0600, 0x0801, 0x07ff, 0x0805, 0x0807, 0x6557, 0x655a, 0x8034, 0x8036, 0x80f3, 0x8137, 0x8808,
        0x8809, 0x8846, 0x8849, 0x8862, 0x8865, 0x888e, 0x88b6, 0x88b8, 0x88cc, 0x88e6, 0x88e8, 0x88f7,
        0x8902, 0x894e, 0x8950, 0x9000, 0x90ff, 0x9101, 0x91ff, 0x9201, 0x92ff, 0x9301, 0xffff})
    rows.Add("type " + Hex({static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type & 0xff)}), From().Type(type));
  rows.Add("LLDP, tagged", From().VlanTag(100).Type(0x88cc));
  rows.Add("LLDP without a byte", From().Type(0x88cc, {}));
}

/// The row with the first tag of its frame in metadata.
std::optional<VerdictRow> MetadataTwin(const VerdictRow& row) {
  const Bytes& bytes = row.frame.bytes;
  if (bytes.size() < 18) return std::nullopt;
  const auto word = [&bytes](size_t at) { return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]); };
  if (word(12) != 0x8100 && word(12) != 0x88a8) return std::nullopt;
  VerdictRow twin = row;
  twin.name += " (in metadata)";
  twin.frame.metadata_tag = Tag{word(14), word(12)};
  twin.frame.bytes.erase(twin.frame.bytes.begin() + 12, twin.frame.bytes.begin() + 16);
  return twin;
}

std::vector<VerdictRow> MakeCorpus() {
  Rows rows;
  AddUnfiltered(rows);
  AddMalformed(rows);
  AddSourceMac(rows);
  AddVlan(rows);
  AddMartian(rows);
  AddBothProtocols(rows);
  AddIpv4(rows);
  AddDhcp(rows);
  AddNoEntry(rows);
  AddArp(rows);
  AddIpv6(rows);
  AddEncapsulated(rows);
  std::vector<VerdictRow> all;
  for (VerdictRow& row : rows.Take()) {
    std::optional<VerdictRow> twin = MetadataTwin(row);
    all.push_back(std::move(row));
    if (twin) all.push_back(std::move(*twin));
  }
  return all;
}

}  // namespace

bool Drops(verdict_reason reason) {
  switch (reason) {
    case VERDICT_MALFORMED:
    case VERDICT_BAD_SOURCE_MAC:
    case VERDICT_VLAN:
    case VERDICT_MARTIAN:
    case VERDICT_DHCP_MAC:
    case VERDICT_MAC_MISMATCH:
    case VERDICT_NO_ENTRY:
    case VERDICT_ARP_MAC:
    case VERDICT_ARP:
    case VERDICT_IPV6:
    case VERDICT_ENCAPSULATED:
      return true;
    default:
      return false;
  }
}

const std::vector<Entry>& CorpusEntries() {
  static const std::vector<Entry> kEntries = {
      {0, Ip("10.0.0.1")},        {0, Ip("10.0.0.2"), kStation},
      {0, Ip("255.255.255.255")}, {1, Ip("10.0.1.1")},
      {4, Ip("0.0.0.0")},         {5, Ip("0.0.0.0"), kOtherStation},
      {100, Ip("10.0.0.1")},      {100, Ip("10.0.0.3"), kStation},
      {4094, Ip("10.0.1.2")},
  };
  return kEntries;
}

const std::vector<VerdictRow>& VerdictCorpus() {
  static const std::vector<VerdictRow> kRows = MakeCorpus();
  return kRows;
}

}  // namespace frames
