// Daemon contexts: connection and registration.
#include <algorithm>
#include <cstring>

#include "client.h"
#include "provider.h"

using confd::Daemon;
using confd::Fail;
using confd::Provider;
using confd::Transaction;

namespace {

/// The name of a member that is set and not supported; null when there is none.
const char* Unsupported(const confd_data_cbs& cbs) {
  if (cbs.exists_optional != nullptr) return "exists_optional";
  if (cbs.get_elem != nullptr) return "get_elem";
  if (cbs.num_instances != nullptr) return "num_instances";
  if (cbs.cb_opaque != nullptr) return "cb_opaque";
  return cbs.flags != 0 ? "flags" : nullptr;
}

}  // namespace

confd_daemon_ctx* confd_init_daemon(const char* name) { return &Provider::Get().NewDaemon(name)->context; }

void confd_release_daemon(confd_daemon_ctx* dctx) {
  if (const auto daemon = Provider::Get().Find(dctx)) Provider::Get().Release(daemon);
}

int confd_connect(confd_daemon_ctx* dctx, int sock, confd_sock_type type, const sockaddr* srv, int srv_size) {
  const auto daemon = Provider::Get().Find(dctx);
  if (daemon == nullptr) return CONFD_ERR;
  if (type != CONTROL_SOCKET && type != WORKER_SOCKET) {
    return Fail(CONFD_ERR_PROTOUSAGE, "unknown type of provider socket: " + std::to_string(type));
  }
  if (type == WORKER_SOCKET && daemon->control == nullptr) {
    return Fail(CONFD_ERR_BADSTATE, "the control socket is connected before a worker socket");
  }
  if (type == CONTROL_SOCKET && daemon->control != nullptr && !daemon->control->IsDead()) {
    return Fail(CONFD_ERR_BADSTATE, "the control socket is connected already");
  }
  confd_wire::Hello hello;
  hello.kind = type == CONTROL_SOCKET ? confd_wire::ClientKind::kControl : confd_wire::ClientKind::kWorker;
  hello.name = daemon->name;
  hello.daemon_id = daemon->id;
  confd_wire::HelloReply reply;
  int result = CONFD_OK;
  auto connection = confd::Connection::Open(sock, srv, srv_size, hello, reply, result);
  if (connection == nullptr) return result;
  if (result = confd::Client::Get().OpenStore(reply); result != CONFD_OK) return result;
  if (type == CONTROL_SOCKET) {
    daemon->control = std::move(connection);
    daemon->id = reply.id;
  } else {
    std::erase_if(daemon->workers, [sock](const auto& old) { return old->connection->fd() == sock; });
    daemon->workers.push_back(std::make_shared<confd::Worker>(confd::Worker{std::move(connection), reply.id}));
  }
  return CONFD_OK;
}

int confd_register_trans_cb(confd_daemon_ctx* dctx, const confd_trans_cbs* cbs) {
  const auto daemon = Provider::Get().Find(dctx);
  if (daemon == nullptr) return CONFD_ERR;
  if (cbs == nullptr) return Fail(CONFD_ERR_PROTOUSAGE, "the transaction callbacks are a null pointer");
  daemon->trans_callbacks = *cbs;
  return CONFD_OK;
}

int confd_register_data_cb(confd_daemon_ctx* dctx, const confd_data_cbs* cbs) {
  const auto daemon = Provider::Get().Find(dctx);
  if (daemon == nullptr) return CONFD_ERR;
  if (cbs == nullptr) return Fail(CONFD_ERR_PROTOUSAGE, "the data callbacks are a null pointer");
  const size_t length = strnlen(cbs->callpoint, MAX_CALLPOINT_LEN);
  if (length == 0 || length == MAX_CALLPOINT_LEN) {
    return Fail(CONFD_ERR_PROTOUSAGE,
                "a callpoint's name has 1 to " + std::to_string(MAX_CALLPOINT_LEN - 1) + " characters");
  }
  if (const char* member = Unsupported(*cbs)) {
    return Fail(CONFD_ERR_PROTOUSAGE, "callpoint " + std::string(cbs->callpoint, length) + ": " + member +
                                          " is not supported and must be zero");
  }
  const auto same = [&](const confd_data_cbs& other) { return std::strcmp(other.callpoint, cbs->callpoint) == 0; };
  std::erase_if(daemon->data_callbacks, same);
  daemon->data_callbacks.push_back(*cbs);
  return CONFD_OK;
}

int confd_register_done(confd_daemon_ctx* dctx) {
  const auto daemon = Provider::Get().Find(dctx);
  if (daemon == nullptr) return CONFD_ERR;
  if (daemon->control == nullptr) return Fail(CONFD_ERR_BADSTATE, "the control socket is not connected");
  confd_wire::Register request;
  for (const confd_data_cbs& callbacks : daemon->data_callbacks) {
    request.callpoints.push_back({callbacks.callpoint, callbacks.get_next != nullptr, callbacks.get_object != nullptr});
  }
  confd_wire::RegisterReply reply;
  if (const int result = daemon->control->Call(request, reply); result != CONFD_OK) return result;
  return reply.error.empty() ? CONFD_OK : Fail(CONFD_ERR_EXTERNAL, reply.error);
}

int confd_trans_set_fd(confd_trans_ctx* tctx, int sock) {
  const auto transaction = Provider::Get().Find(tctx);
  if (transaction == nullptr) return CONFD_ERR;
  if (transaction->state != Transaction::State::kRunning) {
    return Fail(CONFD_ERR_BADSTATE, "transaction " + std::to_string(tctx->thandle) + " is over");
  }
  const auto worker = transaction->daemon->FindWorker(sock);
  if (worker == nullptr) {
    return Fail(CONFD_ERR_NOEXISTS,
                "socket " + std::to_string(sock) + " is not a worker socket of this daemon context");
  }
  transaction->worker = worker;
  return CONFD_OK;
}
