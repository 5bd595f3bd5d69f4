// Sessions of the scripted database, as the client library's calls.
#include "fakes/fake_cdb.h"
#include "fakes/script.h"
#include "fakes/trace.h"

namespace {

constexpr int kModelHash = 0x41fef11b;

fakes::Cdb::Session* SessionOf(int sock) {
  auto& sessions = fakes::TheCdb().sessions;
  const auto found = sessions.find(sock);
  if (found != sessions.end()) return &found->second;
  fakes::SetLastError(CONFD_ERR_BADSTATE, fakes::Format("socket %d holds no session", sock));
  return nullptr;
}

void AddRead(const char* function, int sock, const std::string& rest) {
  fakes::Cdb::Session* const session = SessionOf(sock);
  const std::string db = session == nullptr ? fakes::Format("socket %d", sock) : fakes::DbName(session->db);
  fakes::TheTrace().Add(fakes::Kind::kRead, std::string(function) + " " + db + rest);
}

}  // namespace

int cdb_connect(int sock, cdb_sock_type type, const sockaddr* /*srv*/, int /*srv_size*/) {
  if (type == CDB_READ_SOCKET) fakes::TheCdb().sessions[sock] = {};
  return fakes::ScriptedResult("cdb_connect");
}

int cdb_connect_name(int sock, cdb_sock_type type, const sockaddr* srv, int srv_size, const char* /*name*/) {
  return cdb_connect(sock, type, srv, srv_size);
}

int cdb_close(int sock) {
  fakes::TheCdb().sessions.erase(sock);
  return CONFD_OK;
}

int cdb_start_session(int sock, cdb_db_type db) {
  fakes::Cdb::Session* const session = SessionOf(sock);
  if (session == nullptr || session->started) return CONFD_ERR;
  session->started = true;
  session->db = db;
  session->ns_hash.reset();
  return fakes::ScriptedResult("cdb_start_session");
}

int cdb_end_session(int sock) {
  fakes::Cdb::Session* const session = SessionOf(sock);
  if (session == nullptr || !session->started) return CONFD_ERR;
  session->started = false;
  return CONFD_OK;
}

int cdb_set_namespace(int sock, int ns_hash) {
  AddRead("cdb_set_namespace", sock, fakes::Format(" 0x%x", static_cast<unsigned>(ns_hash)));
  if (const auto answer = fakes::TheScript().Find("cdb_set_namespace")) return answer->result;
  fakes::Cdb::Session* const session = SessionOf(sock);
  if (session == nullptr) return CONFD_ERR;
  if (ns_hash != kModelHash) {
    fakes::SetLastError(CONFD_ERR_PROTOUSAGE, fakes::Format("no namespace 0x%x", static_cast<unsigned>(ns_hash)));
    return CONFD_ERR;
  }
  session->ns_hash = ns_hash;
  return CONFD_OK;
}

int cdb_set_timeout(int sock, int timeout_secs) {
  AddRead("cdb_set_timeout", sock, fakes::Format(" %d", timeout_secs));
  fakes::Cdb::Session* const session = SessionOf(sock);
  if (session == nullptr) return CONFD_ERR;
  session->timeout_secs = timeout_secs;
  return fakes::ScriptedResult("cdb_set_timeout");
}

int cdb_get_txid(int sock, cdb_txid* txid) {
  AddRead("cdb_get_txid", sock, "");
  if (const auto answer = fakes::TheScript().Find("cdb_get_txid")) return answer->result;
  *txid = fakes::TheCdb().txid;
  return CONFD_OK;
}
