#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/result.h"

/// Transactions and dumps of nf_tables over a netlink socket of their own.
namespace mgr::nft {

/// Messages that take effect together or not at all.
class Batch final {
 public:
  Batch();
  /// Appends a message of the netdev family. `type`: NFT_MSG_...; `fill` writes its payload, at most kMaxMessage.
  void Add(uint16_t type, uint16_t flags, const std::function<void(nlmsghdr*)>& fill);
  [[nodiscard]] bool empty() const noexcept { return messages_ == 0; }

 private:
  friend class Socket;
  static constexpr size_t kMaxMessage = size_t{192} << 10;
  void Append(const nlmsghdr* message);
  std::vector<char> bytes_;
  size_t messages_ = 0;
  size_t last_ = 0;  ///< where the last message starts
};

class Socket final {
 public:
  static common::Result<Socket> Open();

  /// 0, or an errno: then nothing was changed. EMSGSIZE: larger than this process may send at once.
  int Commit(Batch batch);
  /// Calls `take` for every message of the answer. 0 or an errno.
  using Take = std::function<void(const nlmsghdr*)>;
  int Dump(uint16_t type, const std::function<void(nlmsghdr*)>& fill, const Take& take);

  /// A dump in steps: StartDump(), then ContinueDump() until it is not EINPROGRESS. Each step takes what the kernel
  /// hands out at once, some hundred elements. EINTR: the ruleset was changed on the way. Nothing else may use the
  /// socket meanwhile; StartDump() ends a dump that was left.
  int StartDump(uint16_t type, const std::function<void(nlmsghdr*)>& fill);
  int ContinueDump(const Take& take);

  /// Whose changes carry this number in notifications.
  [[nodiscard]] uint32_t port() const { return mnl_socket_get_portid(socket_.get()); }
  /// The generation of the ruleset: every transaction of anyone in this network namespace raises it.
  common::Result<uint32_t> Generation();

 private:
  struct Close {
    void operator()(mnl_socket* socket) const noexcept { mnl_socket_close(socket); }
  };
  explicit Socket(mnl_socket* socket) : socket_{socket} {}
  std::unique_ptr<mnl_socket, Close> socket_;
  uint32_t sequence_ = 1;
};

}  // namespace mgr::nft
