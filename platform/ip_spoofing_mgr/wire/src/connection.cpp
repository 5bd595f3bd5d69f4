#include "ip_spoofing_mgr_wire/connection.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ip_spoofing_mgr::wire {
namespace {

constexpr size_t kHeader = sizeof(uint32_t) + sizeof(FrameType);
constexpr size_t kReadPerTurn = size_t{512} << 10;  // so that one busy peer does not keep the loop

}  // namespace

Connection::Connection(common::EventLoop& loop, common::UniqueFd socket, Handlers handlers)
    : loop_{loop}, socket_{std::move(socket)}, handlers_{std::make_shared<Handlers>(std::move(handlers))} {
  loop_.AddFd(socket_.get(), EPOLLIN, [this](uint32_t events) { OnReady(events); });
}

Connection::~Connection() {
  *alive_ = false;
  if (socket_) loop_.RemoveFd(socket_.get());
}

void Connection::Send(FrameType type, std::string_view payload) {
  if (!socket_ || broken_) return;
  const auto size = static_cast<uint32_t>(payload.size());
  std::array<char, kHeader> header{};
  std::memcpy(header.data(), &size, sizeof size);
  header.back() = static_cast<char>(type);
  output_.append(header.data(), header.size());
  output_.append(payload);
  if (!watching_output_) WriteOutput();
  if (Queued() >= kLowWater) drain_wanted_ = true;
}

void Connection::Pump(std::chrono::milliseconds timeout) {
  if (!socket_) return;
  pollfd poll{socket_.get(), static_cast<int16_t>(watching_output_ ? POLLIN | POLLOUT : POLLIN), 0};
  if (::poll(&poll, 1, static_cast<int>(timeout.count())) > 0) OnReady(static_cast<uint32_t>(poll.revents));
}

void Connection::OnReady(uint32_t events) {
  const auto alive = alive_;
  if ((events & EPOLLOUT) != 0) {
    WriteOutput();
    if (drain_wanted_ && Queued() < kLowWater) {
      drain_wanted_ = false;
      const auto handlers = handlers_;
      if (handlers->on_drained) handlers->on_drained();
      if (!*alive || !socket_) return;
    }
  }
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
    ReadInput();
    HandleInput();
  }
}

void Connection::ReadInput() {
  std::array<char, 65536> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): read into before use
  for (size_t total = 0; total < kReadPerTurn;) {
    const ssize_t size = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size > 0) {
      input_.append(buffer.data(), static_cast<size_t>(size));
      total += static_cast<size_t>(size);
      continue;
    }
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    end_of_input_ = true;
    end_reason_ = size == 0 || errno == ECONNRESET ? "closed by the peer" : std::strerror(errno);
    return;
  }
}

void Connection::HandleInput() {
  const auto alive = alive_;
  const auto handlers = handlers_;
  // Leaving by an exception must not strand frames that are read already: epoll does not report them again.
  struct Guard {
    common::EventLoop& loop;
    Connection* self;
    std::shared_ptr<bool> alive;
    bool finished = false;
    ~Guard() {
      if (finished || !*alive) return;
      loop.Defer([connection = self, living = alive] {
        if (*living) connection->HandleInput();
      });
    }
  } guard{loop_, this, alive};
  while (socket_ && input_.size() - input_done_ >= kHeader) {
    uint32_t size = 0;
    std::memcpy(&size, input_.data() + input_done_, sizeof size);
    const auto type = static_cast<FrameType>(input_[input_done_ + sizeof size]);
    if (size > kMaxPayload) {
      guard.finished = true;
      return Close("a frame of " + std::to_string(size) + " bytes is too large");
    }
    if (input_.size() - input_done_ < kHeader + size) break;
    const std::string payload = input_.substr(input_done_ + kHeader, size);
    input_done_ += kHeader + size;
    handlers->on_frame(type, payload);
    if (!*alive) return;
  }
  guard.finished = true;
  input_.erase(0, input_done_);
  input_done_ = 0;
  if (end_of_input_ && socket_) Close(end_reason_);
}

void Connection::WriteOutput() {
  while (Queued() > 0) {
    const ssize_t size = ::send(socket_.get(), output_.data() + output_sent_, Queued(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
      broken_ = true;
      output_.clear();
      output_sent_ = 0;
    }
    if (size < 0) break;
    output_sent_ += static_cast<size_t>(size);
  }
  if (Queued() == 0) {
    output_.clear();
    output_sent_ = 0;
  } else if (output_sent_ > kMaxPayload) {
    output_.erase(0, output_sent_);
    output_sent_ = 0;
  }
  WatchOutput();
}

void Connection::WatchOutput() {
  const bool wanted = Queued() > 0;
  if (wanted == watching_output_) return;
  watching_output_ = wanted;
  loop_.ModifyFd(socket_.get(), wanted ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void Connection::Close(const std::string& reason) {
  if (!socket_) return;
  loop_.RemoveFd(socket_.get());
  socket_.reset();
  const auto handlers = handlers_;
  handlers->on_closed(std::string{reason});
}

}  // namespace ip_spoofing_mgr::wire
