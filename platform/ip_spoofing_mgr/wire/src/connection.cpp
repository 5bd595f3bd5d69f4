#include "ip_spoofing_mgr_wire/connection.h"

#include <array>
#include <cstring>
#include <utility>

#include "common/stream.h"

namespace ip_spoofing_mgr::wire {
namespace {

constexpr size_t kHeader = sizeof(uint32_t) + sizeof(FrameType);

std::array<char, kHeader> Header(FrameType type, size_t payload) {
  const auto size = static_cast<uint32_t>(payload);
  std::array<char, kHeader> header{};
  std::memcpy(header.data(), &size, sizeof size);
  header.back() = static_cast<char>(type);
  return header;
}

std::string TextOf(const common::CloseInfo& why) {
  if (why.reason == common::CloseReason::kPeerClosed) return "closed by the peer";
  return why.system_error != 0 ? std::strerror(why.system_error) : why.Text();
}

}  // namespace

class Connection::Impl final : public std::enable_shared_from_this<Impl> {
 public:
  Impl(common::EventLoop& loop, common::UniqueFd socket, Handlers handlers)
      : loop_{loop},
        handlers_{std::move(handlers)},
        stream_{loop,
                std::move(socket),
                {.low_water = kLowWater},
                {.on_data =
                     [this](std::string_view bytes) {
                       input_.append(bytes);
                       HandleInput();
                     },
                 .on_closed =
                     [this](const common::CloseInfo& why) {
                       End({why.reason, TextOf(why)});
                     },
                 .on_drained =
                     [this] {
                       const auto self = shared_from_this();
                       if (handlers_.on_drained) handlers_.on_drained();
                     }}} {}

  common::Stream& stream() { return stream_; }

  void Shut() {
    rest_.Reset();
    stream_.Close();
  }

 private:
  void HandleInput() {
    const auto self = shared_from_this();
    // If a handler throws, the frames that were read already are handled in the next turn: the socket does not report
    // them again.
    rest_ = loop_.Soon([this] { HandleInput(); });
    while (stream_.open() && input_.size() - done_ >= kHeader) {
      uint32_t size = 0;
      std::memcpy(&size, input_.data() + done_, sizeof size);
      const auto type = static_cast<FrameType>(input_[done_ + sizeof size]);
      if (size > kMaxPayload) {
        return End({common::CloseReason::kTooLarge, "a frame of " + std::to_string(size) + " bytes is too large"});
      }
      if (input_.size() - done_ < kHeader + size) break;
      const std::string payload = input_.substr(done_ + kHeader, size);
      done_ += kHeader + size;
      handlers_.on_frame(type, payload);
    }
    rest_.Reset();
    input_.erase(0, std::exchange(done_, 0));
  }

  void End(const Closed& why) {
    const auto self = shared_from_this();
    Shut();
    handlers_.on_closed(why);
  }

  common::EventLoop& loop_;
  const Handlers handlers_;
  std::string input_;
  size_t done_ = 0;  ///< bytes of input_ that are handled
  common::ScheduledTask rest_;
  common::Stream stream_;  ///< last: its handlers use the others
};

Connection::Connection(common::EventLoop& loop, common::UniqueFd socket, Handlers handlers)
    : impl_{std::make_shared<Impl>(loop, std::move(socket), std::move(handlers))} {}

Connection::~Connection() { impl_->Shut(); }

void Connection::Send(FrameType type, std::string_view payload) {
  impl_->stream().SendWith([&](std::string* queue) {
    const auto header = Header(type, payload.size());
    queue->append(header.data(), header.size()).append(payload);
  });
}

size_t Connection::Queued() const noexcept { return impl_->stream().Queued(); }
int Connection::Socket() const noexcept { return impl_->stream().fd(); }
void Connection::Pump(std::chrono::milliseconds timeout) { impl_->stream().Pump(timeout); }

void SendLastFrame(int socket, FrameType type, std::string_view payload) {
  const auto header = Header(type, payload.size());
  std::string frame{header.data(), header.size()};
  common::SendNow(socket, frame.append(payload));
}

}  // namespace ip_spoofing_mgr::wire
