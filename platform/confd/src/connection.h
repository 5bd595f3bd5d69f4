#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "confd_wire/codec.h"
#include "last_error.h"

namespace confd {

/// One connection to the server on a socket that belongs to the application. The application may close the descriptor
/// behind the library's back and get its number again for something else: IsOwnDescriptor() notices. Every function
/// that fails leaves the last error set; results are CONFD_OK, CONFD_ERR or CONFD_EOF.
class Connection final {
 public:
  static constexpr std::chrono::seconds kConnectLimit{5};

  /// Connects `sock` and exchanges hello. Null on failure, with `result` set.
  static std::shared_ptr<Connection> Open(int sock, const sockaddr* server, int server_size,
                                          const confd_wire::Hello& hello, confd_wire::HelloReply& reply, int& result);

  [[nodiscard]] int fd() const noexcept { return fd_; }
  /// The descriptor is still the one that was connected.
  [[nodiscard]] bool IsOwnDescriptor() const;
  /// The server has gone, or a time-out left the connection in an unknown state.
  [[nodiscard]] bool IsDead() const noexcept { return dead_; }
  /// Longest wait of one call; zero for no limit.
  void set_timeout(std::chrono::seconds timeout) noexcept { timeout_ = timeout; }

  /// Sends one packet; waits while the peer does not read, as long as the time-out allows.
  int Send(const std::string& packet);
  /// Receives one packet, waiting for it no longer than the time-out.
  int Receive(std::string& packet);
  /// As Receive(), without waiting: an empty packet when there is none.
  int ReceiveNow(std::string& packet);
  /// Finds out, without waiting or taking a message, whether the server has gone: CONFD_OK or CONFD_EOF.
  int Probe();

  /// Sends a request and waits for its answer.
  template <class Reply, class Request>
  int Call(const Request& request, Reply& reply) {
    if (const int result = Send(confd_wire::Encode(request)); result != CONFD_OK) return result;
    std::string packet;
    if (const int result = Receive(packet); result != CONFD_OK) return result;
    auto decoded = confd_wire::Decode<Reply>(packet);
    if (!decoded) return FailProtocol();
    reply = *std::move(decoded);
    return CONFD_OK;
  }
  /// The server sent what it should not have.
  int FailProtocol();

 private:
  Connection(int fd, dev_t device, ino_t inode) : fd_{fd}, device_{device}, inode_{inode} {}
  int Wait(short events);
  int FailGone();

  int fd_;
  dev_t device_;
  ino_t inode_;
  bool dead_ = false;
  std::chrono::seconds timeout_{kConnectLimit};
};

}  // namespace confd
