#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "child_process.h"

namespace test {

enum class Part { kCdbd, kManager, kDaemon };
inline constexpr std::array kAllParts{Part::kCdbd, Part::kManager, Part::kDaemon};
std::string_view Name(Part part);  ///< of the executable

/// One element in a run and a state directory of its own: the database server, the manager with the memory dataplane
/// and the daemon, each started and ended by the test, by process id. When the running test has failed, the destructor
/// prints the end of each log. Everything started is killed and the directories are removed in the end.
class Element final {
 public:
  static constexpr std::chrono::seconds kLimit{30};  ///< for everything that is waited for

  Element();
  Element(const Element&) = delete;
  Element& operator=(const Element&) = delete;
  ~Element();

  /// Of daemons started from now on: every request is written to `log`, a line each (request_probe.cpp).
  void ProbeRequests(const std::string& log);
  /// Besides, the daemon stops itself (SIGSTOP) before its step number `step`: requests and acknowledgements count.
  /// 0: it does not.
  void StopDaemonAt(int step);
  /// Besides, its difference walk of that number fails. 0: none does.
  void FailWalk(int number);

  /// Starts `part` with `options` behind the ones every test wants; a part that runs already is left alone.
  void Start(Part part, const std::vector<std::string>& options = {});
  /// Starts all, and waits until the database server and the manager listen.
  void StartAll();
  /// SIGTERM; its exit status, or 128 + the signal that it died of. -1 when it does not end.
  int Stop(Part part);
  /// SIGKILL, and waits for the end.
  void Kill(Part part);
  void Pause(Part part);   ///< SIGSTOP
  void Resume(Part part);  ///< SIGCONT
  /// Waits until `part` is stopped.
  [[nodiscard]] bool WaitForPause(Part part) const;
  /// Null when it was never started.
  [[nodiscard]] ChildProcess* Process(Part part) const { return processes_[Index(part)].get(); }
  [[nodiscard]] bool Running(Part part) const;
  /// Waits until `part` has ended by itself: its exit status, or -1 when it does not.
  int WaitForEnd(Part part);
  /// Standard error of every run of `part` so far.
  [[nodiscard]] std::string Log(Part part) const;
  /// Waits until the log of `part` holds `text`.
  [[nodiscard]] bool WaitForLog(Part part, std::string_view text) const;
  /// Waits until the socket of the part takes connections; the daemon has none.
  [[nodiscard]] bool WaitForSocket(Part part) const;

  /// Runs one of the operator's tools against this element.
  [[nodiscard]] Finished Cli(const std::vector<std::string>& arguments) const;
  [[nodiscard]] Finished Ctl(const std::vector<std::string>& arguments) const;

  [[nodiscard]] static std::string CliPath();
  [[nodiscard]] std::string RunDir() const { return root_ + "/run"; }
  [[nodiscard]] std::string StateDir() const { return root_ + "/state"; }
  [[nodiscard]] std::string NetconfSocket() const { return RunDir() + "/netconf.sock"; }
  [[nodiscard]] std::string FaultFile() const { return RunDir() + "/faults.jsonl"; }
  [[nodiscard]] ChildProcess::Environment Environment() const;
  /// A path for a file of the test, removed with the element.
  [[nodiscard]] std::string File(std::string_view name) const { return root_ + "/" + std::string{name}; }

 private:
  static size_t Index(Part part) { return static_cast<size_t>(part); }

  std::string root_;
  ChildProcess::Environment probe_;  ///< of the daemon only
  std::array<std::unique_ptr<ChildProcess>, kAllParts.size()> processes_;
};

}  // namespace test
