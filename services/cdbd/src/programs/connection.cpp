#include "programs/connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace cdbd {
namespace {

constexpr int kPacketsPerTurn = 64;  // then the others have their turn

}  // namespace

Connection::Connection(common::EventLoop& loop, common::UniqueFd fd, uint64_t id, pid_t pid, Callbacks callbacks)
    : loop_{loop}, fd_{std::move(fd)}, id_{id}, pid_{pid}, callbacks_{std::move(callbacks)} {
  loop_.AddFd(fd_.get(), EPOLLIN, [this](uint32_t events) { OnEvents(events); });
}

Connection::~Connection() {
  *alive_ = false;
  if (fd_) loop_.RemoveFd(fd_.get());
}

void Connection::Send(std::string packet) {
  if (!fd_) return;
  unsent_.push_back(std::move(packet));
  if (unsent_.size() == 1) Flush();
}

void Connection::Close(const std::string& why) {
  if (!fd_) return;
  loop_.RemoveFd(fd_.get());
  fd_.reset();
  const auto closed = callbacks_.closed;
  closed(*this, why);
}

void Connection::OnEvents(uint32_t events) {
  static std::array<char, confd_wire::kMaxMessage> buffer;  // one loop thread
  const std::shared_ptr<bool> alive = alive_;
  if ((events & EPOLLOUT) != 0) Flush();
  for (int i = 0; i < kPacketsPerTurn && *alive && fd_; ++i) {
    const ssize_t got = ::recv(fd_.get(), buffer.data(), buffer.size(), MSG_TRUNC);
    if (got == 0) return Close("it disconnected");
    if (got < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return;
      return Close(std::strerror(errno));
    }
    if (static_cast<size_t>(got) > buffer.size()) return Close("it sent a message that is too large");
    callbacks_.packet(*this, {buffer.data(), static_cast<size_t>(got)});
  }
}

// A broken socket shows at the next read.
void Connection::Flush() {
  while (!unsent_.empty()) {
    const std::string& packet = unsent_.front();
    if (::send(fd_.get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return WatchOutput(true);
    }
    unsent_.pop_front();
  }
  WatchOutput(false);
}

void Connection::WatchOutput(bool watch) {
  if (std::exchange(watches_output_, watch) == watch) return;
  loop_.ModifyFd(fd_.get(), watch ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

}  // namespace cdbd
