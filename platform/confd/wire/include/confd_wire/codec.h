#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/codec.h"
#include "confd_wire/messages.h"

/// Packets: the type of the message, then its fields (common/codec.h).
namespace confd_wire {

/// The packet of a message. The caller checks its size against kMaxMessage where a field's size is not bounded.
template <class M>
std::string Encode(const M& message) {
  common::ByteWriter out;
  common::Encoder encoder{out};
  encoder(M::kType, message);
  return out.Take();
}

/// Nullopt when the packet is too short to hold a type.
inline std::optional<MessageType> TypeOf(std::string_view packet) {
  common::ByteReader reader(packet);
  const auto type = reader.Get<uint16_t>();
  return reader.ok() ? std::optional(static_cast<MessageType>(type)) : std::nullopt;
}

/// The message of a packet. Nullopt when it is of another type or malformed.
template <class M>
std::optional<M> Decode(std::string_view packet) {
  if (TypeOf(packet) != M::kType) return std::nullopt;
  return common::DecodeFields<M>(packet.substr(sizeof(MessageType)));
}

}  // namespace confd_wire
