#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Builds Ethernet frames byte by byte, right ones and wrong ones. Nothing here knows the rules that are tested with
/// it.
namespace frames {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

/// A tag that the receiver holds beside the bytes.
struct Tag {
  uint16_t tci = 0;
  uint16_t protocol = 0x8100;
  bool operator==(const Tag&) const = default;
};

struct Frame {
  Bytes bytes;
  std::optional<Tag> metadata_tag;
};

/// "10.0.0.1" in network order. Aborts on anything else: addresses in tests are literals.
uint32_t Ip(std::string_view text);
Mac ParseMac(std::string_view text);
std::string Hex(const Bytes& bytes);

struct Ipv4 {
  uint32_t source_be = 0;
  uint32_t destination_be = Ip("198.51.100.9");
  uint8_t protocol = 17;
  uint8_t version = 4;
  uint8_t header_words = 5;                ///< the IHL field; options of that size follow, when above 5
  std::optional<uint16_t> total_length{};  ///< when not what is there
  uint16_t flags_and_offset = 0;
  uint16_t source_port = 1000;  ///< the first 4 bytes of the payload, whatever the protocol
  uint16_t destination_port = 2000;
  size_t payload = 8;  ///< bytes after the header
  Bytes body{};        ///< what follows the first 8 of them, zeroes where it is shorter
};

/// The message of a DHCP client; `client` is the hardware address in it.
struct Dhcp {
  Mac client{};
  uint8_t operation = 1;
  uint8_t hardware = 1;
  uint8_t hardware_size = 6;
  uint32_t relay_be = 0;
};
/// It in a packet from 0.0.0.0 port 68 to 255.255.255.255 port 67.
Ipv4 DhcpRequest(const Dhcp& message);

struct Arp {
  uint16_t operation = 1;
  Mac sender_mac{};
  uint32_t sender_be = 0;
  uint32_t target_be = Ip("198.51.100.9");
  uint16_t hardware = 1;
  uint16_t protocol = 0x0800;
  uint8_t hardware_size = 6;
  uint8_t protocol_size = 4;
};

class FrameBuilder final {
 public:
  explicit FrameBuilder(const Mac& source, const Mac& destination = {2, 0xff, 0xff, 0, 0, 1});

  FrameBuilder& VlanTag(uint16_t tci, uint16_t protocol = 0x8100);  ///< in the bytes, after what is there
  FrameBuilder& MetadataTag(uint16_t tci, uint16_t protocol = 0x8100);
  FrameBuilder& Type(uint16_t type, const Bytes& payload = Bytes(46));
  FrameBuilder& With(const Ipv4& packet, uint16_t type = 0x0800);
  FrameBuilder& With(const Arp& packet, uint16_t type = 0x0806);
  /// A length field and LLC: `length` where it is not the payload's size.
  FrameBuilder& Llc(uint8_t dsap, uint8_t ssap, const Bytes& data = Bytes(30), std::optional<uint16_t> length = {});
  FrameBuilder& Raw(const Bytes& bytes);
  FrameBuilder& Pad(size_t size);            ///< zeroes up to that size
  FrameBuilder& Cut(size_t size);            ///< drops what is beyond that size
  operator Frame() const { return frame_; }  // NOLINT(google-explicit-constructor)
  [[nodiscard]] Frame Build() const { return frame_; }

 private:
  void Put8(uint8_t value) { frame_.bytes.push_back(value); }
  void Put16(uint16_t value);
  void Put32Be(uint32_t value_be);
  Frame frame_;
};

}  // namespace frames
