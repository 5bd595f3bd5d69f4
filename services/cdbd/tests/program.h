#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <string>

#include "cdb_store/store_reader.h"
#include "common/unix_socket.h"
#include "confd_wire/codec.h"

namespace cdbd::test {

/// One connection of a program, spoken to message by message. Every wait is at most kLimit.
class Program final {
 public:
  static constexpr int kLimitMs = 60000;

  Program(const std::string& socket, confd_wire::ClientKind kind, const std::string& name, uint64_t daemon_id = 0) {
    auto fd = common::ConnectUnix(socket, SOCK_SEQPACKET);
    if (!fd) throw std::runtime_error(fd.error().Text());
    fd_ = std::move(fd).value();
    confd_wire::Hello message;
    message.kind = kind;
    message.name = name;
    message.daemon_id = daemon_id;
    Send(message);
    hello = Receive<confd_wire::HelloReply>().value_or(confd_wire::HelloReply{});
  }

  template <class M>
  void Send(M message) {
    SendBytes(confd_wire::Encode(std::move(message)));
  }
  void SendBytes(const std::string& packet) { ::send(fd_.get(), packet.data(), packet.size(), MSG_NOSIGNAL); }

  /// The next message; nullopt at the end of the connection or when none comes within `limit_ms`.
  std::optional<std::string> ReceiveBytes(int limit_ms = kLimitMs) {
    pollfd watched{fd_.get(), POLLIN, 0};
    if (::poll(&watched, 1, limit_ms) <= 0) return std::nullopt;
    std::string buffer(confd_wire::kMaxMessage, '\0');
    const ssize_t got = ::recv(fd_.get(), buffer.data(), buffer.size(), 0);
    if (got <= 0) return std::nullopt;
    buffer.resize(static_cast<size_t>(got));
    return buffer;
  }
  template <class M>
  std::optional<M> Receive() {
    const auto packet = ReceiveBytes();
    return packet ? confd_wire::Decode<M>(*packet) : std::nullopt;
  }
  /// The server has closed the connection, or does so now.
  bool Closed() { return !ReceiveBytes(); }
  /// Nothing has come so far.
  bool Quiet() { return !ReceiveBytes(0); }
  void Disconnect() { fd_.reset(); }

  /// Subscribes to `path` of the store's data model. The point, 0 when it was refused.
  int32_t Subscribe(const std::string& path, int32_t priority) {
    auto reader = cdb_store::StoreReader::Open(hello.store_path);
    if (!reader) throw std::runtime_error(reader.error().Text());
    const cdb_store::Schema& schema = reader.value()->schema();
    const cdb_store::Node* node = schema.FindPath(path);
    if (node == nullptr) throw std::runtime_error("no " + path);
    confd_wire::Subscribe message;
    message.priority = priority;
    message.node = node->id;
    message.path = path;
    message.schema = schema.Fingerprint();
    Send(message);
    const auto reply = Receive<confd_wire::SubscribeReply>();
    return reply && reply->error.empty() ? reply->point : 0;
  }
  bool SubscribeDone() {
    Send(confd_wire::SubscribeDone{});
    const auto reply = Receive<confd_wire::SubscribeDoneReply>();
    return reply && reply->error.empty();
  }
  void Sync(const confd_wire::Trigger& trigger, confd_wire::SyncKind kind = confd_wire::SyncKind::kDonePriority) {
    confd_wire::Sync message;
    message.txid = trigger.txid;
    message.priority = trigger.priority;
    message.kind = kind;
    Send(message);
  }

  confd_wire::HelloReply hello;

 private:
  common::UniqueFd fd_;
};

}  // namespace cdbd::test
