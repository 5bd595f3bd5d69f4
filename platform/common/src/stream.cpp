#include "common/stream.h"

#include <malloc.h>
#include <poll.h>
#include <sys/epoll.h>

#include <array>
#include <utility>

namespace common {
namespace {

constexpr size_t kReadSize = size_t{64} << 10;
constexpr size_t kCompactFrom = size_t{1} << 20;  // bytes sent that are still in the queue's memory
constexpr uint32_t kGone = EPOLLHUP | EPOLLERR;

}  // namespace

class Stream::Impl final : public std::enable_shared_from_this<Impl> {
 public:
  Impl(EventLoop& loop, UniqueFd socket, const Options& options, Handlers handlers)
      : loop_{loop}, options_{options}, handlers_{std::move(handlers)}, socket_{std::move(socket)} {
    watch_ = loop_.Watch(socket_.get(), watched_, [this](uint32_t events) { OnReady(events); });
  }

  void Shut() {
    watch_.Reset();
    ending_.Reset();
    socket_.reset();
    output_.clear();
    sent_ = 0;
  }

  [[nodiscard]] int fd() const noexcept { return socket_.get(); }
  [[nodiscard]] bool open() const noexcept { return static_cast<bool>(socket_); }
  [[nodiscard]] size_t Queued() const noexcept { return output_.size() - sent_; }
  std::string* Queue() { return open() && !broken_ && !closing_ ? &output_ : nullptr; }

  void Flush() {
    if (!sending_) Write();
    if (!open()) return;
    if (options_.max_queued != 0 && Queued() > options_.max_queued) EndLater({CloseReason::kNotRead});
    if (Queued() >= options_.low_water) above_low_water_ = true;
  }

  void SetReading(bool reading) {
    reading_ = reading;
    SetWatch();
  }

  void CloseWhenSent() {
    if (!open()) return;
    closing_ = true;
    SetWatch();
    if (Queued() == 0) EndLater({CloseReason::kFinished});
  }

  void OnReady(uint32_t events) {
    const auto self = shared_from_this();
    if ((events & EPOLLOUT) != 0) {
      Write();
      if (open() && closing_ && Queued() == 0) return End({CloseReason::kFinished});
      if (!TellDrained()) return;
    }
    if ((events & (EPOLLIN | kGone)) == 0) return;
    Read();
    // No answer can reach a peer that is gone for both directions.
    if (open() && !Reads() && !ending_ && (events & kGone) != 0) End({CloseReason::kPeerClosed});
  }

  void Pump(std::chrono::milliseconds timeout) {
    if (!open()) return;
    const auto events = static_cast<int16_t>((Reads() ? POLLIN : 0) | (sending_ ? POLLOUT : 0));
    pollfd poll{socket_.get(), events, 0};
    if (::poll(&poll, 1, static_cast<int>(timeout.count())) > 0) OnReady(static_cast<uint32_t>(poll.revents));
  }

 private:
  [[nodiscard]] bool Reads() const noexcept { return reading_ && !end_of_input_ && !closing_; }

  void SetWatch() {
    const uint32_t events = (Reads() ? EPOLLIN : 0U) | (sending_ ? EPOLLOUT : 0U);
    if (open() && std::exchange(watched_, events) != events) watch_.Set(events);
  }

  void Read() {
    std::array<char, kReadSize> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): read into before use
    for (size_t total = 0; total < options_.read_budget && open() && Reads();) {
      const IoOutcome outcome = ReceiveNow(socket_.get(), buffer.data(), buffer.size());
      switch (outcome.kind) {
        case IoOutcome::Kind::kBytes:
          total += outcome.size;
          handlers_.on_data({buffer.data(), outcome.size});
          break;
        case IoOutcome::Kind::kWouldBlock:
          if (broken_) End(Broken());
          return;
        case IoOutcome::Kind::kEnd:
          return EndOfInput();
        case IoOutcome::Kind::kFailed:
          return End(
              {outcome.PeerIsGone() ? CloseReason::kPeerClosed : CloseReason::kReceiveFailed, outcome.system_error});
      }
    }
  }

