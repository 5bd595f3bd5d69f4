#include "http/http_get.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cstdio>
#include <memory>

#include "common/unique_fd.h"

namespace http {

std::optional<Answer> Get(const std::string& address, uint16_t port, const std::string& path,
                          std::chrono::milliseconds limit) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return std::nullopt;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> peer{found, freeaddrinfo};
  const common::UniqueFd socket{::socket(peer->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  const timeval patience{.tv_sec = limit.count() / 1000, .tv_usec = limit.count() % 1000 * 1000};
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  if (connect(socket.get(), peer->ai_addr, peer->ai_addrlen) != 0) return std::nullopt;
  const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
  if (send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
    return std::nullopt;
  std::string text;
  std::array<char, 4096> buffer{};
  ssize_t size = 0;
  while ((size = recv(socket.get(), buffer.data(), buffer.size(), 0)) > 0)
    text.append(buffer.data(), static_cast<size_t>(size));
  const size_t body = text.find("\r\n\r\n");
  Answer answer;
  if (size != 0 || body == std::string::npos || std::sscanf(text.c_str(), "HTTP/%*s %d", &answer.status) != 1)
    return std::nullopt;
  answer.body = text.substr(body + 4);
  return answer;
}

}  // namespace http
