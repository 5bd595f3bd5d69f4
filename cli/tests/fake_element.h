#pragma once

#include <fcntl.h>
#include <sys/socket.h>

#include <string>
#include <string_view>
#include <thread>

#include "common/unix_socket.h"
#include "netconf/framing.h"
#include "temp_dir/temp_dir.h"

namespace cli {

inline constexpr std::string_view kBase = "urn:ietf:params:xml:ns:netconf:base:1.0";

inline std::string Hello() {
  return "<hello xmlns=\"" + std::string{kBase} +
         "\"><capabilities><capability>urn:ietf:params:netconf:base:1.0</capability>"
         "<capability>urn:ietf:params:netconf:base:1.1</capability></capabilities><session-id>1</session-id></hello>";
}
inline std::string Reply(const std::string& content) {
  return "<rpc-reply message-id=\"1\" xmlns=\"" + std::string{kBase} + "\">" + content + "</rpc-reply>";
}
inline std::string Framed(netconf::Framing framing, const std::string& message) {
  std::string bytes;
  netconf::AppendFrame(framing, message, &bytes);
  return bytes;
}

/// An element that takes one session: sends `hello`, waits for the request, sends `answer` and hangs up. Both are bytes
/// with their framing. Without an answer it hangs up after its hello.
class FakeElement final {
 public:
  explicit FakeElement(std::string answer, std::string hello = Framed(netconf::Framing::kEndOfMessage, Hello()))
      : listener_{common::ListenUnix(path(), SOCK_STREAM, 0600)},
        thread_{[this, hello = std::move(hello), answer = std::move(answer)] { Serve(hello, answer); }} {}
  FakeElement(const FakeElement&) = delete;
  FakeElement& operator=(const FakeElement&) = delete;
  ~FakeElement() {
    if (thread_.joinable()) thread_.join();
  }
  /// What it was asked. Waits for the end of the session.
  std::string Request() {
    thread_.join();
    return request_;
  }
  [[nodiscard]] std::string path() const { return folder_.path() + "/netconf.sock"; }

 private:
  void Serve(const std::string& hello, const std::string& answer) {
    const common::UniqueFd peer{::accept4(Blocking(), nullptr, nullptr, SOCK_CLOEXEC)};
    Send(peer.get(), hello);
    if (answer.empty()) return;
    ReadUntil(peer.get(), "]]>]]>");
    request_ = ReadUntil(peer.get(), "\n##\n");
    Send(peer.get(), answer);
  }
  int Blocking() const {
    const int fd = listener_.value().get();
    ::fcntl(fd, F_SETFL, 0);
    return fd;
  }
  static void Send(int fd, const std::string& bytes) { ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  static std::string ReadUntil(int fd, std::string_view end) {
    std::string read;
    char c = 0;
    while (!read.ends_with(end) && ::recv(fd, &c, 1, 0) == 1) read += c;
    return read;
  }

  test::TempDir folder_;
  common::Result<common::UniqueFd> listener_;
  std::string request_;
  std::thread thread_;
};

}  // namespace cli
