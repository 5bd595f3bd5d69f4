#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/event_loop.h"
#include "dataplane/dataplane.h"
#include "table/table.h"

namespace mgr {

/// Watches that the kernel enforces what the manager has told it to: reacts to what the kernel tells of changes by
/// others, and compares everything in each period and on demand. What differs is put back by the dataplane, and told in
/// the log, the counters and the events. Loop thread only; a step takes some milliseconds.
class Guard final {
 public:
  using Clock = std::chrono::system_clock;
  static constexpr std::chrono::milliseconds kPeriod{500};

  /// Something that others have changed.
  struct Event {
    Clock::time_point time;
    std::string what;   ///< "table netdev ...: 1 table deleted by nft (process 7), put back"
    std::string error;  ///< why it is not as it should be; empty: it is again
  };

  /// All are borrowed. Begins with a comparison in the next turn of the loop.
  Guard(common::EventLoop& loop, Table& table, Dataplane& dataplane, std::chrono::milliseconds period = kPeriod);
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
  ~Guard();

  /// Calls `done` when a comparison is complete that begins now. It is dropped when the guard is destroyed before.
  void Check(std::function<void()> done);
  /// Called with each event from now on.
  void OnEvent(std::function<void(const Event&)> callback) { on_event_ = std::move(callback); }

  /// True when the last complete comparison has left nothing that differs, and no enabled port is open.
  [[nodiscard]] bool Intact() const { return checks_ > 0 && Problems().empty(); }
  /// What is not as it should be, for a person: "port eth1: ...".
  [[nodiscard]] std::vector<std::string> Problems() const;
  [[nodiscard]] size_t UnguardedPorts() const;
  [[nodiscard]] uint64_t checks() const noexcept { return checks_; }    ///< complete ones
  [[nodiscard]] uint64_t repairs() const noexcept { return repairs_; }  ///< changes by others that were put back
  [[nodiscard]] std::optional<Clock::time_point> last_check() const noexcept { return last_check_; }
  [[nodiscard]] const std::deque<Event>& last_events() const noexcept { return last_events_; }  ///< newest last

 private:
  static constexpr size_t kLastEvents = 16;
  static constexpr size_t kLogLines = 20;  ///< a period of kLogPeriod
  static constexpr std::chrono::seconds kLogPeriod{10};

  void OnKernelEvents();
  void Step();
  void StepAfter(std::chrono::milliseconds delay);
  void Report(const std::vector<Deviation>& deviations);
  void TakePorts();
  void Record(Event event);
  void Log(const Event& event);

  common::EventLoop& loop_;
  Table& table_;
  Dataplane& dataplane_;
  const std::chrono::milliseconds period_;
  common::EventLoop::TimerId timer_ = 0;
  bool checking_ = false;                       ///< in the middle of a comparison
  std::vector<std::function<void()>> asked_;    ///< wait for the comparison after the running one
  std::vector<std::function<void()>> waiting_;  ///< wait for the running one
  std::function<void(const Event&)> on_event_;

  uint64_t checks_ = 0, repairs_ = 0;
  std::optional<Clock::time_point> last_check_;
  std::set<std::string> failing_;        ///< found by the last complete comparison and not put back
  std::set<std::string> found_failing_;  ///< by the running one
  std::deque<Event> last_events_;
  std::chrono::steady_clock::time_point log_since_{};
  size_t logged_ = 0;  ///< lines since then
};

}  // namespace mgr
