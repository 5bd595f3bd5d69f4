#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "common/event_loop.h"
#include "common/log_limiter.h"
#include "common/result.h"
#include "common/unique_fd.h"

namespace common {

/// A bound and listening socket. If it has a path in the file system, the destructor removes it.
class ListeningSocket final {
 public:
  ListeningSocket() = default;
  /// Takes a socket that listens, without a name in the file system that is ours to remove.
  ListeningSocket(UniqueFd fd) : fd_{std::move(fd)} {}  // NOLINT(google-explicit-constructor): nothing is lost
  ListeningSocket(UniqueFd fd, std::string path) : fd_{std::move(fd)}, path_{std::move(path)} {}
  /// ListenUnix() with the path owned.
  static Result<ListeningSocket> Unix(const std::string& path, int type, mode_t mode);
  ListeningSocket(ListeningSocket&& other) noexcept;
  ListeningSocket& operator=(ListeningSocket&& other) noexcept;
  ~ListeningSocket();

  [[nodiscard]] int fd() const noexcept { return fd_.get(); }

 private:
  UniqueFd fd_;
  std::string path_;
};

/// Accepts connections on a loop, up to a limit. It never spins: when the process or the system is out of descriptors,
/// a reserved one is used to accept and close what waits, and if that fails too, accepting pauses. Loop thread only.
class Listener final {
 public:
  /// Counts one connection against the limit as long as it lives. May outlive the listener.
  using Slot = std::shared_ptr<const void>;
  struct Connection {
    UniqueFd socket;  ///< non-blocking
    ucred peer{};     ///< as of its connect(2), if asked for
    Slot slot;        ///< to be kept as long as the connection
  };
  struct Handlers {
    std::function<void(Connection connection)> on_connection;
    /// A connection beyond the limit, for a last word before it is closed; may be empty.
    std::function<void(int socket)> on_refused{};
    /// Something for the log, already limited in rate.
    std::function<void(const std::string& text)> on_trouble{};
  };
  struct Options {
    size_t max_connections = 64;
    const char* noun = "connections";  ///< what they are called in "there are 64 connections"
    int accepts_per_turn = 16;
    bool peer_credentials = true;  ///< refuse a connection whose peer is unknown; not for other than Unix sockets
    std::chrono::milliseconds pause{100};  ///< without accepting, while there are no descriptors at all
  };

  /// `loop` outlives the listener.
  Listener(EventLoop& loop, ListeningSocket socket, const Options& options, Handlers handlers);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  [[nodiscard]] size_t connections() const noexcept;

 private:
  class Impl;
  const std::shared_ptr<Impl> impl_;  ///< shared with the running call, so that the listener may die in a handler
};

}  // namespace common
