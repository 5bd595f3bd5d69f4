#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/unique_fd.h"
#include "ip_spoofing_mgr_wire/messages.h"

namespace ip_spoofing_mgr::wire {

/// One end of a stream socket, as frames: a 32-bit payload size, a type byte, the payload. Never blocks; what the
/// socket does not take waits here. Loop thread only. May be destroyed inside each of its handlers; an exception that
/// leaves a handler leaves the connection whole, and what was read already is handled in the next turn of the loop.
class Connection final {
 public:
  struct Handlers {
    std::function<void(FrameType type, std::string_view payload)> on_frame;
    /// The peer is gone or broke the framing; called once, and nothing is called afterwards.
    std::function<void(const std::string& reason)> on_closed;
    /// What was queued has gone below kLowWater after it was above; optional.
    std::function<void()> on_drained;
  };
  static constexpr size_t kLowWater = size_t{256} << 10;

  /// `socket` is connected and non-blocking. `loop` outlives the connection.
  Connection(common::EventLoop& loop, common::UniqueFd socket, Handlers handlers);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  void Send(FrameType type, std::string_view payload);
  /// Bytes that the socket has not taken yet.
  [[nodiscard]] size_t Queued() const noexcept { return output_.size() - output_sent_; }
  [[nodiscard]] int Socket() const noexcept { return socket_.get(); }

  /// Waits up to `timeout` for the socket and handles what it brings, outside of the loop.
  void Pump(std::chrono::milliseconds timeout);

 private:
  void OnReady(uint32_t events);
  void ReadInput();
  void HandleInput();
  void WriteOutput();
  void WatchOutput();
  void Close(const std::string& reason);

  common::EventLoop& loop_;
  common::UniqueFd socket_;
  const std::shared_ptr<Handlers> handlers_;  ///< shared with the running call, so that the connection may die in it
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::string input_;
  size_t input_done_ = 0;
  std::string output_;
  size_t output_sent_ = 0;
  bool watching_output_ = false;
  bool drain_wanted_ = false;
  bool broken_ = false;        ///< the socket refuses output: the end shows in the next read
  bool end_of_input_ = false;  ///< nothing more comes; close once the frames read are handled
  std::string end_reason_;
};

}  // namespace ip_spoofing_mgr::wire
