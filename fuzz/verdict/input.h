#pragma once

#include <cstdint>
#include <optional>

#include "frames/verdict_corpus.h"

/// The form of an input: one byte of port state, three of tag, then the frame.
namespace fuzz {

inline constexpr size_t kPrefix = 4;
inline constexpr uint8_t kModeMask = 0x03;
inline constexpr uint8_t kMonitorBit = 0x04;
inline constexpr uint8_t kBothBit = 0x08;  ///< IPv4 and IPv6, whatever the mode's bits say
inline constexpr uint8_t kTagBit = 0x01;
inline constexpr uint8_t kServiceTagBit = 0x02;

struct Input {
  verdict_mode mode = VERDICT_MODE_NONE;
  bool monitor = false;
  frames::Frame frame;
};

inline std::optional<Input> Decode(const uint8_t* data, size_t size) {
  if (size < kPrefix) return std::nullopt;
  Input input;
  constexpr verdict_mode kModes[] = {VERDICT_MODE_NONE, VERDICT_MODE_IPV4_ALL, VERDICT_MODE_IPV6_ALL, VERDICT_MODE_ALL};
  input.mode = (data[0] & kBothBit) != 0 ? VERDICT_MODE_IPV4_AND_IPV6 : kModes[data[0] & kModeMask];
  input.monitor = (data[0] & kMonitorBit) != 0;
  if ((data[1] & kTagBit) != 0) {
    input.frame.metadata_tag = frames::Tag{static_cast<uint16_t>(data[2] << 8 | data[3]),
                                           static_cast<uint16_t>((data[1] & kServiceTagBit) != 0 ? 0x88a8 : 0x8100)};
  }
  input.frame.bytes.assign(data + kPrefix, data + size);
  return input;
}

inline frames::Bytes Encode(const Input& input) {
  frames::Bytes bytes(kPrefix);
  const unsigned mode = input.mode == VERDICT_MODE_IPV4_AND_IPV6 ? kBothBit : input.mode & kModeMask;
  bytes[0] = static_cast<uint8_t>(mode | (input.monitor ? kMonitorBit : 0));
  if (const auto& tag = input.frame.metadata_tag) {
    bytes[1] = static_cast<uint8_t>(kTagBit | (tag->protocol == 0x88a8 ? kServiceTagBit : 0));
    bytes[2] = static_cast<uint8_t>(tag->tci >> 8);
    bytes[3] = static_cast<uint8_t>(tag->tci & 0xff);
  }
  bytes.insert(bytes.end(), input.frame.bytes.begin(), input.frame.bytes.end());
  return bytes;
}

}  // namespace fuzz
