#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "common/byte_io.h"
#include "confd_wire/messages.h"

namespace confd_wire {

/// Writes a message's fields; the other end is Decoder.
class Encoder final {
 public:
  template <class... T>
  void operator()(T&... fields) {
    (Put(fields), ...);
  }
  [[nodiscard]] std::string Take() { return out_.Take(); }

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

  common::ByteWriter out_;
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
  Encoder encoder;
  MessageType type = M::kType;
  encoder(type, message);
  return encoder.Take();
}

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

}  // namespace confd_wire
