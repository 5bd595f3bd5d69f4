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
///
/// libnetconf2's client was tried in its place. It makes a libyang tree of each whole reply, which takes 10 us and 0.5
/// KB a list entry where reading the reply as it arrives takes 1 to 2 us and no memory; it asks the server for data
/// models when it connects; and it does not send the malformed messages that the server's tests need.
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

  /// Rpc() for replies of any size: hands the <rpc-reply> to `on_piece` while it arrives, in order. `on_piece` returns
  /// false to give up; then Ok() is returned, and the session is of no more use.
  common::Status RpcInPieces(std::string_view operation, Duration limit,
                             const std::function<bool(std::string_view piece)>& on_piece);

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
  std::string RpcMessage(std::string_view operation);
  /// The next message, or its end: what is there of it before goes to `on_part`, unless that is null. An empty text
  /// after `on_part` has returned false.
  common::Result<std::string> ReceiveInParts(Duration limit,
                                             const std::function<bool(const std::string& part)>& on_part);

  common::UniqueFd fd_;
  FrameDecoder decoder_;
  std::string session_id_;
  std::vector<std::string> capabilities_;
  uint64_t next_id_ = 1;
  SendProgress progress_;
};

}  // namespace netconf
