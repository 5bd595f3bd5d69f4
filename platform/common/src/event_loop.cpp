#include "common/event_loop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
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

struct EventLoopState {
  struct Source {
    int fd;
    uint32_t events;
    EventLoop::FdCallback callback;
  };

  UniqueFd epoll;
  UniqueFd signals;
  uint64_t last_id = 0;
  std::map<uint64_t, std::shared_ptr<Source>> sources;  // by id, which is the order of registration
  std::unordered_map<int, uint64_t> id_of_fd;
  std::map<std::pair<Clock::time_point, uint64_t>, EventLoop::Task> timers;
  std::unordered_map<uint64_t, Clock::time_point> deadline_of_timer;
  std::map<uint64_t, EventLoop::Task> soon;  // by id: in the order of the calls
  std::vector<epoll_event> ready;            // the last turn's memory
  std::unordered_map<int, FdWatch> held;
  bool stopped = false;
  bool destroyed = false;

  // Whatever is erased here is taken out of its map first: destroying a callback may end other registrations.
  void EndWatch(uint64_t id) {
    const auto node = sources.extract(id);
    if (node.empty()) return;
    id_of_fd.erase(node.mapped()->fd);
    ::epoll_ctl(epoll.get(), EPOLL_CTL_DEL, node.mapped()->fd, nullptr);  // fails only for one that is closed already
  }

  void Cancel(uint64_t id) {
    if (const auto deferred = soon.extract(id); !deferred.empty()) return;
    const auto deadline = deadline_of_timer.find(id);
    if (deadline == deadline_of_timer.end()) return;
    const auto timer = timers.extract({deadline->second, id});
    deadline_of_timer.erase(deadline);
  }

  [[nodiscard]] bool IsScheduled(uint64_t id) const { return soon.contains(id) || deadline_of_timer.contains(id); }

  void RunSoon() {
    while (!soon.empty() && !destroyed) {
      const auto node = soon.extract(soon.begin());
      node.mapped()();
    }
  }

  void ReadSignals() {
    signalfd_siginfo info;
    while (signals && ::read(signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) stopped = true;
  }

  /// Milliseconds until the first timer, rounded up so that a turn never comes too early; `limit` when it is sooner.
  [[nodiscard]] int WaitTime(std::chrono::milliseconds limit) const {
    if (!soon.empty()) return 0;
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
      const auto node = timers.extract(timers.begin());
      deadline_of_timer.erase(node.key().second);
      node.mapped()();
      RunSoon();
    }
  }
};

FdWatch::FdWatch(FdWatch&& other) noexcept : loop_{std::move(other.loop_)}, id_{std::exchange(other.id_, 0)} {}

FdWatch& FdWatch::operator=(FdWatch&& other) noexcept {
  if (this == &other) return *this;
  Reset();
  loop_ = std::move(other.loop_);
  id_ = std::exchange(other.id_, 0);
  return *this;
}

bool FdWatch::Set(uint32_t events) {
  const auto state = loop_.lock();
  if (id_ == 0 || !state || state->destroyed) return false;
  const auto it = state->sources.find(id_);
  if (it == state->sources.end()) return false;
  EventLoopState::Source& source = *it->second;
  if (source.events == events) return true;
  epoll_event event{};
  event.events = events;
  event.data.u64 = id_;
  if (::epoll_ctl(state->epoll.get(), EPOLL_CTL_MOD, source.fd, &event) != 0) return false;
  source.events = events;
  return true;
}

void FdWatch::Reset() noexcept {
  const uint64_t id = std::exchange(id_, 0);
  const auto state = std::exchange(loop_, {}).lock();
  if (id != 0 && state) state->EndWatch(id);
}

ScheduledTask::ScheduledTask(ScheduledTask&& other) noexcept
    : loop_{std::move(other.loop_)}, id_{std::exchange(other.id_, 0)} {}

ScheduledTask& ScheduledTask::operator=(ScheduledTask&& other) noexcept {
  if (this == &other) return *this;
  Reset();
  loop_ = std::move(other.loop_);
  id_ = std::exchange(other.id_, 0);
  return *this;
}

ScheduledTask::operator bool() const noexcept {
  const auto state = loop_.lock();
  return id_ != 0 && state && state->IsScheduled(id_);
}

void ScheduledTask::Reset() noexcept {
  const uint64_t id = std::exchange(id_, 0);
  const auto state = std::exchange(loop_, {}).lock();
  if (id != 0 && state) state->Cancel(id);
}

std::unique_ptr<EventLoop> EventLoop::Create(bool handle_signals) {
  auto state = std::make_shared<EventLoopState>();
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

EventLoop::EventLoop(std::shared_ptr<EventLoopState> state) : state_{std::move(state)} {}

EventLoop::~EventLoop() {
  state_->destroyed = true;
  // Moved out first: destroying a callback may end other registrations.
  const auto sources = std::exchange(state_->sources, {});
  const auto timers = std::exchange(state_->timers, {});
  const auto soon = std::exchange(state_->soon, {});
  const auto held = std::exchange(state_->held, {});
  state_->deadline_of_timer.clear();
}

FdWatch EventLoop::Watch(int fd, uint32_t events, FdCallback callback) {
  if (fd < 0 || state_->id_of_fd.contains(fd)) return {};
  epoll_event event{};
  event.events = events;
  event.data.u64 = state_->last_id + 1;
  if (::epoll_ctl(state_->epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) return {};
  const uint64_t id = ++state_->last_id;
  state_->sources.emplace(
      id, std::make_shared<EventLoopState::Source>(EventLoopState::Source{fd, events, std::move(callback)}));
  state_->id_of_fd.emplace(fd, id);
  return {state_, id};
}

ScheduledTask EventLoop::After(std::chrono::nanoseconds delay, Task task) {
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(delay);
  const uint64_t id = ++state_->last_id;
  state_->timers.emplace(std::pair{deadline, id}, std::move(task));
  state_->deadline_of_timer.emplace(id, deadline);
  return {state_, id};
}

ScheduledTask EventLoop::Soon(Task task) {
  const uint64_t id = ++state_->last_id;
  state_->soon.emplace(id, std::move(task));
  return {state_, id};
}

int EventLoop::Run(const bool* running) {
  const std::shared_ptr<EventLoopState> state = state_;
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
int EventLoop::Turn(std::shared_ptr<EventLoopState> state, std::chrono::milliseconds timeout, const bool* running) {
  state->RunSoon();
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
    if (it == state->sources.end()) continue;  // its watch was ended by an earlier callback of this turn
    const std::shared_ptr<EventLoopState::Source> source = it->second;
    source->callback(event.events);
    state->RunSoon();
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

// The calls below go when their last user has gone over to handles.
bool EventLoop::AddFd(int fd, uint32_t events, FdCallback callback) {
  FdWatch watch = Watch(fd, events, std::move(callback));
  if (!watch) return false;
  state_->held.insert_or_assign(fd, std::move(watch));
  return true;
}

bool EventLoop::ModifyFd(int fd, uint32_t events) {
  const auto it = state_->held.find(fd);
  return it != state_->held.end() && it->second.Set(events);
}

bool EventLoop::RemoveFd(int fd) { return !state_->held.extract(fd).empty(); }

EventLoop::TimerId EventLoop::AddTimer(std::chrono::nanoseconds delay, Task task) {
  ScheduledTask timer = After(delay, std::move(task));
  return std::exchange(timer.id_, 0);
}

void EventLoop::CancelTimer(TimerId id) { state_->Cancel(id); }

void EventLoop::Defer(Task task) { state_->soon.emplace(++state_->last_id, std::move(task)); }

}  // namespace common
