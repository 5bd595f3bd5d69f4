#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "frames/frame_builder.h"
#include "ip_spoofing_mgr_wire/messages.h"
#include "support/element/child_process.h"

namespace kernel_test {

using Request = ip_spoofing_mgr::wire::Request;

Request EnablePort(const std::string& port);
Request DisablePort(const std::string& port);
Request PortMode(const std::string& port, uint8_t mode);
Request Put(const std::string& port, uint16_t vlan, uint32_t source_be, const frames::Mac& mac = {});
Request Remove(const std::string& port, uint16_t vlan, uint32_t source_be);

/// A manager process in directories of its own, and the one client that configures it.
class ManagerUnderTest final {
 public:
  explicit ManagerUnderTest(std::string dataplane);
  ManagerUnderTest(const ManagerUnderTest&) = delete;
  ManagerUnderTest& operator=(const ManagerUnderTest&) = delete;
  ~ManagerUnderTest();

  static constexpr const char* kUser = "65534";
  /// From the next start on, the process is of kUser, with these capabilities and no others.
  void BecomeUser(const std::vector<std::string>& capabilities);
  /// From the next start on.
  void UseDataplane(std::string dataplane) { dataplane_ = std::move(dataplane); }
  /// Starts the process and connects; false when it does not come up, with its log printed.
  [[nodiscard]] bool Start(const std::vector<std::string>& options = {});
  /// Starts the process and waits for its end; the exit status.
  [[nodiscard]] int Run(const std::vector<std::string>& options = {});
  void Kill();  ///< SIGKILL
  int Stop();   ///< SIGTERM; the exit status
  [[nodiscard]] std::string Log() const;
  [[nodiscard]] std::string run_dir() const { return root_ + "/run"; }
  [[nodiscard]] const std::string& root() const noexcept { return root_; }  ///< of all its directories

  /// Sends the requests as one batch and waits until the manager says that it is in force.
  [[nodiscard]] bool Submit(const std::vector<Request>& requests, bool full = false);
  /// Runs ip-spoofing-ctl; its standard output.
  [[nodiscard]] std::string Ctl(const std::vector<std::string>& arguments) const;
  /// Starts ip-spoofing-ctl and leaves it running.
  [[nodiscard]] std::unique_ptr<test::ChildProcess> Watch(const std::vector<std::string>& arguments) const;
  [[nodiscard]] pid_t pid() const { return process_->pid(); }
  /// Waits until `ip-spoofing-ctl show ports` has `text` in it.
  [[nodiscard]] bool WaitForPorts(const std::string& text) const;

 private:
  void CopyProgram();
  void Launch(const std::vector<std::string>& options);
  [[nodiscard]] bool Connect();
  [[nodiscard]] bool SendFrame(ip_spoofing_mgr::wire::FrameType type, const std::string& payload);
  [[nodiscard]] std::optional<std::pair<ip_spoofing_mgr::wire::FrameType, std::string>> ReceiveFrame();

  std::string dataplane_;
  std::vector<std::string> starter_;
  std::string executable_;
  test::ChildProcess::Environment environment_;
  std::string root_;
  std::unique_ptr<test::ChildProcess> process_;
  common::UniqueFd socket_;
  uint64_t sequence_ = 0;
};

}  // namespace kernel_test
