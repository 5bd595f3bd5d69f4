#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/event_loop.h"
#include "common/unique_fd.h"
#include "ip_spoofing_mgr_wire/connection.h"

namespace ip_spoofing_mgr {

/// A manager on a thread of its own, at the socket of this process's run directory. It does what the test says, and
/// writes down what it hears: "connect", "hello", "hello gives way", a batch as BatchText() says it, "list N", "gone".
class ScriptedManager final {
 public:
  ScriptedManager();
  ~ScriptedManager();
  ScriptedManager(const ScriptedManager&) = delete;
  ScriptedManager& operator=(const ScriptedManager&) = delete;

  std::atomic<bool> welcomes{true};
  std::atomic<bool> acknowledges{true};

  /// What has been heard since the last call, everything that clients have sent until now included.
  std::vector<std::string> Take();

  [[nodiscard]] bool HasHeard(const std::string& what) const;

  /// The rest acts on the newest connection.
  void Send(wire::FrameType type, const std::string& payload);
  void SendRows(uint32_t id, uint32_t rows);  ///< and the list's end
  void Drop();
  /// Handles nothing from now on, until Resume().
  void Stall();
  void Resume();

 private:
  void Run();
  void Post(std::function<void()> task);
  void Accept();
  void OnFrame(wire::Connection* connection, wire::FrameType type, std::string_view payload);
  void Hear(const std::string& what);
  void Turn();

  const common::UniqueFd wake_;
  common::UniqueFd listener_;
  std::unique_ptr<common::EventLoop> loop_;
  std::deque<std::unique_ptr<wire::Connection>> connections_;
  mutable std::mutex mutex_;
  std::deque<std::function<void()>> tasks_;
  std::vector<std::string> heard_;
  std::promise<void> resume_;
  std::atomic<bool> running_{true};
  std::thread thread_;
};

}  // namespace ip_spoofing_mgr
