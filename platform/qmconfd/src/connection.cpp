#include "connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <utility>

#include "common/paths.h"
#include "common/unix_socket.h"

namespace qmconfd {
namespace {

common::Result<common::UniqueFd> NewSocket() {
  common::UniqueFd fd{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
  if (!fd) return common::SystemError("socket", "", errno);
  return fd;
}

common::Error Failed(const std::string& object) { return {"connect", object, ::confd_lasterr()}; }

common::Result<common::UniqueFd> ConnectDaemon(confd_daemon_ctx* daemon, confd_sock_type type,
                                               const std::string& object) {
  const auto address = common::UnixAddress(common::CdbSocketPath());
  if (!address) return address.error();
  auto fd = NewSocket();
  if (!fd) return fd;
  if (::confd_connect(daemon, fd.value().get(), type, reinterpret_cast<const sockaddr*>(&address.value()),
                      sizeof(sockaddr_un)) != CONFD_OK) {
    return Failed(object);
  }
  return fd;
}

}  // namespace

CdbSocket& CdbSocket::operator=(CdbSocket&& other) noexcept {
  const CdbSocket old{std::exchange(sock_, other.release())};
  return *this;
}

CdbSocket::~CdbSocket() {
  if (sock_ >= 0) ::cdb_close(sock_);
}

int CdbSocket::release() noexcept { return std::exchange(sock_, -1); }

common::Result<CdbSocket> ConnectCdb(cdb_sock_type type, const std::string& name) {
  const auto address = common::UnixAddress(common::CdbSocketPath());
  if (!address) return address.error();
  auto fd = NewSocket();
  if (!fd) return fd.error();
  if (::cdb_connect_name(fd.value().get(), type, reinterpret_cast<const sockaddr*>(&address.value()),
                         sizeof(sockaddr_un), name.c_str()) != CONFD_OK) {
    return Failed(type == CDB_READ_SOCKET ? "read session" : "subscription");
  }
  return CdbSocket{fd.value().release()};
}

bool AnyHungUp(std::initializer_list<int> fds) {
  std::array<pollfd, 4> polled{};
  assert(fds.size() <= polled.size());
  nfds_t count = 0;
  for (const int fd : fds) polled[count++] = {fd, POLLRDHUP, 0};
  return ::poll(polled.data(), count, 0) > 0;  // POLLHUP, POLLERR and POLLNVAL are always reported
}

common::Result<std::unique_ptr<Connection>> Connection::Open(const std::string& name) {
  std::unique_ptr<Connection> connection{new Connection};
  connection->daemon_.reset(::confd_init_daemon(name.c_str()));
  if (!connection->daemon_) return Failed("daemon context");
  auto control = ConnectDaemon(connection->daemon(), CONTROL_SOCKET, "control");
  if (!control) return control.error();
  connection->control_ = std::move(control).value();
  auto worker = ConnectDaemon(connection->daemon(), WORKER_SOCKET, "worker");
  if (!worker) return worker.error();
  connection->worker_ = std::move(worker).value();
  auto subscription = ConnectCdb(CDB_SUBSCRIPTION_SOCKET, name);
  if (!subscription) return subscription.error();
  connection->subscription_ = std::move(subscription).value();
  connection->subscription_watch_.reset(::fcntl(connection->subscription(), F_DUPFD_CLOEXEC, 0));
  if (!connection->subscription_watch_) return common::SystemError("dup", "subscription", errno);
  return connection;
}

}  // namespace qmconfd
