#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "common/event_loop.h"
#include "common/unique_fd.h"
#include "netconf/framing.h"

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

/// One NETCONF peer on a non-blocking descriptor: framing, hello and buffers; nothing of it ever waits. Messages are
/// handed on one at a time: the next one only after Reply(). Loop thread only.
class Session final {
 public:
  struct Callbacks {
    std::function<void(Session&, std::string message)> message;  ///< one message after the hello
    /// The session is over; `why` is empty when the peer or Close() ended it in good order. Last call; the session may
    /// be destroyed in it.
    std::function<void(Session&, const std::string& why)> ended;
    std::function<void()> bad_hello;
  };

  Session(common::EventLoop& loop, common::UniqueFd fd, SessionInfo info, const SessionLimits& limits,
          const std::string& hello, Callbacks callbacks);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Queues the answer to the message that was handed on, and takes the next one.
  void Reply(std::string_view message);
  /// Ends the session once what is queued is sent.
  void Close();
  /// Ends it now.
  void Abort(const std::string& why);

  [[nodiscard]] SessionInfo& info() noexcept { return info_; }
  [[nodiscard]] const SessionInfo& info() const noexcept { return info_; }
  [[nodiscard]] bool open() const noexcept { return state_ == State::kOpen; }
  /// base:1.1 was agreed.
  [[nodiscard]] bool base_1_1() const noexcept { return decoder_.framing() == netconf::Framing::kChunked; }

 private:
  enum class State { kHello, kOpen, kEnded };

  void OnEvents(uint32_t events);
  bool ReadSome();
  void TakeMessages();
  bool TakeHello(const std::string& message);
  void Send();
  void Watch();
  void End(const std::string& why);

  common::EventLoop& loop_;
  common::UniqueFd fd_;
  SessionInfo info_;
  const SessionLimits limits_;
  Callbacks callbacks_;
  State state_ = State::kHello;
  netconf::FrameDecoder decoder_;
  std::string unsent_;
  size_t sent_ = 0;      ///< of unsent_
  bool busy_ = false;    ///< a message is being answered
  bool taking_ = false;  ///< inside TakeMessages()
  bool end_of_input_ = false;
  bool closing_ = false;  ///< ends when everything is sent
  uint32_t watched_ = 0;
  common::EventLoop::TimerId hello_timer_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace cdbd
