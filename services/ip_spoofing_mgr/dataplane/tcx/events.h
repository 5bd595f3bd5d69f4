#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "common/result.h"
#include "dataplane/dataplane.h"
#include "dataplane/tcx/layout.h"

struct ring_buffer;

namespace mgr::tcx {

/// Turns the kernel's CLOCK_MONOTONIC stamps into times of day, as of when it was made.
class WallClock final {
 public:
  WallClock();
  [[nodiscard]] std::chrono::system_clock::time_point At(uint64_t monotonic_ns) const;

 private:
  std::chrono::nanoseconds offset_;
};

Drop ToDrop(const plane_violator_key& key, uint16_t ethertype, uint64_t frames,
            std::chrono::system_clock::time_point first, std::chrono::system_clock::time_point last);

/// The reader of the ring of drop events.
class Events final {
 public:
  Events() = default;
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;
  common::Status Open(int map);
  /// -1 when not open.
  [[nodiscard]] int Fd() const;
  /// What waits, at most kMaxRead of it.
  std::vector<Drop> Read();

 private:
  static constexpr size_t kMaxRead = 512;
  struct Free {
    void operator()(ring_buffer* ring) const noexcept;
  };
  static int OnEvent(void* self, void* data, size_t size);
  std::unique_ptr<ring_buffer, Free> ring_;
  std::vector<Drop> drops_;
};

}  // namespace mgr::tcx
