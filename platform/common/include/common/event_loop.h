#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace common {

/// One thread's event loop over epoll(7), with timers, deferred work and SIGTERM/SIGINT through signalfd(2).
///
/// Descriptors that are ready together are dispatched in the order of their registration, and one that was removed
/// meanwhile is skipped. Deferred work runs right after the callback that queued it has returned, before the next
/// callback. Everything may be called from inside a callback, the destructor included. One thread only; no exception
/// is caught: one that leaves a callback leaves Run().
class EventLoop final {
 public:
  using FdCallback = std::function<void(uint32_t events)>;  ///< `events`: EPOLLIN, EPOLLOUT, EPOLLHUP, ...
  using Task = std::function<void()>;
  using TimerId = uint64_t;  ///< never 0

  /// Null, with errno set, when the kernel refuses the descriptors. Blocks SIGTERM and SIGINT in the calling thread
  /// when `handle_signals`, so that none is lost between here and Run().
  static std::unique_ptr<EventLoop> Create(bool handle_signals);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// Watches `fd` (not owned) for `events`. False when it is invalid or watched already.
  bool AddFd(int fd, uint32_t events, FdCallback callback);
  /// Changes what `fd` is watched for; its place in the order stays. False when it is unknown.
  bool ModifyFd(int fd, uint32_t events);
  /// False when it is unknown.
  bool RemoveFd(int fd);

  /// Runs `task` once, `delay` from now, in a turn of its own.
  TimerId AddTimer(std::chrono::nanoseconds delay, Task task);
  /// A timer that has run, or 0, is ignored.
  void CancelTimer(TimerId id);

  /// Runs `task` after the current callback, or in the next turn when none is running.
  void Defer(Task task);

  /// Dispatches until `*running` is false (seen after every callback), Stop() is called, or a signal of Create()
  /// arrives. 0, or an errno value when epoll_wait(2) fails.
  int Run(const bool* running);
  /// One turn: waits at most `timeout` (negative: for ever) and dispatches what is ready. 0, or an errno value.
  int RunOnce(std::chrono::milliseconds timeout);
  /// Ends Run() after the current callback.
  void Stop();
  /// Stop() was called or a signal arrived. A signal that is pending but not dispatched yet counts.
  [[nodiscard]] bool Stopped();

 private:
  struct State;
  explicit EventLoop(std::shared_ptr<State> state);
  /// Static, and with a share of the state: the loop may die inside a callback.
  static int Turn(std::shared_ptr<State> state, std::chrono::milliseconds timeout, const bool* running);
  std::shared_ptr<State> state_;  ///< shared with the running dispatch, so that the loop may die inside a callback
};

}  // namespace common
