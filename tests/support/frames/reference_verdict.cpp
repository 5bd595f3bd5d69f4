#include "frames/reference_verdict.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <set>

namespace frames {
namespace {

/// A frame taken apart: its tags from the outside in, the type after them and what follows.
struct Dissected {
  bool whole = false;  ///< Ethernet and every tag are complete
  Mac source{};
  std::vector<Tag> tags;
  unsigned type = 0;
  Bytes payload;
};

unsigned Word(const Bytes& bytes, size_t at) { return bytes.at(at) * 256U + bytes.at(at + 1); }

uint32_t AddressAt(const Bytes& bytes, size_t at) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

/// Only the first two tags are opened: a frame with more is judged by having them.
Dissected Dissect(const Frame& frame) {
  Dissected result;
  Bytes bytes = frame.bytes;
  if (frame.metadata_tag && bytes.size() >= 12) {
    const std::array<uint8_t, 4> tag = {
        static_cast<uint8_t>(frame.metadata_tag->protocol >> 8), static_cast<uint8_t>(frame.metadata_tag->protocol),
        static_cast<uint8_t>(frame.metadata_tag->tci >> 8), static_cast<uint8_t>(frame.metadata_tag->tci)};
    bytes.insert(bytes.begin() + 12, tag.begin(), tag.end());
  }
  if (bytes.size() < 14) return result;
  std::copy_n(bytes.begin() + 6, 6, result.source.begin());
  size_t at = 12;
  while (result.tags.size() < 2 && (Word(bytes, at) == 0x8100 || Word(bytes, at) == 0x88a8)) {
    if (bytes.size() < at + 6) return result;
    result.tags.push_back({static_cast<uint16_t>(Word(bytes, at + 2)), static_cast<uint16_t>(Word(bytes, at))});
    at += 4;
  }
  result.whole = true;
  result.type = Word(bytes, at);
  result.payload.assign(bytes.begin() + static_cast<long>(at) + 2, bytes.end());
  return result;
}

class Judge final {
 public:
  Judge(const Frame& frame, verdict_mode mode, const std::vector<Entry>& entries)
      : frame_{Dissect(frame)}, mode_{mode}, entries_{entries} {}

