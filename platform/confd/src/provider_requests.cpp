// confd_fd_ready(): one message, one callback.
#include "client.h"
#include "keypath_builder.h"
#include "provider.h"

using confd::Client;
using confd::Connection;
using confd::Daemon;
using confd::Fail;
using confd::OpenRequest;
using confd::Provider;
using confd::Transaction;
using confd::Worker;

namespace {

using namespace confd_wire;

int HandleInit(const std::shared_ptr<Daemon>& daemon, const TransInit& init) {
  const std::shared_ptr<Connection> control = daemon->control;
  const auto transaction = Provider::Get().NewTransaction(daemon, init.thandle);
  if (!daemon->workers.empty()) transaction->worker = daemon->workers.back();
  int answer = CONFD_OK;
  if (daemon->trans_callbacks.init != nullptr) answer = daemon->trans_callbacks.init(&transaction->context);
  if (transaction->state != Transaction::State::kRunning) return CONFD_OK;  // the callback took the daemon down
  TransInitReply reply;
  reply.thandle = init.thandle;
  if (answer != CONFD_OK) {
    reply.error = "the provider refused the transaction";
  } else if (transaction->worker == nullptr) {
    reply.error = "the provider has no worker socket";
  } else {
    reply.worker_id = transaction->worker->id;
  }
  if (!reply.error.empty()) Provider::Get().End(transaction, Transaction::State::kFinished);
  return control->Send(Encode(reply));
}

int HandleFinish(const std::shared_ptr<Daemon>& daemon, const TransFinish& finish) {
  const auto transaction = Provider::Get().FindRunning(*daemon, finish.thandle);
  if (transaction == nullptr) return CONFD_OK;
  if (daemon->trans_callbacks.finish != nullptr) daemon->trans_callbacks.finish(&transaction->context);
  Provider::Get().End(transaction, Transaction::State::kFinished);
  return CONFD_OK;
}

int Refuse(const Worker& worker, uint64_t request, const std::string& why) {
  return worker.connection->Send(Encode(ErrorReply{request, why}));
}

/// What both requests share: the transaction, the callbacks, the place where the open request is kept, and what
/// follows the callback. `call` runs it with the keypath.
template <class Request, class Call>
int HandleRequest(const std::shared_ptr<Daemon>& daemon, const std::shared_ptr<Worker>& worker, const Request& request,
                  std::optional<OpenRequest> Transaction::*slot, std::string_view keys, Call call) {
  const cdb_store::Schema* const schema = Client::Get().schema();
  const auto transaction = Provider::Get().FindRunning(*daemon, request.thandle);
  const confd_data_cbs* const found = daemon->FindCallbacks(request.callpoint);
  if (transaction == nullptr) return Refuse(*worker, request.request, "the provider knows no such transaction");
  if (found == nullptr) return Refuse(*worker, request.request, "the provider has no callpoint " + request.callpoint);
  const confd_data_cbs callbacks = *found;  // the callback may register anew
  const bool is_list = schema != nullptr && request.node < schema->size() &&
                       schema->node(request.node).kind == cdb_store::NodeKind::kList;
  const cdb_store::Node* const list = is_list ? &schema->node(request.node) : nullptr;
  if (list == nullptr || !cdb_store::KeysSizeAt(*schema, schema->node(list->parent), keys)) {
    return Refuse(*worker, request.request, "the provider has another data model");
  }
  std::optional<OpenRequest>& open = (*transaction).*slot;
  // The late answer to the earlier request must not be taken for this one's.
  if (open) return Refuse(*worker, request.request, "the provider has not answered an earlier request");
  open = OpenRequest{request.request, list, false};
  confd::KeypathBuilder path(*schema);
  confd::PushPath(path, *schema, *list, keys);

  transaction->current = &open;
  const int answer = call(callbacks, transaction->context, path.Build());
  transaction->current = nullptr;
  if (!open || open->id != request.request) return CONFD_OK;  // answered, or the transaction is over
  if (answer == CONFD_DELAYED_RESPONSE) {
    open->delayed = true;
    return CONFD_OK;
  }
  open.reset();
  return Refuse(*worker, request.request,
                answer == CONFD_OK ? "the provider's callback gave no answer" : "the provider's callback failed");
}

int HandleWorkerMessage(const std::shared_ptr<Daemon>& daemon, const std::shared_ptr<Worker>& worker,
                        const std::string& packet) {
  if (const auto request = Decode<GetNext>(packet)) {
    const auto call = [&](const confd_data_cbs& callbacks, confd_trans_ctx& context, confd_hkeypath_t* path) {
      return callbacks.get_next != nullptr ? callbacks.get_next(&context, path, static_cast<long>(request->next))
                                           : CONFD_ERR;
    };
    return HandleRequest(daemon, worker, *request, &Transaction::next_key, request->parent_keys, call);
  }
  if (const auto request = Decode<GetObject>(packet)) {
    const auto call = [](const confd_data_cbs& callbacks, confd_trans_ctx& context, confd_hkeypath_t* path) {
      return callbacks.get_object != nullptr ? callbacks.get_object(&context, path) : CONFD_ERR;
    };
    return HandleRequest(daemon, worker, *request, &Transaction::object, request->keys, call);
  }
  if (const auto finish = Decode<TransFinish>(packet)) return HandleFinish(daemon, *finish);
  return worker->connection->FailProtocol();
}

}  // namespace

int confd_fd_ready(confd_daemon_ctx* dctx, int fd) {
  const auto daemon = Provider::Get().Find(dctx);
  if (daemon == nullptr) return CONFD_ERR;
  const bool is_control = daemon->control != nullptr && daemon->control->fd() == fd;
  const std::shared_ptr<Worker> worker = is_control ? nullptr : daemon->FindWorker(fd);
  if (!is_control && worker == nullptr) {
    return Fail(CONFD_ERR_NOEXISTS, "socket " + std::to_string(fd) + " is no socket of this daemon context");
  }
  const std::shared_ptr<Connection> connection = is_control ? daemon->control : worker->connection;
  std::string packet;
  const int result = connection->ReceiveNow(packet);
  if (result == CONFD_EOF) {
    Provider::Get().EndAll(*daemon, worker.get(), Transaction::State::kConnectionGone);
    Fail(CONFD_ERR_OS, "socket " + std::to_string(fd) + ": the connection to the configuration database is gone");
    return CONFD_EOF;
  }
  if (result != CONFD_OK || packet.empty()) return result;
  if (!is_control) return HandleWorkerMessage(daemon, worker, packet);
  if (const auto init = Decode<TransInit>(packet)) return HandleInit(daemon, *init);
  return connection->FailProtocol();
}
