#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace common {

struct EventLoopState;

/// A descriptor that an EventLoop watches. The destructor, Reset() and an assignment end the watch, also from inside
/// its own callback, from that of another, and after the loop is gone. It does not own the descriptor: end the watch
/// before the descriptor is closed. Loop thread only.
class [[nodiscard]] FdWatch final {
 public:
  FdWatch() = default;
  FdWatch(FdWatch&& other) noexcept;
  FdWatch& operator=(FdWatch&& other) noexcept;
  ~FdWatch() { Reset(); }

  /// Whether a descriptor is watched.
  [[nodiscard]] explicit operator bool() const noexcept { return id_ != 0; }
  /// Changes the events to watch for; the place in the order of dispatch stays. False if the kernel refuses.
  bool Set(uint32_t events);
  void Reset() noexcept;

 private:
  friend class EventLoop;
  FdWatch(std::weak_ptr<EventLoopState> loop, uint64_t id) : loop_{std::move(loop)}, id_{id} {}
  std::weak_ptr<EventLoopState> loop_;
  uint64_t id_ = 0;
};

/// Work that an EventLoop will run once. The destructor, Reset() and an assignment cancel it, also from inside the work
/// itself, and after the loop is gone. Loop thread only.
class [[nodiscard]] ScheduledTask final {
 public:
  ScheduledTask() = default;
  ScheduledTask(ScheduledTask&& other) noexcept;
  ScheduledTask& operator=(ScheduledTask&& other) noexcept;
  ~ScheduledTask() { Reset(); }

  /// Whether the work is still to be run: false once it has begun.
  [[nodiscard]] explicit operator bool() const noexcept;
  void Reset() noexcept;

 private:
  friend class EventLoop;
  ScheduledTask(std::weak_ptr<EventLoopState> loop, uint64_t id) : loop_{std::move(loop)}, id_{id} {}
  std::weak_ptr<EventLoopState> loop_;
  uint64_t id_ = 0;
};

/// One thread's event loop over epoll(7), with timers, deferred work and SIGTERM/SIGINT through signalfd(2).
///
/// Descriptors that are ready together are dispatched in the order of their registration; one whose watch has ended
/// meanwhile is skipped. Work of Soon() runs right after the callback that scheduled it, before the next callback.
/// Everything may be called from inside a callback, the destructor included. One thread only. Exceptions are not
/// caught: one that leaves a callback leaves Run().
class EventLoop final {
 public:
  using FdCallback = std::function<void(uint32_t events)>;  ///< `events`: EPOLLIN, EPOLLOUT, EPOLLHUP, ...
  using Task = std::function<void()>;

  /// Null, with errno set, when the kernel refuses the descriptors. Blocks SIGTERM and SIGINT in the calling thread
  /// when `handle_signals`, so that none is lost between here and Run().
  static std::unique_ptr<EventLoop> Create(bool handle_signals);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// Watches `fd` (not owned) for `events` as long as the handle lives. An empty handle if `fd` is invalid or watched
  /// already.
  FdWatch Watch(int fd, uint32_t events, FdCallback callback);
  /// Runs `task` once, `delay` from now, in a turn of its own.
  ScheduledTask After(std::chrono::nanoseconds delay, Task task);
  /// Runs `task` once, right after the current callback, or in the next turn if none is running.
  ScheduledTask Soon(Task task);

  /// Dispatches until `*running` is false (seen after every callback), Stop() is called, or a signal of Create()
  /// arrives. 0, or an errno value when epoll_wait(2) fails.
  int Run(const bool* running);
  /// One turn: waits at most `timeout` (negative: without limit) and dispatches what is ready. 0, or an errno value.
  int RunOnce(std::chrono::milliseconds timeout);
  /// Ends Run() after the current callback.
  void Stop();
  /// Whether Stop() was called or a signal arrived, dispatched or not.
  [[nodiscard]] bool Stopped();

  /* Registrations without an owner: to be replaced by the handles above. */
  using TimerId = uint64_t;
  bool AddFd(int fd, uint32_t events, FdCallback callback);
  bool ModifyFd(int fd, uint32_t events);
  bool RemoveFd(int fd);
  TimerId AddTimer(std::chrono::nanoseconds delay, Task task);
  void CancelTimer(TimerId id);
  void Defer(Task task);

 private:
  explicit EventLoop(std::shared_ptr<EventLoopState> state);
  /// Static, and with a share of the state: the loop may die inside a callback.
  static int Turn(std::shared_ptr<EventLoopState> state, std::chrono::milliseconds timeout, const bool* running);
  std::shared_ptr<EventLoopState> state_;  ///< shared with the running dispatch
};

}  // namespace common
