#pragma once

#include <concepts>
#include <optional>
#include <type_traits>
#include <utility>

#include "common/result.h"

namespace cdb_store {

/// What a read of the store answers, or why it failed. Unlike common::Result it does not convert to bool: `if (answer)`
/// could be read as the answer itself, and a failed read would look like one that found nothing.
template <class T>
class [[nodiscard]] Answer final {
 public:
  // The requirement keeps it from hiding the copy and move constructors.
  template <class U>
  requires(std::convertible_to<U&&, T> && !std::same_as<std::remove_cvref_t<U>, Answer>)
      // NOLINTNEXTLINE(google-explicit-constructor,bugprone-forwarding-reference-overload)
      Answer(U&& value)
      : result_{T(std::forward<U>(value))} {}
  Answer(common::Error error) : result_{std::move(error)} {}  // NOLINT(google-explicit-constructor)

  [[nodiscard]] bool ok() const noexcept { return result_.ok(); }
  [[nodiscard]] T& value() & { return result_.value(); }
  [[nodiscard]] const T& value() const& { return result_.value(); }
  [[nodiscard]] T&& value() && { return std::move(result_).value(); }
  [[nodiscard]] const common::Error& error() const { return result_.error(); }

 private:
  common::Result<T> result_;
};

/// The answer of a search: nullopt if nothing is there.
template <class T>
using Lookup = Answer<std::optional<T>>;

static_assert(!std::is_constructible_v<bool, Answer<bool>> && !std::is_constructible_v<bool, Lookup<int>>);

}  // namespace cdb_store
