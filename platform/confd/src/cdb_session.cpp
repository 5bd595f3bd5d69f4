// CDB sockets and read sessions.
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "client.h"

using confd::CdbSocket;
using confd::Client;
using confd::Fail;

namespace {

constexpr int kMaxTimeout = 24 * 3600;

}  // namespace

int cdb_connect(int sock, cdb_sock_type type, const sockaddr* srv, int srv_size) {
  return cdb_connect_name(sock, type, srv, srv_size, program_invocation_short_name);
}

int cdb_connect_name(int sock, cdb_sock_type type, const sockaddr* srv, int srv_size, const char* name) {
  return Client::Get().Connect(sock, type, srv, srv_size, name != nullptr ? name : "");
}

int cdb_close(int sock) {
  if (Client::Get().Find(sock) == nullptr) return CONFD_ERR;
  const bool own = Client::Get().Find(sock)->connection->IsOwnDescriptor();
  Client::Get().Drop(sock);
  if (own && close(sock) != 0) return confd::FailOs("close", errno);
  return CONFD_OK;
}

int cdb_start_session(int sock, cdb_db_type db) {
  CdbSocket* const socket = Client::Get().Find(sock, CDB_READ_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (socket->session) return Fail(CONFD_ERR_BADSTATE, "socket " + std::to_string(sock) + " holds a session already");
  switch (db) {
    case CDB_RUNNING:
    case CDB_PRE_COMMIT_RUNNING:
      break;
    case CDB_STARTUP:
      return Fail(CONFD_ERR_PROTOUSAGE, "there is no startup datastore: running is durable itself");
    case CDB_OPERATIONAL:
      return Fail(CONFD_ERR_PROTOUSAGE, "there is no operational datastore to read: its data comes from providers");
    default:
      return Fail(CONFD_ERR_PROTOUSAGE, "unknown datastore " + std::to_string(db));
  }
  if (const int result = socket->connection->Probe(); result != CONFD_OK) return result;
  std::shared_ptr<cdb_store::Snapshot> snapshot;
  if (const int result = Client::Get().TakeSnapshot(snapshot); result != CONFD_OK) return result;
  const cdb_store::View view = db == CDB_RUNNING ? snapshot->Running() : snapshot->PreCommit();
  socket->session = confd::Session{std::move(snapshot), view, -1, {}, {}, {}};
  return CONFD_OK;
}

int cdb_end_session(int sock) {
  CdbSocket* const socket = Client::Get().Find(sock, CDB_READ_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (!socket->session) return Fail(CONFD_ERR_BADSTATE, "socket " + std::to_string(sock) + " holds no session");
  socket->session.reset();
  return CONFD_OK;
}

int cdb_set_namespace(int sock, int ns_hash) {
  CdbSocket* const socket = Client::Get().Find(sock, CDB_READ_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (!socket->session) return Fail(CONFD_ERR_BADSTATE, "socket " + std::to_string(sock) + " holds no session");
  const int ns = socket->session->view.schema().FindNamespace(static_cast<uint32_t>(ns_hash));
  if (ns < 0) {
    char text[64];
    std::snprintf(text, sizeof text, "no module has the namespace hash 0x%08x", static_cast<unsigned>(ns_hash));
    return Fail(CONFD_ERR_NOEXISTS, text);
  }
  socket->session->ns = ns;
  return CONFD_OK;
}

int cdb_set_timeout(int sock, int timeout_secs) {
  CdbSocket* const socket = Client::Get().Find(sock);
  if (socket == nullptr) return CONFD_ERR;
  if (timeout_secs < 0 || timeout_secs > kMaxTimeout) {
    return Fail(CONFD_ERR_PROTOUSAGE, "a time-out is 0 to " + std::to_string(kMaxTimeout) + " s");
  }
  socket->connection->set_timeout(std::chrono::seconds(timeout_secs));
  return CONFD_OK;
}

int cdb_get_txid(int sock, cdb_txid* txid) {
  CdbSocket* const socket = Client::Get().Find(sock);
  if (socket == nullptr) return CONFD_ERR;
  if (txid == nullptr) return Fail(CONFD_ERR_PROTOUSAGE, "the transaction id's destination is a null pointer");
  std::shared_ptr<cdb_store::Snapshot> snapshot = socket->session ? socket->session->snapshot : nullptr;
  if (snapshot == nullptr) {
    if (const int result = socket->connection->Probe(); result != CONFD_OK) return result;
    if (const int result = Client::Get().TakeSnapshot(snapshot); result != CONFD_OK) return result;
  }
  const uint64_t number = Client::Get().WhollyDelivered(snapshot->txid().number);
  *txid = {};
  txid->s1 = snapshot->txid().store;
  txid->s2 = static_cast<uint32_t>(number >> 32);
  txid->s3 = static_cast<uint32_t>(number);
  std::snprintf(txid->primary, sizeof txid->primary, "%s", Client::Get().primary().c_str());
  return CONFD_OK;
}
