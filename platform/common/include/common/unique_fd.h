#pragma once

#include <unistd.h>

#include <utility>

namespace common {

/// Owns one file descriptor; -1 owns none. The destructor closes it. Ownership leaves by release().
class UniqueFd final {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) noexcept : fd_{fd} {}
  UniqueFd(UniqueFd&& other) noexcept : fd_{other.release()} {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }
  [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
  void reset(int fd = -1) noexcept {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) ::close(old);
  }

 private:
  int fd_ = -1;
};

}  // namespace common
