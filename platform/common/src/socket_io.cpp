#include "common/socket_io.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace common {
namespace {

bool SaysGone(int error_number) {
  return error_number == EPIPE || error_number == ECONNRESET || error_number == ENOTCONN || error_number == ESHUTDOWN;
}

IoOutcome Failure(int error_number) {
  if (error_number == EAGAIN || error_number == EWOULDBLOCK) return {IoOutcome::Kind::kWouldBlock};
  return {IoOutcome::Kind::kFailed, 0, error_number};
}

IoOutcome Receive(int fd, char* buffer, size_t size, int flags) {
  while (true) {
    const ssize_t got = ::recv(fd, buffer, size, MSG_DONTWAIT | flags);
    if (got > 0) return {IoOutcome::Kind::kBytes, static_cast<size_t>(got)};
    if (got == 0) return {IoOutcome::Kind::kEnd};
    if (errno != EINTR) return Failure(errno);
  }
}

}  // namespace

std::string CloseInfo::Text() const {
  const std::string why = system_error != 0 ? std::string{": "} + std::strerror(system_error) : "";
  switch (reason) {
    case CloseReason::kPeerClosed:
      return "the peer closed the connection" + why;
    case CloseReason::kReceiveFailed:
      return "receive" + why;
    case CloseReason::kSendFailed:
      return "send" + why;
    case CloseReason::kTooLarge:
      return "a message is too large";
    case CloseReason::kNotRead:
      return "the peer does not read";
    case CloseReason::kFinished:
      return "";
  }
  return "";
}

bool IoOutcome::PeerIsGone() const noexcept {
  return kind == Kind::kEnd || (kind == Kind::kFailed && SaysGone(system_error));
}

IoOutcome ReceiveNow(int fd, char* buffer, size_t size) { return Receive(fd, buffer, size, 0); }

IoOutcome ReceivePacketNow(int fd, char* buffer, size_t size) { return Receive(fd, buffer, size, MSG_TRUNC); }

IoOutcome PeekNow(int fd) {
  char byte = 0;
  return Receive(fd, &byte, 1, MSG_PEEK);
}

IoOutcome SendNow(int fd, std::string_view bytes) {
  while (true) {
    const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) return {IoOutcome::Kind::kBytes, static_cast<size_t>(sent)};
    if (errno != EINTR) return Failure(errno);
  }
}

Status WaitReady(int fd, short events, std::chrono::steady_clock::time_point deadline) {
  pollfd watched{fd, events, 0};
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    const int ready = ::poll(&watched, 1, static_cast<int>(std::clamp<int64_t>(left, 0, 1'000'000'000)));
    if (ready > 0) return Ok();
    if (ready == 0 && left <= 1'000'000'000) {
      return Error{"wait", "", "no answer within the time limit", ErrorCode::kTimedOut};
    }
    if (ready < 0 && errno != EINTR) return SystemError("poll", "", errno);
  }
}

}  // namespace common
