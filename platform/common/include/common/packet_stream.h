#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/socket_io.h"
#include "common/unique_fd.h"

namespace common {

/// One end of a connected SOCK_SEQPACKET socket on a loop: what is sent arrives as the same packets. It never waits;
/// packets that the socket does not take are kept. Destroying it, also inside a handler, closes the socket without a
/// call of `on_closed`. Loop thread only.
class PacketStream final {
 public:
  struct Handlers {
    std::function<void(std::string_view packet)> on_packet;
    /// The connection has ended; the last call. The socket is closed already.
    std::function<void(const CloseInfo& why)> on_closed;
  };
  struct Options {
    size_t max_packet = size_t{64} << 10;  ///< a longer one ends the connection as kTooLarge
    int packets_per_turn = 64;             ///< read in one turn of the loop, so that others have their turn
    size_t max_queued = size_t{64} << 20;  ///< bytes; a peer that leaves more unread is closed as kNotRead
  };

  /// `socket` is connected; `loop` outlives the stream.
  PacketStream(EventLoop& loop, UniqueFd socket, const Options& options, Handlers handlers);
  PacketStream(const PacketStream&) = delete;
  PacketStream& operator=(const PacketStream&) = delete;
  ~PacketStream();

  /// Sends the packet, or queues it. Ignored after the end.
  void Send(std::string packet);
  /// Closes the socket now, without a call of `on_closed`. What is queued is dropped.
  void Close();
  [[nodiscard]] bool open() const noexcept;
  /// Bytes that the socket has not taken yet.
  [[nodiscard]] size_t Queued() const noexcept;

 private:
  class Impl;
  const std::shared_ptr<Impl> impl_;  ///< shared with the running call, so that the stream may die in it
};

}  // namespace common