  void EndOfInput() {
    end_of_input_ = true;
    if (broken_) return End(Broken());
    if (!handlers_.on_end_of_input) return End({CloseReason::kPeerClosed});
    SetWatch();
    handlers_.on_end_of_input();
  }

  /// False when the stream is closed.
  bool TellDrained() {
    if (!open()) return false;
    if (!above_low_water_ || Queued() >= options_.low_water) return true;
    above_low_water_ = false;
    if (handlers_.on_drained) handlers_.on_drained();
    return open();
  }

  void Write() {
    while (Queued() > 0) {
      const IoOutcome outcome = SendNow(socket_.get(), std::string_view{output_}.substr(sent_));
      if (outcome.kind == IoOutcome::Kind::kBytes) {
        sent_ += outcome.size;
        continue;
      }
      if (outcome.kind == IoOutcome::Kind::kFailed) Break(outcome);
      break;
    }
    if (Queued() == 0) {
      const bool large = output_.capacity() > kCompactFrom;
      if (output_.capacity() > kReadSize) std::string{}.swap(output_);  // clear() would keep the memory
      if (large) ::malloc_trim(0);                                      // back to the system
      output_.clear();
      sent_ = 0;
    } else if (sent_ > kCompactFrom && sent_ > output_.size() / 2) {
      output_.erase(0, sent_);
      sent_ = 0;
    }
    sending_ = Queued() > 0;
    SetWatch();
  }

  /// The peer takes no more. What it sent before it left is still read; then the connection ends.
  void Break(const IoOutcome& failure) {
    broken_ = true;
    send_failure_ = failure;
    output_.clear();
    sent_ = 0;
    Later(&Impl::ReadTheRest);
  }

  void ReadTheRest() {
    if (!Reads()) return End(Broken());
    Read();
    if (open()) Later(&Impl::ReadTheRest);  // the budget was used up
  }

  [[nodiscard]] CloseInfo Broken() const {
    return {send_failure_.PeerIsGone() ? CloseReason::kPeerClosed : CloseReason::kSendFailed,
            send_failure_.system_error};
  }

  /// Ends it in a turn of its own: the caller is outside of a handler.
  void EndLater(CloseInfo why) {
    end_ = why;
    Later(&Impl::EndNow);
  }
  void EndNow() { End(end_); }

  void Later(void (Impl::*task)()) {
    ending_ = loop_.After(std::chrono::nanoseconds{0}, [this, task] {
      const auto self = shared_from_this();
      (this->*task)();
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
  std::string output_;
  size_t sent_ = 0;  ///< of output_
  uint32_t watched_ = EPOLLIN;
  bool reading_ = true;
  bool sending_ = false;       ///< waits for the socket to take more
  bool closing_ = false;       ///< ends when everything is sent
  bool end_of_input_ = false;  ///< the peer sends no more
  bool broken_ = false;        ///< the socket refuses output
  bool above_low_water_ = false;
  IoOutcome send_failure_;
  CloseInfo end_;
  ScheduledTask ending_;
  FdWatch watch_;  ///< last: ends before the socket is closed
};

Stream::Stream(EventLoop& loop, UniqueFd socket, const Options& options, Handlers handlers)
    : impl_{std::make_shared<Impl>(loop, std::move(socket), options, std::move(handlers))} {}

Stream::~Stream() { impl_->Shut(); }

void Stream::Send(std::string_view bytes) {
  SendWith([&](std::string* queue) { queue->append(bytes); });
}

size_t Stream::Queued() const noexcept { return impl_->Queued(); }
void Stream::SetReading(bool reading) { impl_->SetReading(reading); }
void Stream::CloseWhenSent() { impl_->CloseWhenSent(); }
void Stream::Close() { impl_->Shut(); }
bool Stream::open() const noexcept { return impl_->open(); }
int Stream::fd() const noexcept { return impl_->fd(); }
void Stream::Pump(std::chrono::milliseconds timeout) { impl_->Pump(timeout); }
std::string* Stream::Queue() { return impl_->Queue(); }
void Stream::Flush() { impl_->Flush(); }

}  // namespace common
