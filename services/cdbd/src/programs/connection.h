#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/unique_fd.h"
#include "confd_wire/messages.h"

namespace cdbd {

/// One connection of a program: a SOCK_SEQPACKET socket, one packet a message. Sending never waits: what the socket
/// does not take is kept. Loop thread only.
class Connection final {
 public:
  struct Callbacks {
    std::function<void(Connection&, std::string_view packet)> packet;
    /// The peer is gone, or Close() was called; `why` says which. Last call; the connection may be destroyed in it.
    std::function<void(Connection&, const std::string& why)> closed;
  };

  Connection(common::EventLoop& loop, common::UniqueFd fd, uint64_t id, pid_t pid, Callbacks callbacks);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Send(std::string packet);
  void Close(const std::string& why);

  [[nodiscard]] uint64_t id() const noexcept { return id_; }
  [[nodiscard]] pid_t pid() const noexcept { return pid_; }

  /* Told in the hello. */
  bool greeted = false;
  confd_wire::ClientKind kind = confd_wire::ClientKind::kRead;
  std::string name;
  uint64_t daemon_id = 0;  ///< of a worker

 private:
  void OnEvents(uint32_t events);
  void Flush();
  void WatchOutput(bool watch);

  common::EventLoop& loop_;
  common::UniqueFd fd_;
  const uint64_t id_;
  const pid_t pid_;
  Callbacks callbacks_;
  std::deque<std::string> unsent_;
  bool watches_output_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace cdbd
