#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/element/child_process.h"
#include "support/netconf_client.h"

namespace cdbd::test {

using ::test::ChildProcess;
using ::test::Eventually;
using ::test::IsOk;
using ::test::NetconfClient;

/// One cdbd in directories of its own, which go with it. When the running test has failed, its log is printed.
class CdbdProcess final {
 public:
  static constexpr std::chrono::seconds kLimit{60};  ///< for everything that is waited for

  /// `options` go with every start. Does not start it.
  explicit CdbdProcess(std::vector<std::string> options = {});
  CdbdProcess(const CdbdProcess&) = delete;
  CdbdProcess& operator=(const CdbdProcess&) = delete;
  ~CdbdProcess();

  /// Where the next start finds its modules; CDBD_MODELS_DIR without it.
  void SetModels(std::string directory) { models_ = std::move(directory); }
  /// Options of the next starts besides those of the constructor.
  void SetExtraOptions(std::vector<std::string> options) { extra_options_ = std::move(options); }
  /// Starts it and waits until it listens.
  void Start();
  /// Starts it, expecting that it ends by itself: its exit status, or -1 when it does not end.
  int RunToEnd();
  /// SIGTERM; its exit status, or 128 + the signal it died of, or -1 when it does not end.
  int Stop();
  /// SIGKILL, and waits for the end.
  void Kill();

  [[nodiscard]] NetconfClient Connect(bool base_1_1 = true) const { return NetconfClient{NetconfSocket(), base_1_1}; }
  [[nodiscard]] std::string RunDir() const { return root_ + "/run"; }
  [[nodiscard]] std::string StateDir() const { return root_ + "/state"; }
  [[nodiscard]] std::string NetconfSocket() const { return RunDir() + "/netconf.sock"; }
  [[nodiscard]] std::string CdbSocket() const { return RunDir() + "/cdb.sock"; }
  [[nodiscard]] std::string Log() const;  ///< of every run
  [[nodiscard]] ChildProcess& process() { return *process_; }
  [[nodiscard]] const std::string& root() const { return root_; }

 private:
  void Spawn();

  std::vector<std::string> options_;
  std::vector<std::string> extra_options_;
  std::string models_ = CDBD_MODELS_DIR;
  std::string root_;
  std::unique_ptr<ChildProcess> process_;
};

/// The content of <config> with interfaces of these names in it.
std::string Interfaces(const std::vector<std::string>& names);
/// `content` in the top containers of the anti-spoofing model; `attributes` are those of the inner one.
std::string AntiSpoofing(const std::string& content, const std::string& attributes = "");

}  // namespace cdbd::test
