#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace common {

template <class Signature>
class FunctionRef;

/// Refers to something callable for the time of a call: no allocation, no copy. A parameter type only; what it refers
/// to must outlive it.
template <class R, class... Args>
class FunctionRef<R(Args...)> final {
 public:
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef> && std::is_invocable_r_v<R, F&, Args...>)
      FunctionRef(F&& function)  // NOLINT(bugprone-forwarding-reference-overload,google-explicit-constructor)
      : object_{const_cast<void*>(static_cast<const void*>(std::addressof(function)))},
        call_{[](void* object, Args... args) -> R {
          return (*static_cast<std::remove_reference_t<F>*>(object))(std::forward<Args>(args)...);
        }} {}

  R operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

 private:
  void* object_;
  R (*call_)(void*, Args...);
};

}  // namespace common
