#include "common/listener.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "common/unix_socket.h"

namespace common {
namespace {

bool OutOfResources(int error_number) { return CodeOfErrno(error_number) == ErrorCode::kExhausted; }

/// The connection was gone before it was accepted, or there is none: nothing to report.
bool IsQuiet(int error_number) {
  return error_number == EAGAIN || error_number == EWOULDBLOCK || error_number == EINTR || error_number == ECONNABORTED;
}

UniqueFd AcceptNow(int listener) {
  return UniqueFd{::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
}

UniqueFd OpenReserve() { return UniqueFd{::open("/dev/null", O_RDONLY | O_CLOEXEC)}; }

}  // namespace

Result<ListeningSocket> ListeningSocket::Unix(const std::string& path, int type, mode_t mode) {
  auto fd = ListenUnix(path, type, mode);
  if (!fd) return fd.error();
  return ListeningSocket{std::move(fd).value(), path};
}

ListeningSocket::ListeningSocket(ListeningSocket&& other) noexcept
    : fd_{std::move(other.fd_)}, path_{std::exchange(other.path_, {})} {}

ListeningSocket& ListeningSocket::operator=(ListeningSocket&& other) noexcept {
  std::swap(fd_, other.fd_);
  std::swap(path_, other.path_);
  return *this;
}

ListeningSocket::~ListeningSocket() {
  if (fd_ && !path_.empty()) ::unlink(path_.c_str());
}

class Listener::Impl final : public std::enable_shared_from_this<Impl> {
 public:
  Impl(EventLoop& loop, ListeningSocket socket, const Options& options, Handlers handlers)
      : loop_{loop}, socket_{std::move(socket)}, options_{options}, handlers_{std::move(handlers)} {
    Resume();
  }

  void Shut() {
    shut_ = true;
    watch_.Reset();
    pause_.Reset();
    socket_ = {};
  }

  [[nodiscard]] size_t connections() const noexcept { return static_cast<size_t>(slots_.use_count()) - 1; }

 private:
  void Resume() {
    if (!reserve_) reserve_ = OpenReserve();
    watch_ = loop_.Watch(socket_.fd(), EPOLLIN, [this](uint32_t) {
      const auto self = shared_from_this();
      AcceptSome();
    });
  }

  void AcceptSome() {
    for (int i = 0; i < options_.accepts_per_turn && !shut_; ++i) {
      UniqueFd socket = AcceptNow(socket_.fd());
      if (socket) {
        HandOn(std::move(socket));
        continue;
      }
      const int error = errno;
      if (IsQuiet(error)) return;
      // Without a free descriptor accept(2) says so even if no connection waits.
      const Shed shed = OutOfResources(error) ? TurnAwayOne() : Shed::kFailed;
      if (shed == Shed::kNothingWaits) return;
      Trouble("accept", SystemError("accept", "", error).Text());
      if (shed == Shed::kFailed) return Pause();
    }
  }

  enum class Shed : uint8_t { kTurnedAway, kNothingWaits, kFailed };

  /// Frees the reserved descriptor to accept a connection and close it, so that its client does not wait for nothing.
  Shed TurnAwayOne() {
    if (!reserve_) return Shed::kFailed;
    reserve_.reset();
    UniqueFd socket = AcceptNow(socket_.fd());
    const Shed shed = socket ? Shed::kTurnedAway : IsQuiet(errno) ? Shed::kNothingWaits : Shed::kFailed;
    if (socket && handlers_.on_refused) handlers_.on_refused(socket.get());
    socket.reset();
    reserve_ = OpenReserve();
    return reserve_ ? shed : Shed::kFailed;
  }

  void HandOn(UniqueFd socket) {
    if (connections() >= options_.max_connections) {
      Trouble("limit", "a connection was refused: there are " + std::to_string(connections()) + " " + options_.noun);
      if (handlers_.on_refused) handlers_.on_refused(socket.get());
      return;
    }
    Connection connection{.socket = std::move(socket), .peer = {}, .slot = slots_};
    if (options_.peer_credentials) {
      const auto peer = PeerCredentials(connection.socket.get());
      if (!peer) return Trouble("peer", peer.error().Text());
      connection.peer = peer.value();
    }
    handlers_.on_connection(std::move(connection));
  }

  void Pause() {
    watch_.Reset();
    pause_ = loop_.After(options_.pause, [this] { Resume(); });
  }

  void Trouble(std::string_view key, const std::string& text) {
    const auto left_out = limiter_.Admit(key);
    if (left_out && handlers_.on_trouble) handlers_.on_trouble(text + LogLimiter::Suffix(*left_out));
  }

  EventLoop& loop_;
  ListeningSocket socket_;
  const Options options_;
  const Handlers handlers_;
  const Slot slots_ = std::make_shared<char>();  ///< every connection holds a share
  UniqueFd reserve_;
  LogLimiter limiter_;
  bool shut_ = false;
  ScheduledTask pause_;
  FdWatch watch_;
};

Listener::Listener(EventLoop& loop, ListeningSocket socket, const Options& options, Handlers handlers)
    : impl_{std::make_shared<Impl>(loop, std::move(socket), options, std::move(handlers))} {}

Listener::~Listener() { impl_->Shut(); }

size_t Listener::connections() const noexcept { return impl_->connections(); }

}  // namespace common
