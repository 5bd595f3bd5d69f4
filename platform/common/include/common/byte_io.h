#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace common {

/// Appends fixed-width integers (host order: both ends run on one machine) and counted strings to a buffer.
class ByteWriter final {
 public:
  template <class T>
  requires std::is_integral_v<T>
  void Put(T value) { buffer_.append(reinterpret_cast<const char*>(&value), sizeof value); }
  void PutBytes(const void* data, size_t size) { buffer_.append(static_cast<const char*>(data), size); }
  /// A 32-bit length, then the bytes.
  void PutString(std::string_view text) {
    Put(static_cast<uint32_t>(text.size()));
    buffer_.append(text);
  }
  /// Overwrites what was put `offset` bytes from the start.
  template <class T>
  requires std::is_integral_v<T>
  void PutAt(size_t offset, T value) { std::memcpy(buffer_.data() + offset, &value, sizeof value); }
  [[nodiscard]] const std::string& data() const noexcept { return buffer_; }
  [[nodiscard]] std::string Take() { return std::move(buffer_); }

 private:
  std::string buffer_;
};

/// Reads what ByteWriter wrote. The first read past the end makes ok() false, and every later read gives zeroes and
/// empty strings: callers check ok() once, after the last read. Views stay valid as long as the buffer read from.
class ByteReader final {
 public:
  explicit ByteReader(std::string_view data) : data_{data} {}

  template <class T>
  requires std::is_integral_v<T> T Get() {
    T value{};
    const std::string_view bytes = GetBytes(sizeof value);
    if (ok_) std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }
  std::string_view GetBytes(size_t size) {
    if (!ok_ || size > data_.size()) {
      ok_ = false;
      return {};
    }
    const std::string_view bytes = data_.substr(0, size);
    data_.remove_prefix(size);
    return bytes;
  }
  std::string_view GetString() { return GetBytes(Get<uint32_t>()); }
  [[nodiscard]] bool ok() const noexcept { return ok_; }
  [[nodiscard]] bool AtEnd() const noexcept { return ok_ && data_.empty(); }
  [[nodiscard]] std::string_view rest() const noexcept { return data_; }

 private:
  std::string_view data_;
  bool ok_ = true;
};

}  // namespace common
