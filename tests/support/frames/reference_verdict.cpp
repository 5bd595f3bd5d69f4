#include "frames/reference_verdict.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <set>

namespace frames {
namespace {

/// A frame taken apart: its tags from the outside in, the type behind them and what follows.
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
    const std::array<Line, 18> table = {{
        {[this] { return mode_ == VERDICT_MODE_ALL; }, {VERDICT_ALLOW_ALL, VERDICT_ROW_ALLOW_ALL}},
        {[this] { return Malformed(); }, {VERDICT_MALFORMED, VERDICT_ROW_MALFORMED}},
        {[this] { return BadSourceMac(); }, {VERDICT_BAD_SOURCE_MAC, VERDICT_ROW_SOURCE_MAC}},
        {[this] { return BadVlan(); }, {VERDICT_VLAN, VERDICT_ROW_VLAN}},
        {[this] { return Is(0x0800) && mode_ == VERDICT_MODE_IPV4_ALL; }, {VERDICT_IPV4_ALL, VERDICT_ROW_IPV4_ALL}},
        {[this] { return Is(0x0800) && Allowed(AddressAt(frame_.payload, 12)); }, {VERDICT_ENTRY, VERDICT_ROW_ENTRY}},
        {[this] { return Is(0x0800) && Find(AddressAt(frame_.payload, 12)) != nullptr; },
         {VERDICT_MAC_MISMATCH, VERDICT_ROW_MAC_MISMATCH}},
        {[this] { return Is(0x0800) && Dhcp(); }, {VERDICT_DHCP, VERDICT_ROW_DHCP}},
        {[this] { return Is(0x0800); }, {VERDICT_NO_ENTRY, VERDICT_ROW_NO_ENTRY}},
        {[this] { return Is(0x0806) && !EthernetArp(); }, {VERDICT_ARP, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806) && !SenderMacMatches(); }, {VERDICT_ARP_MAC, VERDICT_ROW_ARP_MAC}},
        {[this] { return Is(0x0806) && Probe(); }, {VERDICT_ARP_PROBE, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806) && Sender() != 0 && mode_ == VERDICT_MODE_IPV4_ALL; },
         {VERDICT_IPV4_ALL, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806) && Sender() != 0 && Allowed(Sender()); }, {VERDICT_ENTRY, VERDICT_ROW_ARP}},
        {[this] { return Is(0x0806); }, {VERDICT_ARP, VERDICT_ROW_ARP}},
        {[this] { return Is(0x8035); }, {VERDICT_ARP, VERDICT_ROW_RARP}},
        {[this] { return Is(0x86dd) && mode_ == VERDICT_MODE_IPV6_ALL; }, {VERDICT_IPV6_ALL, VERDICT_ROW_IPV6_ALL}},
        {[this] { return Is(0x86dd); }, {VERDICT_IPV6, VERDICT_ROW_IPV6}},
    }};
    for (const Line& line : table)
      if (line.applies()) return line.result;
    if (Encapsulated()) return {VERDICT_ENCAPSULATED, VERDICT_ROW_ENCAPSULATED};
    return {VERDICT_NON_IP, VERDICT_ROW_NON_IP};
  }

  bool Spoofed() {
    if (!frame_.whole || frame_.tags.size() > 1 || !Is(0x0800) || BrokenIpv4()) return false;
    return !Allowed(AddressAt(frame_.payload, 12)) && !Dhcp();
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
  [[nodiscard]] bool Dhcp() const {
    const Bytes& p = frame_.payload;
    const size_t udp = p[0] % 16 * size_t{4};
    const bool fragment = (Word(p, 6) & 0x1fff) != 0 || (Word(p, 6) & 0x2000) != 0;
    if (AddressAt(p, 12) != 0 || AddressAt(p, 16) != Ip("255.255.255.255") || p[9] != 17 || fragment) return false;
    return Word(p, 2) >= udp + 8 && Word(p, udp) == 68 && Word(p, udp + 2) == 67;
  }
  [[nodiscard]] bool EthernetArp() const { return Word(frame_.payload, 0) == 1 && Word(frame_.payload, 2) == 0x0800; }
  [[nodiscard]] bool SenderMacMatches() const {
    return std::equal(frame_.source.begin(), frame_.source.end(), frame_.payload.begin() + 8);
  }
  [[nodiscard]] uint32_t Sender() const { return AddressAt(frame_.payload, 14); }
  [[nodiscard]] bool Probe() const { return Sender() == 0 && Word(frame_.payload, 6) == 1; }
  [[nodiscard]] bool Encapsulated() const {
    static const std::set<unsigned> kTypes = {0x6558, 0x8847, 0x8848, 0x8863, 0x8864,
                                              0x88b7, 0x88e7, 0x894f, 0x9100, 0x9200};
    if (frame_.type >= 1536) return kTypes.contains(frame_.type);
    // The lowest bit of either address of LLC is not part of it.
    const unsigned dsap = frame_.payload[0] / 2 * 2, ssap = frame_.payload[1] / 2 * 2;
    return dsap == 0xaa || ssap == 0xaa || dsap == 0x06 || ssap == 0x06;
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
