#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/byte_io.h"
#include "confd_wire/messages.h"

namespace confd_wire {

/// Appends a message's fields to `out`; the other end is Decoder.
class Encoder final {
 public:
  explicit Encoder(common::ByteWriter& out) : out_{out} {}
  template <class... T>
  void operator()(T&... fields) {
    (Put(fields), ...);
  }

 private:
  template <class T>
  void Put(T& field) {
    if constexpr (std::is_same_v<T, std::string>) {
      out_.PutString(field);
    } else if constexpr (std::is_same_v<T, bool>) {
      out_.Put(static_cast<uint8_t>(field));
    } else if constexpr (std::is_enum_v<T>) {
      out_.Put(static_cast<std::underlying_type_t<T>>(field));
    } else if constexpr (std::is_integral_v<T>) {
      out_.Put(field);
    } else {
      field.Fields(*this);
    }
  }
  template <class T>
  void Put(std::vector<T>& field) {
    out_.Put(static_cast<uint32_t>(field.size()));
    for (T& element : field) Put(element);
  }

  common::ByteWriter& out_;
};

/// Reads what Encoder wrote. Bytes that end too early make ok() false and leave the rest of the fields empty.
class Decoder final {
 public:
  explicit Decoder(std::string_view bytes) : in_{bytes} {}
  template <class... T>
  void operator()(T&... fields) {
    (Get(fields), ...);
  }
  [[nodiscard]] bool AtEnd() const noexcept { return in_.AtEnd(); }

 private:
  template <class T>
  void Get(T& field) {
    if constexpr (std::is_same_v<T, std::string>) {
      field = in_.GetString();
    } else if constexpr (std::is_same_v<T, bool>) {
      field = in_.Get<uint8_t>() != 0;
    } else if constexpr (std::is_enum_v<T>) {
      field = static_cast<T>(in_.Get<std::underlying_type_t<T>>());
    } else if constexpr (std::is_integral_v<T>) {
      field = in_.Get<T>();
    } else {
      field.Fields(*this);
    }
  }
  template <class T>
  void Get(std::vector<T>& field) {
    for (uint32_t n = in_.Get<uint32_t>(); n > 0 && in_.ok(); --n) Get(field.emplace_back());
  }

  common::ByteReader in_;
};

/// The packet of a message. The caller checks its size against kMaxMessage where a field's size is not bounded.
template <class M>
std::string Encode(M message) {
  common::ByteWriter out;
  Encoder encoder{out};
  MessageType type = M::kType;
  encoder(type, message);
  return out.Take();
}

/// Gathers messages into one packet, in the order in which they are to be handled (MessageType::kSeveral).
class PacketOfSeveral final {
 public:
  template <class M>
  void Add(M message) {
    AddEncoded(Encode(std::move(message)));
  }
  void AddEncoded(std::string_view message) {
    if (count_++ == 0) out_.Put(static_cast<uint16_t>(MessageType::kSeveral));
    out_.PutString(message);
  }
  [[nodiscard]] bool empty() const noexcept { return count_ == 0; }
  /// Bytes of the packet with one more message of `size` bytes.
  [[nodiscard]] size_t SizeWith(size_t size) const noexcept { return out_.data().size() + kHead + size; }
  /// The packet; one message alone is a packet as it is. Empty when there is none. Starts anew.
  [[nodiscard]] std::string Take() {
    std::string packet = std::exchange(out_, {}).Take();
    if (std::exchange(count_, 0) == 1) packet.erase(0, kHead);
    return packet;
  }

 private:
  static constexpr size_t kHead = sizeof(uint16_t) + sizeof(uint32_t);
  common::ByteWriter out_;
  size_t count_ = 0;
};

/// Nothing when the packet is too short to tell.
inline std::optional<MessageType> TypeOf(std::string_view packet) {
  common::ByteReader reader(packet);
  const auto type = reader.Get<uint16_t>();
  return reader.ok() ? std::optional(static_cast<MessageType>(type)) : std::nullopt;
}

/// The message of a packet. Nothing when it is of another type or malformed.
template <class M>
std::optional<M> Decode(std::string_view packet) {
  Decoder decoder(packet);
  MessageType type{};
  M message;
  decoder(type, message);
  if (type != M::kType || !decoder.AtEnd()) return std::nullopt;
  return message;
}

/// Calls `handle(message)` for each message of a packet, in their order, until it answers false. False then, and when
/// the packet is malformed.
template <class Handle>
bool ForEachMessage(std::string_view packet, Handle handle) {
  if (TypeOf(packet) != MessageType::kSeveral) return handle(packet);
  common::ByteReader reader(packet);
  reader.Get<uint16_t>();
  while (reader.ok() && !reader.AtEnd()) {
    const std::string_view message = reader.GetString();
    if (!reader.ok() || TypeOf(message) == MessageType::kSeveral || !handle(message)) return false;
  }
  return true;
}

}  // namespace confd_wire
