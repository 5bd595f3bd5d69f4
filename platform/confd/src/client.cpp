#include "client.h"

#include <pthread.h>

#include <chrono>
#include <thread>
#include <utility>

namespace confd {
namespace {

constexpr std::chrono::seconds kSnapshotLimit{5};

bool forked = false;

/// The parent's environment and sockets must not be touched: they are forgotten, not closed.
void ForgetInChild() { forked = true; }

}  // namespace

Client::Client() { pthread_atfork(nullptr, nullptr, ForgetInChild); }

Client& Client::Get() {
  static Client* client = new Client;
  if (forked) {
    client = new Client;
    forked = false;
  }
  return *client;
}

CdbSocket* Client::Find(int sock) {
  if (sock >= 0 && static_cast<size_t>(sock) < sockets_.size() && sockets_[static_cast<size_t>(sock)] != nullptr) {
    return sockets_[static_cast<size_t>(sock)].get();
  }
  Fail(CONFD_ERR_BADSTATE, "socket " + std::to_string(sock) + " is not connected to the configuration database");
  return nullptr;
}

CdbSocket* Client::Find(int sock, cdb_sock_type type) {
  CdbSocket* const found = Find(sock);
  if (found == nullptr || found->type == type) return found;
  Fail(CONFD_ERR_BADSTATE, "socket " + std::to_string(sock) +
                               (type == CDB_READ_SOCKET ? " is no read socket" : " is no subscription socket"));
  return nullptr;
}

int Client::Connect(int sock, cdb_sock_type type, const sockaddr* server, int server_size, std::string name) {
  if (type != CDB_READ_SOCKET && type != CDB_SUBSCRIPTION_SOCKET) {
    return Fail(CONFD_ERR_PROTOUSAGE, "unknown type of CDB socket: " + std::to_string(type));
  }
  confd_wire::Hello hello;
  hello.kind = type == CDB_READ_SOCKET ? confd_wire::ClientKind::kRead : confd_wire::ClientKind::kSubscription;
  hello.name = std::move(name);
  confd_wire::HelloReply reply;
  int result = CONFD_OK;
  std::shared_ptr<Connection> connection = Connection::Open(sock, server, server_size, hello, reply, result);
  if (connection == nullptr) return result;
  if (static_cast<size_t>(sock) >= sockets_.size()) sockets_.resize(static_cast<size_t>(sock) + 1);
  Drop(sock);  // a descriptor that was closed without cdb_close() and came back
  if (result = OpenStore(reply); result != CONFD_OK) return result;
  auto& entry = sockets_[static_cast<size_t>(sock)];
  entry = std::make_unique<CdbSocket>();
  entry->connection = std::move(connection);
  entry->type = type;
  return CONFD_OK;
}

void Client::Drop(int sock) {
  if (sock >= 0 && static_cast<size_t>(sock) < sockets_.size()) sockets_[static_cast<size_t>(sock)].reset();
}

int Client::OpenStore(const confd_wire::HelloReply& hello) {
  const bool current =
      reader_ != nullptr && server_instance_ == hello.server_instance && reader_->path() == hello.store_path;
  if (current) return CONFD_OK;
  if (reader_ != nullptr && reader_->path() == hello.store_path) {
    // One environment per process and store: while a session still looks at the one that is open, it stays.
    if (reader_.use_count() > 1) return CONFD_OK;
    reader_.reset();
  }
  auto reader = cdb_store::StoreReader::Open(hello.store_path);
  if (!reader) return Fail(CONFD_ERR_OS, reader.error().Text());
  reader_ = std::move(reader).value();
  server_instance_ = hello.server_instance;
  return CONFD_OK;
}

int Client::TakeFresh(std::shared_ptr<cdb_store::Snapshot>& snapshot) {
  if (reader_ == nullptr) return Fail(CONFD_ERR_BADSTATE, "there is no connection to the configuration database");
  auto taken = reader_->Take();
  if (!taken) return Fail(CONFD_ERR_OS, taken.error().Text());
  auto owned = std::move(taken).value();
  cdb_store::Snapshot* const plain = owned.get();
  // The snapshot goes before the store that it is of.
  const auto release = [reader = reader_, owned = std::move(owned)](cdb_store::Snapshot*) mutable { owned.reset(); };
  snapshot = std::shared_ptr<cdb_store::Snapshot>(plain, release);
  return CONFD_OK;
}

void Client::ForgetMessageIfDropped(CdbSocket& socket) {
  if (!socket.message || socket.connection->Probe() == CONFD_OK) return;
  socket.unfinished = socket.message->txid;
  socket.message.reset();
}

uint64_t Client::WhollyDelivered(uint64_t txid) {
  for (const auto& socket : sockets_) {
    if (socket == nullptr) continue;
    ForgetMessageIfDropped(*socket);
    if (socket->unfinished == txid && txid > 0) return txid - 1;
  }
  return txid;
}

int Client::TakeSnapshot(std::shared_ptr<cdb_store::Snapshot>& snapshot) {
  for (const auto& socket : sockets_) {
    if (socket == nullptr) continue;
    ForgetMessageIfDropped(*socket);
    if (!socket->message) continue;
    snapshot = socket->message->snapshot;
    return CONFD_OK;
  }
  return TakeFresh(snapshot);
}

int Client::TakeSnapshotOf(uint64_t txid, std::shared_ptr<cdb_store::Snapshot>& snapshot) {
  const auto deadline = std::chrono::steady_clock::now() + kSnapshotLimit;
  while (true) {
    if (const int result = TakeFresh(snapshot); result != CONFD_OK) return result;
    if (snapshot->txid().number >= txid) return CONFD_OK;
    snapshot.reset();
    if (std::chrono::steady_clock::now() > deadline) {
      return Fail(CONFD_ERR_EXTERNAL,
                  "the store does not show commit " + std::to_string(txid) + ", which the server told of");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace confd
