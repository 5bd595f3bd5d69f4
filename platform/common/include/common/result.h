#pragma once

#include <cassert>
#include <cstring>
#include <string>
#include <utility>
#include <variant>

#include "common/error.h"

namespace common {

/// A value or an Error. A lookup that may find nothing returns Result<std::optional<T>>: "not found" is a value there,
/// so a read that failed never looks like one that found nothing.
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
