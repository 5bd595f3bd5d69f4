#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/socket_io.h"
#include "common/unique_fd.h"

namespace common {

/// One end of a connected stream socket on a loop: reads with a budget, keeps what the socket does not take, and ends
/// once. It never waits. A framer on top splits what comes in into messages.
///
/// Every handler may destroy the stream; destroying it closes the socket without a call of `on_closed`. An exception
/// that leaves a handler leaves the stream whole. Loop thread only.
class Stream final {
 public:
  struct Handlers {
    /// Bytes from the peer; they are gone when it returns.
    std::function<void(std::string_view bytes)> on_data;
    /// The connection has ended; the last call. The socket is closed already.
    std::function<void(const CloseInfo& why)> on_closed;
    /// The queue is shorter than `low_water` again; may be empty.
    std::function<void()> on_drained{};
    /// The peer sends no more, but may still read; reading is over. If empty, the end of input closes the connection.
    std::function<void()> on_end_of_input{};
  };
  struct Options {
    size_t read_budget = size_t{512} << 10;  ///< bytes read in one turn of the loop, so that others have their turn
    size_t low_water = size_t{256} << 10;    ///< on_drained: the queue was this long and is shorter again
    size_t max_queued = 0;                   ///< a peer that leaves more unread is closed as kNotRead; 0: no limit
  };

  /// `socket` is connected; `loop` outlives the stream.
  Stream(EventLoop& loop, UniqueFd socket, const Options& options, Handlers handlers);
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream();

  /// Queues `bytes` and sends what the socket takes now. Ignored after the end.
  void Send(std::string_view bytes);
  /// As Send(), of what `append` appends to the queue that it is given.
  template <class Append>
  void SendWith(Append append) {
    if (std::string* queue = Queue()) {
      append(queue);
      Flush();
    }
  }
  /// Bytes that the socket has not taken yet.
  [[nodiscard]] size_t Queued() const noexcept;

  /// Stops or resumes reading. While it is stopped, a peer that is gone for both directions still ends the connection.
  void SetReading(bool reading);
  /// Reads no more, and ends with kFinished once everything is sent.
  void CloseWhenSent();
  /// Closes the socket now, without a call of `on_closed`. What is queued is dropped.
  void Close();
  [[nodiscard]] bool open() const noexcept;
  /// The descriptor; -1 after the end.
  [[nodiscard]] int fd() const noexcept;

  /// Waits up to `timeout` for the socket and handles what it brings, outside of the loop.
  void Pump(std::chrono::milliseconds timeout);

 private:
  class Impl;
  std::string* Queue();
  void Flush();
  const std::shared_ptr<Impl> impl_;  ///< shared with the running call, so that the stream may die in it
};

}  // namespace common
