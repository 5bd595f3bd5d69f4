#include "programs/program_server.h"

#include <spdlog/spdlog.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

#include "common/unix_socket.h"
#include "confd_wire/codec.h"

namespace cdbd {
namespace {

using confd_wire::ClientKind;

constexpr mode_t kSocketMode = 0660;

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
  auto listener = common::ListenUnix(path, SOCK_SEQPACKET, kSocketMode);
  if (!listener) return listener.error();
  return std::unique_ptr<ProgramServer>{
      new ProgramServer{loop, std::move(listener).value(), path, store, subscriptions, providers}};
}

ProgramServer::ProgramServer(common::EventLoop& loop, common::UniqueFd listener, std::string path,
                             cdb_store::StoreWriter& store, SubscriptionService& subscriptions,
                             ProviderService& providers)
    : loop_{loop},
      listener_{std::move(listener)},
      path_{std::move(path)},
      store_{store},
      subscriptions_{subscriptions},
      providers_{providers},
      instance_{NewInstance()} {
  loop_.AddFd(listener_.get(), EPOLLIN, [this](uint32_t) { OnConnection(); });
}

ProgramServer::~ProgramServer() {
  loop_.RemoveFd(listener_.get());
  ::unlink(path_.c_str());
}

void ProgramServer::OnConnection() {
  auto accepted = common::AcceptUnix(listener_.get());
  if (!accepted) {
    spdlog::error("programs: {}", accepted.error().Text());
    return;
  }
  common::UniqueFd fd = std::move(accepted).value();
  if (!fd) return;
  const auto peer = common::PeerCredentials(fd.get());
  if (!peer) {
    spdlog::error("programs: {}", peer.error().Text());
    return;
  }
  const uint64_t id = ++last_id_;
  Connection::Callbacks callbacks;
  callbacks.packet = [this](Connection& connection, std::string_view packet) { OnPacket(connection, packet); };
  callbacks.closed = [this](Connection& connection, const std::string& why) { OnClosed(connection, why); };
  connections_.emplace(id,
                       std::make_unique<Connection>(loop_, std::move(fd), id, peer.value().pid, std::move(callbacks)));
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
  if (!understood) connection.Close("it sent a message that cannot be understood");
}

void ProgramServer::OnHello(Connection& connection, std::string_view packet) {
  const auto hello = confd_wire::Decode<confd_wire::Hello>(packet);
  if (!hello) return connection.Close("it did not greet");
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
  if (!reply.error.empty()) return connection.Close(reply.error);
  spdlog::debug("programs: {} {} (process {}) connected", KindName(hello->kind), hello->name, connection.pid());
}

void ProgramServer::OnClosed(Connection& connection, const std::string& why) {
  if (connection.greeted) {
    spdlog::debug("programs: {} {} (process {}): {}", KindName(connection.kind), connection.name, connection.pid(),
                  why);
    if (connection.kind == ClientKind::kSubscription) subscriptions_.OnClosed(connection, why);
    if (connection.kind == ClientKind::kControl || connection.kind == ClientKind::kWorker)
      providers_.OnClosed(connection, why);
  } else {
    spdlog::debug("programs: process {} was refused: {}", connection.pid(), why);
  }
  store_.ReleaseDeadReaders();
  // Later: a service may be in the middle of using it.
  const uint64_t id = connection.id();
  loop_.Defer([this, id, guard = std::weak_ptr<int>{guard_}] {
    if (!guard.expired()) connections_.erase(id);
  });
}

}  // namespace cdbd
