#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace cdbd {

/// The lock on running, which one session may hold. Loop thread only.
class RunningLock final {
 public:
  struct Holder {
    uint32_t session = 0;
    std::chrono::system_clock::time_point since;
  };

  /// The session that holds it.
  [[nodiscard]] const std::optional<Holder>& holder() const noexcept { return holder_; }
  [[nodiscard]] bool IsHeldByAnother(uint32_t session) const { return holder_ && holder_->session != session; }
  /// False if a session holds it already.
  bool Take(uint32_t session) {
    if (holder_) return false;
    holder_ = Holder{session, std::chrono::system_clock::now()};
    return true;
  }
  /// False if `session` does not hold it.
  bool Release(uint32_t session) {
    if (!holder_ || holder_->session != session) return false;
    holder_.reset();
    return true;
  }

 private:
  std::optional<Holder> holder_;
};

}  // namespace cdbd
