#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <string>

#include "common/socket_io.h"
#include "common/unique_fd.h"

namespace common::test {

/// Two connected sockets: the code under test gets `near`, the test plays the peer on `far`.
struct SocketPair {
  explicit SocketPair(int type) {
    std::array<int, 2> fds{};
    EXPECT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds.data()), 0);
    near.reset(fds[0]);
    far.reset(fds[1]);
  }
  /// Everything that has arrived at the peer.
  [[nodiscard]] std::string Arrived() const {
    std::string all;
    std::string buffer(1 << 16, '\0');
    while (true) {
      const IoOutcome outcome = ReceiveNow(far.get(), buffer.data(), buffer.size());
      if (outcome.kind != IoOutcome::Kind::kBytes) return all;
      all.append(buffer, 0, outcome.size);
    }
  }
  void Say(std::string_view bytes) const {
    EXPECT_EQ(::send(far.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  UniqueFd near;
  UniqueFd far;
};

/// "peer-closed", "send-failed", ...
inline std::string NameOf(CloseReason reason) {
  static const std::array<std::string, 6> kNames{"peer-closed", "receive-failed", "send-failed",
                                                 "too-large",   "not-read",       "finished"};
  return kNames.at(static_cast<size_t>(reason));
}

}  // namespace common::test
