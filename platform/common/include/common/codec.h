#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "common/byte_io.h"

namespace common {

/// A message lists its fields once, for both directions:
///
///     template <class A> void Fields(A& a) { a(version, name, rows); }
///
/// Fields are integers, bool, enums (as their underlying type), std::string, structs with Fields(), records, and
/// vectors of all of these (also std::span, for writing). Both ends run on one machine. A bool is true for every byte
/// but 0; an enum may hold any value after decoding.

/// A record travels as the bytes that it is in memory. Specialise this for a struct without padding.
template <class T>
inline constexpr bool kIsRecord = false;

/// Appends fields to `out`.
class Encoder final {
 public:
  explicit Encoder(ByteWriter& out) : out_{out} {}
  template <class... T>
  void operator()(const T&... fields) {
    (Put(fields), ...);
  }

 private:
  template <class T>
  void Put(const T& field) {
    if constexpr (std::is_same_v<T, std::string>) {
      out_.PutString(field);
    } else if constexpr (std::is_same_v<T, bool>) {
      out_.Put(static_cast<uint8_t>(field));
    } else if constexpr (std::is_enum_v<T>) {
      out_.Put(static_cast<std::underlying_type_t<T>>(field));
    } else if constexpr (std::is_integral_v<T>) {
      out_.Put(field);
    } else if constexpr (kIsRecord<T>) {
      static_assert(std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>);
      out_.PutBytes(&field, sizeof field);
    } else {
      const_cast<T&>(field).Fields(*this);  // Fields() is one function for both directions; this one only reads
    }
  }
  template <class T>
  void Put(const std::vector<T>& field) {
    Put(std::span<const T>{field});
  }
  template <class T>
  void Put(const std::span<const T>& field) {
    out_.Put(static_cast<uint32_t>(field.size()));
    if constexpr (kIsRecord<T>) {
      out_.PutBytes(field.data(), field.size_bytes());
    } else {
      for (const T& element : field) Put(element);
    }
  }

  ByteWriter& out_;
};

/// Reads what Encoder wrote. Bytes that end too early make AtEnd() false and leave the rest of the fields empty.
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
    } else if constexpr (kIsRecord<T>) {
      const std::string_view bytes = in_.GetBytes(sizeof field);
      if (in_.ok()) std::memcpy(static_cast<void*>(&field), bytes.data(), sizeof field);
    } else {
      field.Fields(*this);
    }
  }
  /// A count beyond what the bytes can hold allocates nothing for the elements that are missing.
  template <class T>
  void Get(std::vector<T>& field) {
    const auto count = in_.Get<uint32_t>();
    if constexpr (kIsRecord<T>) {
      const std::string_view bytes = in_.GetBytes(size_t{count} * sizeof(T));
      field.resize(bytes.size() / sizeof(T));
      if (!bytes.empty()) std::memcpy(static_cast<void*>(field.data()), bytes.data(), bytes.size());
    } else {
      for (uint32_t n = count; n > 0 && in_.ok(); --n) Get(field.emplace_back());
    }
  }

  ByteReader in_;
};

/// The bytes of a message.
template <class M>
std::string EncodeFields(const M& message) {
  ByteWriter out;
  Encoder encoder{out};
  encoder(message);
  return out.Take();
}

/// The message in `bytes`; nullopt unless they hold exactly its fields.
template <class M>
std::optional<M> DecodeFields(std::string_view bytes) {
  Decoder decoder{bytes};
  std::optional<M> message{std::in_place};
  decoder(*message);
  if (!decoder.AtEnd()) message.reset();
  return message;
}

}  // namespace common
