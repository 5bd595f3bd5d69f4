#pragma once

#include <chrono>
#include <cstdint>
#include <map>

namespace mgr::tcx {

/// Bounds how often a filter is put back on one interface: another program that insists on its place would keep the
/// manager busy for as long as it runs.
class MoveLimit final {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr unsigned kMoves = 10;
  static constexpr std::chrono::seconds kPeriod{10};

  /// False when the filter was put back on the interface that often in the current period.
  bool Allow(uint32_t ifindex, Clock::time_point now = Clock::now()) {
    Moves& moves = of_interface_[ifindex];
    if (now - moves.since >= kPeriod) moves = {.since = now, .count = 0};
    return ++moves.count <= kMoves;
  }

 private:
  struct Moves {
    Clock::time_point since{};
    unsigned count = 0;
  };
  std::map<uint32_t, Moves> of_interface_;
};

}  // namespace mgr::tcx
