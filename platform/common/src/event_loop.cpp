#include "common/event_loop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <deque>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/unique_fd.h"

namespace common {
namespace {

using Clock = std::chrono::steady_clock;

sigset_t EndSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

}  // namespace

struct EventLoop::State {
  struct Source {
    int fd;
    FdCallback callback;
  };

  UniqueFd epoll;
  UniqueFd signals;
  uint64_t last_id = 0;
  std::map<uint64_t, std::shared_ptr<Source>> sources;  // by id, which is the order of registration
  std::unordered_map<int, uint64_t> id_of_fd;
  std::map<std::pair<Clock::time_point, TimerId>, Task> timers;
  std::unordered_map<TimerId, Clock::time_point> deadline_of_timer;
  std::deque<Task> deferred;
  std::vector<epoll_event> ready;  // the last turn's memory
  bool stopped = false;
  bool destroyed = false;

  void RunDeferred() {
    while (!deferred.empty() && !destroyed) {
      Task task = std::move(deferred.front());
      deferred.pop_front();
      task();
    }
  }

  void ReadSignals() {
    signalfd_siginfo info;
    while (signals && ::read(signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) stopped = true;
  }

  /// Milliseconds until the first timer, rounded up so that a turn never comes too early; `limit` when it is sooner.
  int WaitTime(std::chrono::milliseconds limit) const {
    if (!deferred.empty()) return 0;
    auto wait = limit;
    if (!timers.empty()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(timers.begin()->first.first - Clock::now());
      const auto first = std::max(left, std::chrono::milliseconds{0});
      wait = limit.count() < 0 ? first : std::min(limit, first);
    }
    return static_cast<int>(std::min<int64_t>(wait.count(), 1'000'000'000));
  }

  void DispatchTimers(const bool* running) {
    const auto now = Clock::now();
    while (!destroyed && !stopped && *running && !timers.empty() && timers.begin()->first.first <= now) {
      auto node = timers.extract(timers.begin());
      deadline_of_timer.erase(node.key().second);
      node.mapped()();
      RunDeferred();
    }
  }
};

std::unique_ptr<EventLoop> EventLoop::Create(bool handle_signals) {
  auto state = std::make_shared<State>();
  state->epoll.reset(::epoll_create1(EPOLL_CLOEXEC));
  if (!state->epoll) return nullptr;
  if (handle_signals) {
    const sigset_t set = EndSignals();
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return nullptr;
    state->signals.reset(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!state->signals) return nullptr;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = 0;  // no source has id 0
    if (::epoll_ctl(state->epoll.get(), EPOLL_CTL_ADD, state->signals.get(), &event) != 0) return nullptr;
  }
  return std::unique_ptr<EventLoop>(new EventLoop(std::move(state)));
}

EventLoop::EventLoop(std::shared_ptr<State> state) : state_{std::move(state)} {}

EventLoop::~EventLoop() {
  state_->destroyed = true;
  state_->sources.clear();
  state_->timers.clear();
  state_->deferred.clear();
}

bool EventLoop::AddFd(int fd, uint32_t events, FdCallback callback) {
  if (fd < 0 || state_->id_of_fd.contains(fd)) return false;
  epoll_event event{};
  event.events = events;
  event.data.u64 = state_->last_id + 1;
  if (::epoll_ctl(state_->epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) return false;
  const uint64_t id = ++state_->last_id;
  state_->sources.emplace(id, std::make_shared<State::Source>(State::Source{fd, std::move(callback)}));
  state_->id_of_fd.emplace(fd, id);
  return true;
}

bool EventLoop::ModifyFd(int fd, uint32_t events) {
  const auto it = state_->id_of_fd.find(fd);
  if (it == state_->id_of_fd.end()) return false;
  epoll_event event{};
  event.events = events;
  event.data.u64 = it->second;
  return ::epoll_ctl(state_->epoll.get(), EPOLL_CTL_MOD, fd, &event) == 0;
}

bool EventLoop::RemoveFd(int fd) {
  const auto it = state_->id_of_fd.find(fd);
  if (it == state_->id_of_fd.end()) return false;
  state_->sources.erase(it->second);
  state_->id_of_fd.erase(it);
  ::epoll_ctl(state_->epoll.get(), EPOLL_CTL_DEL, fd, nullptr);  // fails only for a descriptor closed already
  return true;
}

EventLoop::TimerId EventLoop::AddTimer(std::chrono::nanoseconds delay, Task task) {
  const TimerId id = ++state_->last_id;
  const auto deadline = Clock::now() + delay;
  state_->timers.emplace(std::pair{deadline, id}, std::move(task));
  state_->deadline_of_timer.emplace(id, deadline);
  return id;
}

void EventLoop::CancelTimer(TimerId id) {
  const auto it = state_->deadline_of_timer.find(id);
  if (it == state_->deadline_of_timer.end()) return;
  state_->timers.erase(std::pair{it->second, id});
  state_->deadline_of_timer.erase(it);
}

void EventLoop::Defer(Task task) { state_->deferred.push_back(std::move(task)); }

int EventLoop::Run(const bool* running) {
  const std::shared_ptr<State> state = state_;
  // `running` may die with the loop, so it is looked at last.
  while (!state->destroyed && !state->stopped && *running) {
    if (const int error = Turn(state, std::chrono::milliseconds{-1}, running); error != 0) return error;
  }
  return 0;
}

int EventLoop::RunOnce(std::chrono::milliseconds timeout) {
  static constexpr bool kAlways = true;
  return Turn(state_, timeout, &kAlways);
}

// By value: the loop, and its own reference, may go inside a callback.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
int EventLoop::Turn(std::shared_ptr<State> state, std::chrono::milliseconds timeout, const bool* running) {
  state->RunDeferred();
  if (state->destroyed) return 0;
  std::vector<epoll_event> ready = std::exchange(state->ready, {});  // a callback may come here
  ready.resize(state->sources.size() + 1);
  const int count =
      ::epoll_wait(state->epoll.get(), ready.data(), static_cast<int>(ready.size()), state->WaitTime(timeout));
  if (count < 0) return errno == EINTR ? 0 : errno;
  ready.resize(static_cast<size_t>(count));
  std::sort(ready.begin(), ready.end(), [](const auto& a, const auto& b) { return a.data.u64 < b.data.u64; });
  for (const epoll_event& event : ready) {
    if (state->destroyed) return 0;
    const uint64_t id = event.data.u64;  // the member is not aligned: nothing may refer to it
    if (id == 0) {
      state->ReadSignals();
      continue;
    }
    if (state->stopped || !*running) return 0;
    const auto it = state->sources.find(id);
    if (it == state->sources.end()) continue;  // removed by an earlier callback of this turn
    const std::shared_ptr<State::Source> source = it->second;
    source->callback(event.events);
    state->RunDeferred();
  }
  state->ready = std::move(ready);
  state->DispatchTimers(running);
  return 0;
}

void EventLoop::Stop() { state_->stopped = true; }

bool EventLoop::Stopped() {
  state_->ReadSignals();
  return state_->stopped;
}

}  // namespace common
