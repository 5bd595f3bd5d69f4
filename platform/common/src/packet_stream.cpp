#include "common/packet_stream.h"

#include <sys/epoll.h>

#include <deque>
#include <utility>
#include <vector>

namespace common {

class PacketStream::Impl final : public std::enable_shared_from_this<Impl> {
 public:
  Impl(EventLoop& loop, UniqueFd socket, const Options& options, Handlers handlers)
      : loop_{loop}, options_{options}, handlers_{std::move(handlers)}, socket_{std::move(socket)} {
    watch_ = loop_.Watch(socket_.get(), EPOLLIN, [this](uint32_t events) { OnReady(events); });
  }

  void Shut() {
    watch_.Reset();
    ending_.Reset();
    socket_.reset();
    queue_.clear();
    queued_ = 0;
  }

  [[nodiscard]] bool open() const noexcept { return static_cast<bool>(socket_); }
  [[nodiscard]] size_t queued() const noexcept { return queued_; }

  void Send(std::string packet) {
    if (!open()) return;
    queued_ += packet.size();
    queue_.push_back(std::move(packet));
    if (queue_.size() == 1) Write();
    if (queued_ > options_.max_queued) EndLater({CloseReason::kNotRead});
  }

 private:
  void OnReady(uint32_t events) {
    const auto self = shared_from_this();
    if ((events & EPOLLOUT) != 0) Write();
    static thread_local std::vector<char> buffer;
    if (buffer.size() < options_.max_packet) buffer.resize(options_.max_packet);
    for (int i = 0; i < options_.packets_per_turn && open(); ++i) {
      const IoOutcome outcome = ReceivePacketNow(socket_.get(), buffer.data(), options_.max_packet);
      if (outcome.kind == IoOutcome::Kind::kWouldBlock) return;
      if (outcome.PeerIsGone()) return End({CloseReason::kPeerClosed, outcome.system_error});
      if (outcome.kind == IoOutcome::Kind::kFailed) return End({CloseReason::kReceiveFailed, outcome.system_error});
      if (outcome.size > options_.max_packet) return End({CloseReason::kTooLarge});
      handlers_.on_packet({buffer.data(), outcome.size});
    }
  }

  void Write() {
    while (!queue_.empty()) {
      const IoOutcome outcome = SendNow(socket_.get(), queue_.front());
      if (outcome.kind == IoOutcome::Kind::kWouldBlock) break;
      if (outcome.kind == IoOutcome::Kind::kFailed) {
        // A peer that is gone shows when what it sent before has been read.
        if (!outcome.PeerIsGone()) EndLater({CloseReason::kSendFailed, outcome.system_error});
        queue_.clear();
        queued_ = 0;
        break;
      }
      queued_ -= queue_.front().size();
      queue_.pop_front();
    }
    watch_.Set(queue_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
  }

  /// Ends it in a turn of its own: the caller is outside of a handler.
  void EndLater(CloseInfo why) {
    ending_ = loop_.After(std::chrono::nanoseconds{0}, [this, why] {
      const auto self = shared_from_this();
      End(why);
    });
  }

  void End(CloseInfo why) {
    if (!open()) return;
    Shut();
    handlers_.on_closed(why);
  }

  EventLoop& loop_;
  const Options options_;
  const Handlers handlers_;
  UniqueFd socket_;
  std::deque<std::string> queue_;
  size_t queued_ = 0;  ///< bytes of queue_
  ScheduledTask ending_;
  FdWatch watch_;  ///< last: ends before the socket is closed
};

PacketStream::PacketStream(EventLoop& loop, UniqueFd socket, const Options& options, Handlers handlers)
    : impl_{std::make_shared<Impl>(loop, std::move(socket), options, std::move(handlers))} {}

PacketStream::~PacketStream() { impl_->Shut(); }

void PacketStream::Send(std::string packet) { impl_->Send(std::move(packet)); }
void PacketStream::Close() { impl_->Shut(); }
bool PacketStream::open() const noexcept { return impl_->open(); }
size_t PacketStream::Queued() const noexcept { return impl_->queued(); }

}  // namespace common
