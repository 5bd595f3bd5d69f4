#include "guard/guard.h"

#include <spdlog/spdlog.h>
#include <sys/epoll.h>

#include <algorithm>
#include <utility>

namespace mgr {
namespace {

std::string TextOf(const Deviation& deviation) { return deviation.what + ": " + deviation.error; }

/// An enabled port whose interface exists, and whose frames are not judged as they should be.
std::string ProblemOf(const Port& port) {
  if (!port.wanted_enabled || port.ifindex == 0) return {};
  const std::string& reason = port.failure.empty() ? port.unguarded : port.failure;
  return reason.empty() ? "" : "port " + port.name + ": " + reason;
}

}  // namespace

Guard::Guard(common::EventLoop& loop, Table& table, Dataplane& dataplane, std::chrono::milliseconds period)
    : loop_{loop}, table_{table}, dataplane_{dataplane}, period_{period} {
  if (const int fd = dataplane_.ChangeEventFd(); fd >= 0)
    loop_.AddFd(fd, EPOLLIN, [this](uint32_t) { OnKernelEvents(); });
  StepAfter(std::chrono::milliseconds{0});
}

Guard::~Guard() {
  loop_.CancelTimer(timer_);
  if (const int fd = dataplane_.ChangeEventFd(); fd >= 0) loop_.RemoveFd(fd);
}

void Guard::Check(std::function<void()> done) {
  asked_.push_back(std::move(done));
  if (!checking_) StepAfter(std::chrono::milliseconds{0});
}

void Guard::OnKernelEvents() {
  Report(dataplane_.ReadChangeEvents());
  if (!checking_) StepAfter(std::chrono::milliseconds{0});  // events may be lost, or say not enough
}

void Guard::StepAfter(std::chrono::milliseconds delay) {
  loop_.CancelTimer(timer_);
  timer_ = loop_.AddTimer(delay, [this] {
    timer_ = 0;
    Step();
  });
}

void Guard::Step() {
  if (!checking_) {
    checking_ = true;
    found_failing_.clear();
    waiting_ = std::exchange(asked_, {});
  }
  const Dataplane::CheckStep step = dataplane_.Check();
  Report(step.found);
  if (!step.complete) return StepAfter(std::chrono::milliseconds{0});
  TakePorts();
  checking_ = false;
  ++checks_;
  last_check_ = Clock::now();
  failing_ = std::exchange(found_failing_, {});
  for (const auto& done : std::exchange(waiting_, {})) done();
  StepAfter(asked_.empty() ? period_ : std::chrono::milliseconds{0});
}

void Guard::Report(const std::vector<Deviation>& deviations) {
  for (const Deviation& deviation : deviations) {
    Event event{.time = Clock::now(), .what = deviation.what, .error = deviation.error};
    if (deviation.error.empty()) {
      event.what += ", put back";
      ++repairs_;
    } else {
      const std::string text = TextOf(deviation);
      const bool known = failing_.contains(text) || found_failing_.contains(text);
      found_failing_.insert(text);
      if (known) continue;  // told when it was first found
      failing_.insert(text);
    }
    Record(std::move(event));
  }
}

void Guard::TakePorts() {
  const auto& unguarded = dataplane_.Unguarded();
  for (auto& [id, port] : table_.ports()) {
    const auto found = unguarded.find(id);
    const std::string reason = found == unguarded.end() ? "" : found->second;
    if (port.unguarded == reason) continue;
    port.unguarded = reason;
    Record({.time = Clock::now(),
            .what = "port " + port.name + (reason.empty() ? " is guarded again" : ""),
            .error = reason});
  }
}

void Guard::Record(Event event) {
  Log(event);
  if (on_event_) on_event_(event);
  last_events_.push_back(std::move(event));
  if (last_events_.size() > kLastEvents) last_events_.pop_front();
}

void Guard::Log(const Event& event) {
  const auto now = std::chrono::steady_clock::now();
  if (now - log_since_ >= kLogPeriod) {
    if (logged_ > kLogLines) spdlog::warn("guard: {} more such lines were left out", logged_ - kLogLines);
    log_since_ = now;
    logged_ = 0;
  }
  if (++logged_ > kLogLines) return;
  if (event.error.empty()) {
    spdlog::warn("guard: {}", event.what);
  } else {
    spdlog::error("guard: {}: not guarded: {}", event.what, event.error);
  }
}

std::vector<std::string> Guard::Problems() const {
  std::vector<std::string> problems{failing_.begin(), failing_.end()};
  for (const auto& [id, port] : table_.ports())
    if (std::string problem = ProblemOf(port); !problem.empty()) problems.push_back(std::move(problem));
  return problems;
}

size_t Guard::UnguardedPorts() const {
  return static_cast<size_t>(std::count_if(table_.ports().begin(), table_.ports().end(),
                                           [](const auto& port) { return !ProblemOf(port.second).empty(); }));
}

}  // namespace mgr
