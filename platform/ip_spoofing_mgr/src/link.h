#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "ip_spoofing_mgr_wire/connection.h"
#include "ip_spoofing_mgr_wire/messages.h"

namespace ip_spoofing_mgr {

/// Keeps one connection to the manager up: connects, says hello, and connects again with back-off when it is lost.
/// Loop thread only. May be destroyed inside each of its handlers.
class Link final {
 public:
  struct Handlers {
    std::function<void()> on_up;  ///< welcomed
    std::function<void()> on_down;
    std::function<void(wire::FrameType type, std::string_view payload)> on_frame;  ///< acks and lists
    std::function<void()> on_drained;
  };

  /// `loop` outlives the link. Nothing is connected yet.
  Link(common::EventLoop& loop, Handlers handlers);
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  /// Connects and waits for the manager's welcome, up to `limit` or to a signal that ends the loop. True when up.
  /// A failure leaves no attempt under way.
  bool ConnectAndWait(std::chrono::milliseconds limit);
  /// Ends the connection and the attempts to make one.
  void Disconnect();

  [[nodiscard]] bool Up() const noexcept { return up_; }
  /// Only while up.
  void Send(wire::FrameType type, std::string_view payload);
  /// Whether so much is queued that the sender should keep more until on_drained.
  [[nodiscard]] bool Congested() const noexcept;

 private:
  bool Start();
  void OnFrame(wire::FrameType type, std::string_view payload);
  void OnClosed(const wire::Connection::Closed& why);
  void Retry();
  void Report(const std::string& text);

  common::EventLoop& loop_;
  const Handlers handlers_;
  const uint64_t instance_;
  std::unique_ptr<wire::Connection> connection_;
  bool up_ = false;
  bool wanted_ = false;  ///< reconnect when it is lost
  wire::TakeOver take_over_ = wire::TakeOver::kYes;
  std::chrono::milliseconds back_off_;
  common::ScheduledTask timer_;  ///< the next attempt, or the end of the manager's time to welcome us
  std::string last_report_;
};

}  // namespace ip_spoofing_mgr
