#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "common/event_loop.h"
#include "common/listener.h"
#include "common/stream.h"
#include "netconf/framing.h"
#include "northbound/session_end.h"

namespace cdbd {

struct SessionLimits {
  size_t max_message = size_t{256} << 20;        ///< bytes of one message from a peer
  size_t max_unsent = size_t{1} << 20;           ///< bytes not taken by a peer beyond which it is not read
  std::chrono::milliseconds hello_limit{10000};  ///< from connection to the peer's hello
  size_t max_sessions = 32;
};

/// Who is at the other end, and what went through.
struct SessionInfo {
  uint32_t id = 0;
  std::string user;
  pid_t pid = 0;
  std::chrono::system_clock::time_point login;
  uint32_t in_rpcs = 0;
  uint32_t in_bad_rpcs = 0;
  uint32_t out_rpc_errors = 0;
};

/// One NETCONF peer on a stream: framing, hello and the order of requests. Messages are handed on one at a time: the
/// next one only after Reply(). A peer that has a request open, or does not take its answers, is not read. Loop thread
/// only.
class Session final {
 public:
  struct Callbacks {
    std::function<void(Session&, std::string message)> message;  ///< one message after the hello
    /// The session is over. Last call; the session may be destroyed in it.
    std::function<void(Session&, const SessionEnd&)> ended;
  };

  Session(common::EventLoop& loop, common::Listener::Connection connection, SessionInfo info,
          const SessionLimits& limits, const std::string& hello, Callbacks callbacks);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Queues the answer to the message that was handed on, and takes the next one.
  void Reply(std::string_view message);
  /// Ends the session once what is queued is sent.
  void Close();
  /// Ends it now; `ended` is called before this returns.
  void Kill();

  [[nodiscard]] SessionInfo& info() noexcept { return info_; }
  [[nodiscard]] const SessionInfo& info() const noexcept { return info_; }
  [[nodiscard]] bool open() const noexcept { return state_ == State::kOpen; }
  /// base:1.1 was agreed.
  [[nodiscard]] bool base_1_1() const noexcept { return decoder_.framing() == netconf::Framing::kChunked; }

 private:
  enum class State { kHello, kOpen, kEnded };

  void TakeMessages();
  [[nodiscard]] bool MayTake() const;
  bool TakeHello(const std::string& message);
  void OnClosed(const common::CloseInfo& why);
  void End(SessionEnd::Reason reason, std::string text);

  common::EventLoop& loop_;
  const common::Listener::Slot slot_;
  SessionInfo info_;
  const SessionLimits limits_;
  const Callbacks callbacks_;
  State state_ = State::kHello;
  netconf::FrameDecoder decoder_;
  bool busy_ = false;  ///< a message is being answered
  bool end_of_input_ = false;
  bool closing_ = false;  ///< ends when everything is sent
  common::ScheduledTask hello_timer_;
  common::ScheduledTask next_;  ///< takes the next message
  common::Stream stream_;       ///< last: its handlers use the others
};

}  // namespace cdbd