  ReferenceResult Run() {
    struct Line {
      std::function<bool()> applies;
      ReferenceResult result;
    };
    const std::array<Line, 21> table = {{
        {[this] { return mode_ == VERDICT_MODE_ALL; }, {VERDICT_ALLOW_ALL, VERDICT_ROW_ALLOW_ALL}},
        {[this] { return Malformed(); }, {VERDICT_MALFORMED, VERDICT_ROW_MALFORMED}},
        {[this] { return BadSourceMac(); }, {VERDICT_BAD_SOURCE_MAC, VERDICT_ROW_SOURCE_MAC}},
        {[this] { return BadVlan(); }, {VERDICT_VLAN, VERDICT_ROW_VLAN}},
        {[this] { return Is(0x0800) && NoHosts(Ipv4Source()) && !Dhcp(); }, {VERDICT_MARTIAN, VERDICT_ROW_MARTIAN}},
        {[this] { return Is(0x0800) && AllIpv4(); }, {VERDICT_IPV4_ALL, VERDICT_ROW_IPV4_ALL}},
        {[this] { return Is(0x0800) && Dhcp() && ClientMacMatches(); }, {VERDICT_DHCP, VERDICT_ROW_DHCP}},
        {[this] { return Is(0x0800) && Dhcp(); }, {VERDICT_DHCP_MAC, VERDICT_ROW_DHCP_MAC}},
        {[this] { return Is(0x0800) && Allowed(Ipv4Source()); }, {VERDICT_ENTRY, VERDICT_ROW_ENTRY}},
        {[this] { return Is(0x0800) && Find(Ipv4Source()) != nullptr; },
         {VERDICT_MAC_MISMATCH, VERDICT_ROW_MAC_MISMATCH}},
        {[this] { return Is(0x0800); }, {VERDICT_NO_ENTRY, VERDICT_ROW_NO_ENTRY}},
        {[this] { return Is(0x0806) && !EthernetArp(); }, {VERDICT_ARP, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806) && !SenderMacMatches(); }, {VERDICT_ARP_MAC, VERDICT_ROW_ARP_MAC}},
        {[this] { return Is(0x0806) && Probe(); }, {VERDICT_ARP_PROBE, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806) && NoHosts(Sender()); }, {VERDICT_ARP, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806) && AllIpv4(); }, {VERDICT_IPV4_ALL, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806) && Allowed(Sender()); }, {VERDICT_ENTRY, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806); }, {VERDICT_ARP, VERDICT_ROW_ARP}},
        {[this] { return Is(0x8035); }, {VERDICT_ARP, VERDICT_ROW_RARP}},
        {[this] { return Is(0x86dd) && (mode_ == VERDICT_MODE_IPV6_ALL || mode_ == VERDICT_MODE_IPV4_AND_IPV6); },
         {VERDICT_IPV6_ALL, VERDICT_ROW_IPV6_ALL}},
        {[this] { return Is(0x86dd); }, {VERDICT_IPV6, VERDICT_ROW_IPV6}},
    }};
    for (const Line& line : table)
      if (line.applies()) return line.result;
    if (Encapsulated()) return {VERDICT_ENCAPSULATED, VERDICT_ROW_ENCAPSULATED};
    return {VERDICT_NON_IP, VERDICT_ROW_NON_IP};
  }

  bool Spoofed() {
    if (!frame_.whole || frame_.tags.size() > 1 || !Is(0x0800) || BrokenIpv4()) return false;
    return NoHosts(Ipv4Source()) ? !Dhcp() : !Allowed(Ipv4Source());
  }

 private:
  [[nodiscard]] bool Is(unsigned type) const { return frame_.type == type; }
  [[nodiscard]] bool BrokenIpv4() const {
    const Bytes& p = frame_.payload;
    if (p.size() < 20 || p[0] / 16 != 4) return true;
    const size_t header = p[0] % 16 * size_t{4};
    return header < 20 || header > p.size() || Word(p, 2) < header || Word(p, 2) > p.size();
  }
  [[nodiscard]] bool BrokenArp() const {
    return frame_.payload.size() < 28 || frame_.payload[4] != 6 || frame_.payload[5] != 4;
  }
  [[nodiscard]] bool BrokenLength() const {
    return frame_.type > 1500 || frame_.payload.size() < frame_.type || frame_.type < 3;
  }
  [[nodiscard]] bool Malformed() const {
    if (!frame_.whole) return true;
    if (frame_.tags.size() > 1) return false;
    if (Is(0x0800)) return BrokenIpv4();
    if (Is(0x0806)) return BrokenArp();
    return frame_.type < 1536 && BrokenLength();
  }
  [[nodiscard]] bool BadSourceMac() const { return frame_.source == Mac{} || frame_.source[0] % 2 == 1; }
  [[nodiscard]] bool BadVlan() const {
    if (frame_.tags.empty()) return false;
    return frame_.tags.size() > 1 || frame_.tags[0].protocol != 0x8100 || frame_.tags[0].tci % 4096 == 4095;
  }
  [[nodiscard]] unsigned Vlan() const { return frame_.tags.empty() ? 0 : frame_.tags[0].tci % 4096; }
  [[nodiscard]] const Entry* Find(uint32_t source_be) const {
    for (const Entry& entry : entries_)
      if (entry.vlan == Vlan() && entry.source_be == source_be) return &entry;
    return nullptr;
  }
  [[nodiscard]] bool Allowed(uint32_t source_be) const {
    const Entry* entry = Find(source_be);
    return entry != nullptr && (!entry->mac || *entry->mac == frame_.source);
  }
  [[nodiscard]] bool AllIpv4() const { return mode_ == VERDICT_MODE_IPV4_ALL || mode_ == VERDICT_MODE_IPV4_AND_IPV6; }
  [[nodiscard]] uint32_t Ipv4Source() const { return AddressAt(frame_.payload, 12); }
  /// In 0.0.0.0/8, 127.0.0.0/8, or from 224.0.0.0 on: multicast and reserved.
  static bool NoHosts(uint32_t address_be) {
    std::array<uint8_t, 4> bytes{};
    std::memcpy(bytes.data(), &address_be, bytes.size());
    return bytes[0] == 0 || bytes[0] == 127 || bytes[0] > 223;
  }
  /// A client's request on this link, whoever's hardware address is in it.
  [[nodiscard]] bool Dhcp() const {
    const Bytes& p = frame_.payload;
    const size_t udp = p[0] % 16 * size_t{4};
    const bool fragment = (Word(p, 6) & 0x1fff) != 0 || (Word(p, 6) & 0x2000) != 0;
    if (AddressAt(p, 12) != 0 || AddressAt(p, 16) != Ip("255.255.255.255") || p[9] != 17 || fragment) return false;
    if (Word(p, 2) < udp + 42 || Word(p, udp) != 68 || Word(p, udp + 2) != 67) return false;
    return p[udp + 8] == 1 && p[udp + 10] == 6 && AddressAt(p, udp + 32) == 0;
  }
  [[nodiscard]] bool ClientMacMatches() const {
    const long at = frame_.payload[0] % 16 * 4L + 36;
    return std::equal(frame_.source.begin(), frame_.source.end(), frame_.payload.begin() + at);
  }
  [[nodiscard]] bool EthernetArp() const { return Word(frame_.payload, 0) == 1 && Word(frame_.payload, 2) == 0x0800; }
  [[nodiscard]] bool SenderMacMatches() const {
    return std::equal(frame_.source.begin(), frame_.source.end(), frame_.payload.begin() + 8);
  }
  [[nodiscard]] uint32_t Sender() const { return AddressAt(frame_.payload, 14); }
  [[nodiscard]] bool Probe() const { return Sender() == 0 && Word(frame_.payload, 6) == 1; }
  [[nodiscard]] bool Encapsulated() const {
    static const std::set<unsigned> kTypes = {
        0x1001, 0x1002, 0x1003, 0x1004, 0x1005, 0x1006, 0x1007, 0x1008, 0x1009, 0x100a, 0x100b, 0x100c, 0x100d, 0x100e,
        0x100f, 0x08ff, 0x22e9, 0x22eb, 0x22f1, 0x22f3, 0x4305, 0x6558, 0x6559, 0x876b, 0x8180, 0x880b, 0x883e, 0x8847,
        0x8848, 0x884c, 0x8863, 0x8864, 0x886c, 0x8870, 0x8884, 0x88b7, 0x88be, 0x88e5, 0x88e7, 0x8903, 0x8909, 0x8926,
        0x892f, 0x893b, 0x893f, 0x8946, 0x8947, 0x894f, 0x9100, 0x9200, 0x9300, 0xa0ed, 0xdada, 0xdadb, 0xdadc, 0xf1c1};
    if (frame_.type >= 1536) return kTypes.contains(frame_.type);
    // The lowest bit of either address of LLC is not part of it.
    const unsigned dsap = frame_.payload[0] / 2 * 2, ssap = frame_.payload[1] / 2 * 2;
    const std::set<unsigned> kSaps = {0xaa, 0x06, 0x98};
    return kSaps.contains(dsap) || kSaps.contains(ssap);
  }

  const Dissected frame_;
  const verdict_mode mode_;
  const std::vector<Entry>& entries_;
};

}  // namespace

ReferenceResult ReferenceVerdict(const Frame& frame, bool enabled, verdict_mode mode,
                                 const std::vector<Entry>& entries) {
  if (!enabled) return {VERDICT_NOT_ENABLED, VERDICT_ROW_NOT_ENABLED};
  return Judge{frame, mode, entries}.Run();
}

bool IsSpoofedIpv4(const Frame& frame, const std::vector<Entry>& entries) {
  return Judge{frame, VERDICT_MODE_NONE, entries}.Spoofed();
}

}  // namespace frames
