// confd_fd_ready(): one packet, and the callbacks that its requests are for.
#include <chrono>
#include <utility>

#include "cdb_store/instance_key.h"
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
using Clock = std::chrono::steady_clock;

/// How long the library goes on from row to row by itself, before it looks for what else there is to do.
constexpr std::chrono::milliseconds kGoingOnLimit{10};

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

int Refuse(Worker& worker, uint64_t request, const std::string& why) {
  return worker.Send(Encode(ErrorReply{request, why}));
}

uint16_t Ahead(const GetNext& request) { return request.ahead; }
uint16_t Ahead(const GetObject&) { return 0; }

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
  open = OpenRequest{request.request, list, false, Ahead(request)};
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

int HandleGetNext(const std::shared_ptr<Daemon>& daemon, const std::shared_ptr<Worker>& worker,
                  const GetNext& request) {
  const auto call = [&](const confd_data_cbs& callbacks, confd_trans_ctx& context, confd_hkeypath_t* path) {
    return callbacks.get_next != nullptr ? callbacks.get_next(&context, path, static_cast<long>(request.next))
                                         : CONFD_ERR;
  };
  return HandleRequest(daemon, worker, request, &Transaction::next_key, request.parent_keys, call);
}

int HandleGetObject(const std::shared_ptr<Daemon>& daemon, const std::shared_ptr<Worker>& worker,
                    const GetObject& request) {
  const auto call = [](const confd_data_cbs& callbacks, confd_trans_ctx& context, confd_hkeypath_t* path) {
    return callbacks.get_object != nullptr ? callbacks.get_object(&context, path) : CONFD_ERR;
  };
  return HandleRequest(daemon, worker, request, &Transaction::object, request.keys, call);
}

/// The key that `request` is answered with, as part of a request.
std::optional<std::string> KeysOf(const GetNext& request, const confd::NextRow& row) {
  cdb_store::InstanceKey keys{request.parent_keys};
  for (const Value& value : row.keys) {
    if (!keys.Append(value.type, value.stored)) return std::nullopt;
  }
  return std::string{keys.keys()};
}

/// A get_next, and as long as its answers promise so what the server would ask next: the object of the row and the key
/// after it. Whatever needs the server, or waits, ends it.
int HandleWalk(const std::shared_ptr<Daemon>& daemon, const std::shared_ptr<Worker>& worker, GetNext request) {
  const Clock::time_point end = Clock::now() + kGoingOnLimit;
  for (int result = CONFD_OK;;) {
    if (result = HandleGetNext(daemon, worker, request); result != CONFD_OK) return result;
    const auto transaction = Provider::Get().FindRunning(*daemon, request.thandle);
    if (transaction == nullptr || !transaction->next_row) return CONFD_OK;
    const confd::NextRow row = *std::exchange(transaction->next_row, std::nullopt);
    const auto keys = KeysOf(request, row);
    if (!keys) return Refuse(*worker, request.request + 1, "the keys of a row are too long");
    const GetObject object{request.request + 1, request.thandle, request.callpoint, request.node, *keys};
    if (result = HandleGetObject(daemon, worker, object); result != CONFD_OK || daemon->released) return result;
    request.request += 2;
    request.next = row.next;
    --request.ahead;
    if (Clock::now() >= end) request.ahead = 0;
  }
}

int HandleWorkerMessage(const std::shared_ptr<Daemon>& daemon, const std::shared_ptr<Worker>& worker,
                        std::string_view message) {
  if (const auto request = Decode<GetNext>(message)) return HandleWalk(daemon, worker, *request);
  if (const auto request = Decode<GetObject>(message)) return HandleGetObject(daemon, worker, *request);
  if (const auto finish = Decode<TransFinish>(message)) return HandleFinish(daemon, *finish);
  return worker->connection->FailProtocol();
}

int HandleWorkerPacket(const std::shared_ptr<Daemon>& daemon, const std::shared_ptr<Worker>& worker,
                       std::string_view packet) {
  const confd::AnswersTogether answers{*worker};
  int result = CONFD_OK;
  const bool whole = confd_wire::ForEachMessage(packet, [&](std::string_view message) {
    if (!daemon->released) result = HandleWorkerMessage(daemon, worker, message);
    return result == CONFD_OK;
  });
  if (!whole && result == CONFD_OK) result = worker->connection->FailProtocol();
  if (daemon->released) return CONFD_OK;
  const int sent = answers.Send();
  return result != CONFD_OK ? result : sent;
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
  int result = connection->ReceiveNow(packet);
  if (result == CONFD_OK && !packet.empty() && !is_control) result = HandleWorkerPacket(daemon, worker, packet);
  if (result == CONFD_EOF) {
    Provider::Get().EndAll(*daemon, worker.get(), Transaction::State::kConnectionGone);
    Fail(CONFD_ERR_OS, "socket " + std::to_string(fd) + ": the connection to the configuration database is gone");
    return CONFD_EOF;
  }
  if (result != CONFD_OK || packet.empty() || !is_control) return result;
  if (const auto init = Decode<TransInit>(packet)) return HandleInit(daemon, *init);
  return connection->FailProtocol();
}
