#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"
#include "common/unique_fd.h"
#include "netconf/framing.h"

namespace netconf {

/// One NETCONF session over a Unix socket, for programs that do one thing at a time: every call waits, at most for the
/// time it is given (IsTimedOut()). Any failure ends the session; later calls fail too. It has no loop and no queue: a
/// caller that waits for its own answer needs neither.
class Client final {
 public:
  using Duration = std::chrono::milliseconds;

  /// Connects and exchanges hellos. `base_1_1` false: the session speaks base:1.0 only.
  static common::Result<Client> Connect(const std::string& socket_path, Duration limit, bool base_1_1 = true);
  /// Connects and sends nothing yet; the framing is that of a hello.
  static common::Result<Client> ConnectRaw(const std::string& socket_path);
  Client(Client&&) = default;

  /// Told while a message is sent how many of its bytes the socket has taken.
  using SendProgress = std::function<void(size_t sent, size_t total)>;
  void OnProgress(SendProgress progress) { progress_ = std::move(progress); }

  /// Sends `operation` (the XML inside <rpc>) and returns the whole <rpc-reply>. An answer is returned even if the
  /// server closed the connection before it had read the whole request.
  common::Result<std::string> Rpc(std::string_view operation, Duration limit);

  /// Sends one framed message.
  common::Status Send(std::string_view message, Duration limit);
  /// Sends bytes as they are.
  common::Status SendBytes(std::string_view bytes, Duration limit);
  /// The next message. At the end of the stream it fails with IsClosed().
  common::Result<std::string> Receive(Duration limit);
  /// Exchanges hellos on a raw connection. Fails with the server's words if it answers with an error instead.
  common::Status Hello(Duration limit, bool base_1_1);

  void SetFraming(Framing framing) { decoder_.SetFraming(framing); }
  [[nodiscard]] int fd() const noexcept { return fd_.get(); }
  [[nodiscard]] const std::string& session_id() const noexcept { return session_id_; }
  [[nodiscard]] const std::vector<std::string>& capabilities() const noexcept { return capabilities_; }

 private:
  explicit Client(common::UniqueFd fd);

  common::UniqueFd fd_;
  FrameDecoder decoder_;
  std::string session_id_;
  std::vector<std::string> capabilities_;
  uint64_t next_id_ = 1;
  SendProgress progress_;
};

}  // namespace netconf
