#pragma once

#include <deque>
#include <functional>

namespace cdbd {

/// Commits one after the other: a job starts when the one before it has called its `done`, which may be much later.
/// Loop thread only.
class CommitLine final {
 public:
  using Done = std::function<void()>;
  using Job = std::function<void(Done done)>;

  /// Runs `job`, at once when nothing is under way. `done` has to be called exactly once.
  void Submit(Job job) {
    jobs_.push_back(std::move(job));
    if (!busy_) RunNext();
  }
  [[nodiscard]] bool busy() const noexcept { return busy_; }
  [[nodiscard]] size_t waiting() const noexcept { return jobs_.size(); }

 private:
  void RunNext() {
    while (!busy_ && !running_ && !jobs_.empty()) {
      const Job job = std::move(jobs_.front());
      jobs_.pop_front();
      busy_ = running_ = true;
      job([this] {
        busy_ = false;
        RunNext();  // does nothing inside the job: the loop there continues
      });
      running_ = false;
    }
  }

  std::deque<Job> jobs_;
  bool busy_ = false;
  bool running_ = false;
};

}  // namespace cdbd
