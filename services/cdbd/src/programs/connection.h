#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "common/event_loop.h"
#include "common/listener.h"
#include "common/packet_stream.h"
#include "confd_wire/messages.h"

namespace cdbd {

/// How a program's connection ended. The text is for logs and operators: "it disconnected".
struct ConnectionEnd {
  enum class Reason : uint8_t {
    kDisconnected,   ///< the program closed it, or died
    kSocketFailed,   ///< the system reported an error, or the program does not read
    kRefused,        ///< by the answer to its hello
    kNotUnderstood,  ///< it sent something that breaks the protocol
    kTooSlow,        ///< it did not take in a commit in time
    kOrphaned,       ///< a worker whose control connection is gone
  };
  Reason reason = Reason::kDisconnected;
  std::string text;
};

/// One connection of a program: a SOCK_SEQPACKET socket, one packet a message. Sending never waits. Loop thread only.
class Connection final {
 public:
  struct Callbacks {
    std::function<void(Connection&, std::string_view packet)> packet;
    /// The peer is gone, or Close() was called. Last call; the connection may be destroyed in it.
    std::function<void(Connection&, const ConnectionEnd&)> closed;
  };

  Connection(common::EventLoop& loop, common::Listener::Connection accepted, uint64_t id, Callbacks callbacks);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Send(std::string packet) { stream_.Send(std::move(packet)); }
  /// Closes it now; `closed` is called before this returns.
  void Close(ConnectionEnd::Reason reason, std::string text);

  [[nodiscard]] uint64_t id() const noexcept { return id_; }
  [[nodiscard]] pid_t pid() const noexcept { return pid_; }

  /* Told in the hello. */
  bool greeted = false;
  confd_wire::ClientKind kind = confd_wire::ClientKind::kRead;
  std::string name;
  uint64_t daemon_id = 0;  ///< of a worker

 private:
  void OnClosed(const common::CloseInfo& why);

  const common::Listener::Slot slot_;
  const uint64_t id_;
  const pid_t pid_;
  const Callbacks callbacks_;
  bool closed_ = false;
  common::PacketStream stream_;  ///< last: its handlers use the others
};

}  // namespace cdbd
