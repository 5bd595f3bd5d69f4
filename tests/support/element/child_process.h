#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace test {

/// One program that a test starts, with its standard output and error in files. Signals go to its process id only.
/// It dies with the test, and is killed and reaped by the destructor.
class ChildProcess final {
 public:
  using Environment = std::map<std::string, std::string>;

  /// Starts `command` (a path and its arguments) with `environment` on top of the test's own. `log_prefix` + ".out"
  /// and ".err" are appended to. A program that cannot be executed ends with status 127.
  ChildProcess(const std::vector<std::string>& command, const Environment& environment, std::string log_prefix);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  /// Not ended yet; one that is stopped runs.
  [[nodiscard]] bool Running();
  /// By SIGSTOP.
  [[nodiscard]] bool Stopped();
  /// Sends `signal`; to a program that has ended it does nothing.
  void Signal(int signal);
  /// How it ended: its exit status, or 128 + the signal. Nothing when it still runs after `limit`.
  std::optional<int> Wait(std::chrono::milliseconds limit);

  [[nodiscard]] std::string Output() const;  ///< standard output so far
  [[nodiscard]] std::string Log() const;     ///< standard error so far

 private:
  bool Reap(int options);

  std::string log_prefix_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

/// Runs `command` to its end, at most for a minute.
struct Finished {
  int status;
  std::string output;
  std::string log;
};
Finished Run(const std::vector<std::string>& command, const ChildProcess::Environment& environment,
             const std::string& log_prefix);

/// Asks `condition` again and again, until it is true or `limit` is over; whether it became true.
template <class Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit);

/// The time between two questions: short, for nearly all of them wait for another process that is working.
void PauseBetweenQuestions();

template <class Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    PauseBetweenQuestions();
  }
  return true;
}

}  // namespace test
