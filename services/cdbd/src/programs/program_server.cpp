#include "programs/program_server.h"

#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <random>

#include "confd_wire/codec.h"

namespace cdbd {
namespace {

using confd_wire::ClientKind;
using Reason = ConnectionEnd::Reason;

constexpr mode_t kSocketMode = 0660;
constexpr size_t kMaxConnections = 256;

uint64_t NewInstance() {
  std::random_device random;
  return (uint64_t{random()} << 32) | random();
}

const char* KindName(ClientKind kind) {
  switch (kind) {
    case ClientKind::kRead:
      return "reader";
    case ClientKind::kSubscription:
      return "subscriber";
    case ClientKind::kControl:
      return "data provider";
    case ClientKind::kWorker:
      return "worker";
  }
  return "program";
}

}  // namespace

common::Result<std::unique_ptr<ProgramServer>> ProgramServer::Listen(common::EventLoop& loop, const std::string& path,
                                                                     cdb_store::StoreWriter& store,
                                                                     SubscriptionService& subscriptions,
                                                                     ProviderService& providers) {
  auto socket = common::ListeningSocket::Unix(path, SOCK_SEQPACKET, kSocketMode);
  if (!socket) return socket.error();
  return std::unique_ptr<ProgramServer>{
      new ProgramServer{loop, std::move(socket).value(), store, subscriptions, providers}};
}

ProgramServer::ProgramServer(common::EventLoop& loop, common::ListeningSocket socket, cdb_store::StoreWriter& store,
                             SubscriptionService& subscriptions, ProviderService& providers)
    : loop_{loop},
      store_{store},
      subscriptions_{subscriptions},
      providers_{providers},
      instance_{NewInstance()},
      listener_{loop,
                std::move(socket),
                {.max_connections = kMaxConnections},
                {.on_connection = [this](common::Listener::Connection c) { OnConnection(std::move(c)); },
                 .on_trouble = [](const std::string& text) { spdlog::warn("programs: {}", text); }}} {}

void ProgramServer::OnConnection(common::Listener::Connection accepted) {
  const uint64_t id = ++last_id_;
  Connection::Callbacks callbacks;
  callbacks.packet = [this](Connection& connection, std::string_view packet) { OnPacket(connection, packet); };
  callbacks.closed = [this](Connection& connection, const ConnectionEnd& end) { OnClosed(connection, end); };
  connections_.emplace(id, std::make_unique<Connection>(loop_, std::move(accepted), id, std::move(callbacks)));
}

void ProgramServer::OnPacket(Connection& connection, std::string_view packet) {
  if (!connection.greeted) return OnHello(connection, packet);
  bool understood = false;
  switch (connection.kind) {
    case ClientKind::kSubscription:
      understood = subscriptions_.OnPacket(connection, packet);
      break;
    case ClientKind::kControl:
    case ClientKind::kWorker:
      understood = providers_.OnPacket(connection, packet);
      break;
    case ClientKind::kRead:
      break;
  }
  if (!understood) connection.Close(Reason::kNotUnderstood, "it sent a message that cannot be understood");
}

void ProgramServer::OnHello(Connection& connection, std::string_view packet) {
  const auto hello = confd_wire::Decode<confd_wire::Hello>(packet);
  if (!hello) return connection.Close(Reason::kNotUnderstood, "it did not greet");
  confd_wire::HelloReply reply;
  reply.store_path = store_.path();
  reply.server_instance = instance_;
  reply.id = connection.id();
  connection.kind = hello->kind;
  connection.name = hello->name;
  connection.daemon_id = hello->daemon_id;
  if (hello->version != confd_wire::kProtocolVersion)
    reply.error = "the server speaks version " + std::to_string(confd_wire::kProtocolVersion) + " of the protocol";
  else if (hello->kind == ClientKind::kSubscription)
    subscriptions_.Add(connection);
  else if (hello->kind == ClientKind::kControl || hello->kind == ClientKind::kWorker)
    reply.error = providers_.Add(connection);
  else if (hello->kind != ClientKind::kRead)
    reply.error = "the server knows no such kind of connection";
  connection.greeted = reply.error.empty();
  connection.Send(confd_wire::Encode(reply));
  if (!reply.error.empty()) return connection.Close(Reason::kRefused, reply.error);
  spdlog::debug("programs: {} {} (process {}) connected", KindName(hello->kind), hello->name, connection.pid());
}

void ProgramServer::OnClosed(Connection& connection, const ConnectionEnd& end) {
  if (connection.greeted) {
    spdlog::debug("programs: {} {} (process {}): {}", KindName(connection.kind), connection.name, connection.pid(),
                  end.text);
    if (connection.kind == ClientKind::kSubscription) subscriptions_.OnClosed(connection, end);
    if (connection.kind == ClientKind::kControl || connection.kind == ClientKind::kWorker)
      providers_.OnClosed(connection, end.text);
  } else {
    spdlog::debug("programs: process {} was refused: {}", connection.pid(), end.text);
  }
  store_.ReleaseDeadReaders();
  auto closed = connections_.extract(connection.id());
  if (closed.empty()) return;
  closed_.push_back(std::move(closed.mapped()));
  forget_closed_ = loop_.Soon([this] { closed_.clear(); });
}

}  // namespace cdbd
