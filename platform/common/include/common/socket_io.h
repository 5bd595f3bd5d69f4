#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/result.h"

namespace common {

/// Why a connection ended.
enum class CloseReason : uint8_t {
  kPeerClosed,     ///< the peer closed or reset it
  kReceiveFailed,  ///< the system reported another error
  kSendFailed,
  kTooLarge,  ///< the peer sent a packet above the limit
  kNotRead,   ///< the peer left more than the limit unread
  kFinished,  ///< closed by CloseWhenSent(), and everything was sent
};

struct CloseInfo {
  CloseReason reason = CloseReason::kPeerClosed;
  int system_error = 0;  ///< errno value, if the system reported one

  [[nodiscard]] std::string Text() const;  ///< for logs
};

/// What one attempt to send or receive on a socket came to; nothing here ever waits.
struct IoOutcome {
  enum class Kind : uint8_t { kBytes, kWouldBlock, kEnd, kFailed };
  Kind kind = Kind::kBytes;
  size_t size = 0;       ///< kBytes: bytes sent or received
  int system_error = 0;  ///< kFailed

  /// The peer is gone: the end of its stream, or an error that says so.
  [[nodiscard]] bool PeerIsGone() const noexcept;
};

/// Receives up to `size` bytes of a stream. Wraps recv(2).
IoOutcome ReceiveNow(int fd, char* buffer, size_t size);
/// Receives one packet of a SOCK_SEQPACKET socket. One that is longer than the buffer is cut; the outcome has its full
/// size. Wraps recv(2).
IoOutcome ReceivePacketNow(int fd, char* buffer, size_t size);
/// Whether something has arrived, without taking it: kBytes if so. Wraps recv(2).
IoOutcome PeekNow(int fd);
/// Sends what the socket takes of `bytes`, or one whole packet. Wraps send(2); never raises SIGPIPE.
IoOutcome SendNow(int fd, std::string_view bytes);

/// Waits for POLLIN or POLLOUT on `fd`, up to `deadline`. An error with IsTimedOut() when it has passed. Wraps poll(2).
Status WaitReady(int fd, short events, std::chrono::steady_clock::time_point deadline);

}  // namespace common
