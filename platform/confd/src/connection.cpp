#include "connection.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <array>
#include <cerrno>

namespace confd {
namespace {

constexpr std::chrono::seconds kDefaultTimeout{20};  // until the application sets its own

using Clock = std::chrono::steady_clock;

std::string Name(int fd) { return "socket " + std::to_string(fd); }

bool IsGone(int error_number) {
  return error_number == EPIPE || error_number == ECONNRESET || error_number == ENOTCONN || error_number == ESHUTDOWN;
}

int CheckSocket(int sock, struct stat& info) {
  int type = 0;
  socklen_t size = sizeof type;
  if (fstat(sock, &info) != 0 || getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &size) != 0) {
    return FailOs(Name(sock), errno);
  }
  if (type != SOCK_SEQPACKET) return Fail(CONFD_ERR_PROTOUSAGE, Name(sock) + " is not of type SOCK_SEQPACKET");
  return CONFD_OK;
}

/// connect(2) that gives up after the limit when the server does not accept.
int ConnectInTime(int sock, const sockaddr* server, int server_size) {
  timeval limit{.tv_sec = Connection::kConnectLimit.count(), .tv_usec = 0};
  setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  int code = connect(sock, server, static_cast<socklen_t>(server_size)) == 0 ? 0 : errno;
  for (int again = 0; code == EINTR && again < 10; ++again) {
    code = connect(sock, server, static_cast<socklen_t>(server_size)) == 0 ? 0 : errno;
  }
  limit = {};
  setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  if (code == 0) return CONFD_OK;
  if (code == EAGAIN) return Fail(CONFD_ERR_TIMEOUT, "connect: the server does not accept connections");
  return FailOs("connect to the configuration database", code);
}

}  // namespace

std::shared_ptr<Connection> Connection::Open(int sock, const sockaddr* server, int server_size,
                                             const confd_wire::Hello& hello, confd_wire::HelloReply& reply,
                                             int& result) {
  struct stat info {};
  result = server == nullptr || server_size <= 0 ? Fail(CONFD_ERR_PROTOUSAGE, "the server's address is missing")
                                                 : CheckSocket(sock, info);
  if (result == CONFD_OK) result = ConnectInTime(sock, server, server_size);
  if (result != CONFD_OK) return nullptr;
  std::shared_ptr<Connection> connection(new Connection(sock, info.st_dev, info.st_ino));
  result = connection->Call(hello, reply);
  if (result == CONFD_OK && reply.version != confd_wire::kProtocolVersion) {
    result = Fail(CONFD_ERR_EXTERNAL, "the server speaks version " + std::to_string(reply.version) +
                                          " of the protocol, this library version " +
                                          std::to_string(confd_wire::kProtocolVersion));
  }
  if (result == CONFD_OK && !reply.error.empty()) result = Fail(CONFD_ERR_EXTERNAL, reply.error);
  if (result != CONFD_OK) return nullptr;
  connection->timeout_ = kDefaultTimeout;
  return connection;
}

bool Connection::IsOwnDescriptor() const {
  struct stat info {};
  return fstat(fd_, &info) == 0 && info.st_dev == device_ && info.st_ino == inode_;
}

int Connection::FailGone() {
  dead_ = true;
  return FailEof(Name(fd_) + ": the connection to the configuration database is gone");
}

int Connection::FailProtocol() {
  dead_ = true;
  return Fail(CONFD_ERR_EXTERNAL, Name(fd_) + ": unexpected message from the server");
}

int Connection::Wait(short events) {
  const auto deadline = Clock::now() + timeout_;
  while (true) {
    int wait_ms = -1;
    if (timeout_.count() > 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      wait_ms = left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }
    pollfd poll_fd{.fd = fd_, .events = events, .revents = 0};
    const int ready = poll(&poll_fd, 1, wait_ms);
    if (ready > 0) return CONFD_OK;
    if (ready < 0 && errno != EINTR) return FailOs(Name(fd_), errno);
    if (ready == 0) {
      dead_ = true;  // an answer that comes now would be taken for the next one
      return Fail(CONFD_ERR_TIMEOUT, Name(fd_) + ": the configuration database did not answer within " +
                                         std::to_string(timeout_.count()) + " s");
    }
  }
}

int Connection::Send(const std::string& packet) {
  if (dead_ || !IsOwnDescriptor()) return FailGone();
  if (packet.size() > confd_wire::kMaxMessage) {
    return Fail(CONFD_ERR_PROTOUSAGE, "a message of " + std::to_string(packet.size()) + " bytes is too long");
  }
  while (send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    if (IsGone(errno)) return FailGone();
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return FailOs(Name(fd_), errno);
    if (const int result = Wait(POLLOUT); result != CONFD_OK) return result;
  }
  return CONFD_OK;
}

int Connection::Receive(std::string& packet) {
  while (true) {
    if (const int result = ReceiveNow(packet); result != CONFD_OK || !packet.empty()) return result;
    if (const int result = Wait(POLLIN); result != CONFD_OK) return result;
  }
}

int Connection::ReceiveNow(std::string& packet) {
  packet.clear();
  if (dead_) return FailGone();
  static std::array<char, confd_wire::kMaxMessage + 1> buffer;
  ssize_t size = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
  while (size < 0 && errno == EINTR) size = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return CONFD_OK;
  if (size == 0 || (size < 0 && IsGone(errno))) return FailGone();
  if (size < 0) return FailOs(Name(fd_), errno);
  if (static_cast<size_t>(size) > confd_wire::kMaxMessage) return FailProtocol();
  packet.assign(buffer.data(), static_cast<size_t>(size));
  return CONFD_OK;
}

int Connection::Probe() {
  if (dead_ || !IsOwnDescriptor()) return FailGone();
  char byte = 0;
  const ssize_t size = recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (size == 0 || (size < 0 && IsGone(errno))) return FailGone();
  return CONFD_OK;
}

}  // namespace confd
