#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/socket_io.h"
#include "common/unique_fd.h"
#include "ip_spoofing_mgr_wire/messages.h"

namespace ip_spoofing_mgr::wire {

/// One end of a stream socket, as frames: a 32-bit payload size, a type byte, the payload. Never blocks; what the
/// socket does not take is queued. Loop thread only. May be destroyed inside each of its handlers; an exception that
/// leaves a handler leaves the connection whole, and what was read already is handled in the next turn of the loop.
class Connection final {
 public:
  struct Closed {
    common::CloseReason reason = common::CloseReason::kPeerClosed;  ///< kTooLarge: it broke the framing
    std::string text;                                               ///< "closed by the peer"
  };
  struct Handlers {
    std::function<void(FrameType type, std::string_view payload)> on_frame;
    /// The peer is gone or broke the framing; called once, and nothing is called afterwards.
    std::function<void(const Closed& why)> on_closed;
    /// The queue is shorter than kLowWater again; optional.
    std::function<void()> on_drained;
  };
  static constexpr size_t kLowWater = size_t{256} << 10;

  /// `socket` is connected and non-blocking. `loop` outlives the connection.
  Connection(common::EventLoop& loop, common::UniqueFd socket, Handlers handlers);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  void Send(FrameType type, std::string_view payload);
  /// Bytes that the socket has not taken yet.
  [[nodiscard]] size_t Queued() const noexcept;
  [[nodiscard]] int Socket() const noexcept;

  /// Waits up to `timeout` for the socket and handles what it brings, outside of the loop.
  void Pump(std::chrono::milliseconds timeout);

 private:
  class Impl;
  const std::shared_ptr<Impl> impl_;  ///< shared with the running call, so that the connection may die in it
};

/// Sends one last frame on a socket without a connection, if the socket takes it at once.
void SendLastFrame(int socket, FrameType type, std::string_view payload);

}  // namespace ip_spoofing_mgr::wire
