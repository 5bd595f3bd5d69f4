#include "frames/frame_builder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace frames {

uint32_t Ip(std::string_view text) {
  in_addr address{};
  if (inet_pton(AF_INET, std::string{text}.c_str(), &address) != 1) std::abort();
  return address.s_addr;
}

Mac ParseMac(std::string_view text) {
  std::array<unsigned, 6> part{};
  const std::string copy{text};
  if (std::sscanf(copy.c_str(), "%x:%x:%x:%x:%x:%x", &part[0], &part[1], &part[2], &part[3], &part[4], &part[5]) != 6)
    std::abort();
  Mac mac{};
  for (size_t i = 0; i < mac.size(); ++i) mac[i] = static_cast<uint8_t>(part[i]);
  return mac;
}

std::string Hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

Ipv4 DhcpRequest(const Dhcp& message) {
  constexpr size_t kRelay = 24, kClient = 28, kSize = 292;
  Bytes body(kSize);
  body[0] = message.operation;
  body[1] = message.hardware;
  body[2] = message.hardware_size;
  std::memcpy(&body[kRelay], &message.relay_be, sizeof message.relay_be);
  std::copy(message.client.begin(), message.client.end(), body.begin() + kClient);
  return {.source_be = 0,
          .destination_be = 0xffffffff,
          .source_port = 68,
          .destination_port = 67,
          .payload = 8 + kSize,
          .body = body};
}

FrameBuilder::FrameBuilder(const Mac& source, const Mac& destination) {
  frame_.bytes.assign(destination.begin(), destination.end());
  frame_.bytes.insert(frame_.bytes.end(), source.begin(), source.end());
}

void FrameBuilder::Put16(uint16_t value) {
  Put8(static_cast<uint8_t>(value >> 8));
  Put8(static_cast<uint8_t>(value & 0xff));
}

void FrameBuilder::Put32Be(uint32_t value_be) {
  std::array<uint8_t, 4> bytes{};
  std::memcpy(bytes.data(), &value_be, bytes.size());
  frame_.bytes.insert(frame_.bytes.end(), bytes.begin(), bytes.end());
}

FrameBuilder& FrameBuilder::VlanTag(uint16_t tci, uint16_t protocol) {
  Put16(protocol);
  Put16(tci);
  return *this;
}

FrameBuilder& FrameBuilder::MetadataTag(uint16_t tci, uint16_t protocol) {
  frame_.metadata_tag = Tag{tci, protocol};
  return *this;
}

FrameBuilder& FrameBuilder::Type(uint16_t type, const Bytes& payload) {
  Put16(type);
  return Raw(payload);
}

FrameBuilder& FrameBuilder::With(const Ipv4& packet, uint16_t type) {
  Put16(type);
  const size_t start = frame_.bytes.size();
  const size_t options = packet.header_words > 5 ? (packet.header_words - 5) * size_t{4} : 0;
  Put8(static_cast<uint8_t>(packet.version << 4 | packet.header_words));
  Put8(0);
  Put16(packet.total_length.value_or(static_cast<uint16_t>(20 + options + packet.payload)));
  Put16(0x1234);
  Put16(packet.flags_and_offset);
  Put8(64);
  Put8(packet.protocol);
  Put16(0);
  Put32Be(packet.source_be);
  Put32Be(packet.destination_be);
  for (size_t i = 0; i < options; ++i) Put8(1);  // no-operation options
  uint32_t sum = 0;
  for (size_t i = start; i < frame_.bytes.size(); i += 2) sum += frame_.bytes[i] << 8 | frame_.bytes[i + 1];
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  frame_.bytes[start + 10] = static_cast<uint8_t>(~sum >> 8 & 0xff);
  frame_.bytes[start + 11] = static_cast<uint8_t>(~sum & 0xff);
  const size_t payload_at = frame_.bytes.size();
  Put16(packet.source_port);
  Put16(packet.destination_port);
  Put16(static_cast<uint16_t>(packet.payload));
  Put16(0);
  Raw(packet.body);
  frame_.bytes.resize(payload_at + packet.payload);
  return *this;
}

FrameBuilder& FrameBuilder::With(const Arp& packet, uint16_t type) {
  Put16(type);
  Put16(packet.hardware);
  Put16(packet.protocol);
  Put8(packet.hardware_size);
  Put8(packet.protocol_size);
  Put16(packet.operation);
  Raw({packet.sender_mac.begin(), packet.sender_mac.end()});
  Put32Be(packet.sender_be);
  Raw(Bytes(6));
  Put32Be(packet.target_be);
  return *this;
}

FrameBuilder& FrameBuilder::Llc(uint8_t dsap, uint8_t ssap, const Bytes& data, std::optional<uint16_t> length) {
  Put16(length.value_or(static_cast<uint16_t>(3 + data.size())));
  Raw({dsap, ssap, 3});
  return Raw(data);
}

FrameBuilder& FrameBuilder::Raw(const Bytes& bytes) {
  frame_.bytes.insert(frame_.bytes.end(), bytes.begin(), bytes.end());
  return *this;
}

FrameBuilder& FrameBuilder::Pad(size_t size) {
  if (frame_.bytes.size() < size) frame_.bytes.resize(size);
  return *this;
}

FrameBuilder& FrameBuilder::Cut(size_t size) {
  if (frame_.bytes.size() > size) frame_.bytes.resize(size);
  return *this;
}

}  // namespace frames
