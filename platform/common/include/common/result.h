#pragma once

#include <cassert>
#include <cstring>
#include <string>
#include <utility>
#include <variant>

namespace common {

/// What failed, on what, and why: "map_update src_v4 ge-1/2: No space left on device".
struct Error {
  std::string operation;
  std::string object;
  std::string reason;

  [[nodiscard]] std::string Text() const {
    std::string text = operation;
    if (!object.empty()) text += (text.empty() ? "" : " ") + object;
    if (!reason.empty()) text += (text.empty() ? "" : ": ") + reason;
    return text;
  }
};

/// An error from an `errno` value.
inline Error SystemError(std::string operation, std::string object, int error_number) {
  return {std::move(operation), std::move(object), std::strerror(error_number)};
}

/// A value or an Error. "Absent" is a value of T (std::optional), never an Error.
template <class T>
class [[nodiscard]] Result final {
 public:
  Result(T value) : state_{std::in_place_index<0>, std::move(value)} {}      // NOLINT(google-explicit-constructor)
  Result(Error error) : state_{std::in_place_index<1>, std::move(error)} {}  // NOLINT(google-explicit-constructor)

  [[nodiscard]] bool ok() const noexcept { return state_.index() == 0; }
  [[nodiscard]] explicit operator bool() const noexcept { return ok(); }
  [[nodiscard]] T& value() & { return *Value(); }
  [[nodiscard]] const T& value() const& { return *const_cast<Result*>(this)->Value(); }
  [[nodiscard]] T&& value() && { return std::move(*Value()); }
  [[nodiscard]] const Error& error() const {
    const Error* error = std::get_if<1>(&state_);
    assert(error != nullptr);
    return *error;
  }

 private:
  T* Value() {
    T* value = std::get_if<0>(&state_);
    assert(value != nullptr);
    return value;
  }
  std::variant<T, Error> state_;
};

/// Success without a value, or an Error.
using Status = Result<std::monostate>;
inline Status Ok() { return std::monostate{}; }

}  // namespace common
