#pragma once

#include <memory>
#include <string>

#include "common/result.h"
#include "common/unique_fd.h"
#include "confd_cdb.h"
#include "confd_dp.h"

namespace qmconfd {

/// A CDB socket of the client library; the destructor closes it. -1 is none.
class CdbSocket final {
 public:
  CdbSocket() = default;
  explicit CdbSocket(int sock) noexcept : sock_{sock} {}
  CdbSocket(CdbSocket&& other) noexcept : sock_{other.release()} {}
  CdbSocket& operator=(CdbSocket&& other) noexcept;
  CdbSocket(const CdbSocket&) = delete;
  CdbSocket& operator=(const CdbSocket&) = delete;
  ~CdbSocket();
  [[nodiscard]] int get() const noexcept { return sock_; }
  [[nodiscard]] int release() noexcept;

 private:
  int sock_ = -1;
};

/// Connects a socket of the given kind to this element's server, which shows it under `name`.
common::Result<CdbSocket> ConnectCdb(cdb_sock_type type, const std::string& name);

/// Whether the peer of one of the descriptors has closed it, or an error is pending there. A message that waits to be
/// read does not hide that.
bool AnyHungUp(std::initializer_list<int> fds);

/// The three connections of one program, up together or not at all. The destructor closes them.
class Connection final {
 public:
  /// Control, worker and subscription, in that order.
  static common::Result<std::unique_ptr<Connection>> Open(const std::string& name);

  [[nodiscard]] confd_daemon_ctx* daemon() const noexcept { return daemon_.get(); }
  [[nodiscard]] int control() const noexcept { return control_.get(); }
  [[nodiscard]] int worker() const noexcept { return worker_.get(); }
  [[nodiscard]] int subscription() const noexcept { return subscription_.get(); }
  /// Another descriptor of the subscription connection, for the loop to watch it for its end: the application registers
  /// subscription() itself.
  [[nodiscard]] int subscription_watch() const noexcept { return subscription_watch_.get(); }
  [[nodiscard]] bool HungUp() const { return AnyHungUp({control(), worker(), subscription()}); }

 private:
  struct ReleaseDaemon {
    void operator()(confd_daemon_ctx* daemon) const noexcept { ::confd_release_daemon(daemon); }
  };
  Connection() = default;

  common::UniqueFd control_;
  common::UniqueFd worker_;
  CdbSocket subscription_;
  common::UniqueFd subscription_watch_;
  std::unique_ptr<confd_daemon_ctx, ReleaseDaemon> daemon_;  // goes first: it knows the sockets
};

}  // namespace qmconfd
