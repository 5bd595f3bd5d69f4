#include "common/unix_socket.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace common {
namespace {

const sockaddr* Generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

/// Whether a process listens at `address`. A refused connection is what a dead listener leaves behind.
bool SomebodyListens(const sockaddr_un& address, int type) {
  const UniqueFd probe{::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!probe) return true;
  return ::connect(probe.get(), Generic(address), sizeof address) == 0 || errno == EAGAIN || errno == EPROTOTYPE;
}

}  // namespace

Result<sockaddr_un> UnixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return SystemError("address", path, ENAMETOOLONG);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

Result<UniqueFd> ListenUnix(const std::string& path, int type, mode_t mode) {
  const auto address = UnixAddress(path);
  if (!address) return address.error();
  UniqueFd fd{::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!fd) return SystemError("socket", path, errno);
  if (::bind(fd.get(), Generic(address.value()), sizeof(sockaddr_un)) != 0) {
    if (errno != EADDRINUSE) return SystemError("bind", path, errno);
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode) || SomebodyListens(address.value(), type)) {
      return SystemError("bind", path, EADDRINUSE);
    }
    ::unlink(path.c_str());
    if (::bind(fd.get(), Generic(address.value()), sizeof(sockaddr_un)) != 0) {
      return SystemError("bind", path, errno);
    }
  }
  if (::chmod(path.c_str(), mode) != 0) return SystemError("chmod", path, errno);
  if (::listen(fd.get(), SOMAXCONN) != 0) return SystemError("listen", path, errno);
  return fd;
}

Result<UniqueFd> AcceptUnix(int listener) {
  UniqueFd fd{::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
  if (!fd && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) return SystemError("accept", "", errno);
  return fd;
}

Result<UniqueFd> ConnectUnix(const std::string& path, int type) {
  const auto address = UnixAddress(path);
  if (!address) return address.error();
  UniqueFd fd{::socket(AF_UNIX, (type & ~SOCK_NONBLOCK) | SOCK_CLOEXEC, 0)};
  if (!fd) return SystemError("socket", path, errno);
  if (::connect(fd.get(), Generic(address.value()), sizeof(sockaddr_un)) != 0) {
    return SystemError("connect", path, errno);
  }
  if ((type & SOCK_NONBLOCK) != 0 && ::fcntl(fd.get(), F_SETFL, O_NONBLOCK) != 0) {
    return SystemError("fcntl", path, errno);
  }
  return fd;
}

Result<ucred> PeerCredentials(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return SystemError("getsockopt", "SO_PEERCRED", errno);
  }
  return credentials;
}

}  // namespace common
