// confd_fd_ready(): one message of the server, and the callbacks that it is for.
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
using confd::Page;
using confd::Provider;
using confd::Transaction;
using confd::Worker;

namespace {

using namespace confd_wire;
using Clock = std::chrono::steady_clock;

/// How long one page may take: then the application's loop has its turn.
constexpr std::chrono::milliseconds kPageTime{10};

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

/// Runs the callback that `open` says, for the path below. True when it was answered; else the page has an error, the
/// answer is delayed, or the transaction is over.
template <class Callback>
bool Ask(const std::shared_ptr<Transaction>& transaction, Transaction::Call open, const Callback& callback) {
  transaction->open = open;
  const int answer = callback();
  if (transaction->state != Transaction::State::kRunning) return false;
  if (transaction->open == Transaction::Call::kNone) return !transaction->page->error;
  if (answer == CONFD_DELAYED_RESPONSE) {
    transaction->is_delayed = true;
    return false;
  }
  transaction->page->error =
      answer == CONFD_OK ? "the provider's callback gave no answer" : "the provider's callback failed";
  return false;
}

bool AskNextKey(const std::shared_ptr<Transaction>& transaction, const confd_data_cbs& callbacks) {
  const cdb_store::Schema& schema = *Client::Get().schema();
  const Page& page = *transaction->page;
  confd::KeypathBuilder path{schema};
  confd::PushPath(path, schema, *page.list, page.parent_keys);
  const auto from = static_cast<long>(page.reply.next);
  return Ask(transaction, Transaction::Call::kGetNext, [&] {
    return callbacks.get_next != nullptr ? callbacks.get_next(&transaction->context, path.Build(), from) : CONFD_ERR;
  });
}

bool AskObject(const std::shared_ptr<Transaction>& transaction, const confd_data_cbs& callbacks) {
  const cdb_store::Schema& schema = *Client::Get().schema();
  Page& page = *transaction->page;
  cdb_store::InstanceKey keys{page.parent_keys};
  for (const Value& value : transaction->next_row->keys) {
    if (keys.Append(value.type, value.stored)) continue;
    page.error = "the keys of a row are too long";
    return false;
  }
  confd::KeypathBuilder path{schema};
  confd::PushPath(path, schema, *page.list, keys.keys());
  return Ask(transaction, Transaction::Call::kGetObject, [&] {
    return callbacks.get_object != nullptr ? callbacks.get_object(&transaction->context, path.Build()) : CONFD_ERR;
  });
}

/// Runs the callbacks for the rows of the page, one after the other, until it is complete, has failed, or waits for a
/// delayed answer.
void FillPage(const std::shared_ptr<Transaction>& transaction, const confd_data_cbs& callbacks) {
  const Clock::time_point end = Clock::now() + kPageTime;
  const auto is_full = [&] {
    return transaction->left_over || transaction->page->reply.rows.size() >= transaction->page->limit ||
           Clock::now() >= end;
  };
  while (!is_full()) {
    if (!transaction->next_row && !AskNextKey(transaction, callbacks)) return;
    if (transaction->page->reply.end || !AskObject(transaction, callbacks)) return;
  }
}

/// Why the page cannot be served, or "".
std::string WhyNot(const Transaction* transaction, const confd_data_cbs* callbacks, const ReadRows& request) {
  const cdb_store::Schema* const schema = Client::Get().schema();
  if (transaction == nullptr) return "the provider knows no such transaction";
  if (callbacks == nullptr) return "the provider has no callpoint " + request.callpoint;
  const bool is_list = schema != nullptr && request.node < schema->size() &&
                       schema->node(request.node).kind == cdb_store::NodeKind::kList;
  if (!is_list ||
      !cdb_store::KeysSizeAt(*schema, schema->node(schema->node(request.node).parent), request.parent_keys)) {
    return "the provider has another data model";
  }
  // The late answer to the earlier request must not be taken for this one's.
  return transaction->page ? "the provider has not answered an earlier request" : "";
}

int HandleReadRows(const std::shared_ptr<Daemon>& daemon, Worker& worker, const ReadRows& request) {
  const auto transaction = Provider::Get().FindRunning(*daemon, request.thandle);
  const confd_data_cbs* const found = daemon->FindCallbacks(request.callpoint);
  if (const std::string why = WhyNot(transaction.get(), found, request); !why.empty()) {
    return worker.connection->Send(Encode(ReadFailed{request.request, why}));
  }
  Page& page = transaction->page.emplace();
  page.list = &Client::Get().schema()->node(request.node);
  page.parent_keys = request.parent_keys;
  page.limit = request.limit;
  page.reply.request = request.request;
  page.reply.next = request.from;
  if (transaction->left_over) page.Add(*transaction->left_over);
  transaction->left_over.reset();
  const confd_data_cbs callbacks = *found;  // a callback may register others
  FillPage(transaction, callbacks);
  if (transaction->state != Transaction::State::kRunning || transaction->is_delayed) return CONFD_OK;
  return transaction->SendPage();
}

int HandleWorkerMessage(const std::shared_ptr<Daemon>& daemon, Worker& worker, std::string_view message) {
  if (const auto request = Decode<ReadRows>(message)) return HandleReadRows(daemon, worker, *request);
  if (const auto finish = Decode<TransFinish>(message)) return HandleFinish(daemon, *finish);
  return worker.connection->FailProtocol();
}

}  // namespace

int confd_fd_ready(confd_daemon_ctx* dctx, int fd) {
  const auto daemon = Provider::Get().Find(dctx);
  if (daemon == nullptr) return CONFD_ERR;
  const bool is_control = daemon->control != nullptr && daemon->control->fd() == fd;
  const std::shared_ptr<Worker> worker = is_control ? nullptr : daemon->FindWorker(fd);
  if (!is_control && worker == nullptr) {
    return Fail(CONFD_ERR_NOEXISTS, "socket " + std::to_string(fd) + " is not a socket of this daemon context");
  }
  const std::shared_ptr<Connection> connection = is_control ? daemon->control : worker->connection;
  std::string packet;
  int result = connection->ReceiveNow(packet);
  if (result == CONFD_OK && !packet.empty() && !is_control) result = HandleWorkerMessage(daemon, *worker, packet);
  if (result == CONFD_EOF) {
    Provider::Get().EndAll(*daemon, worker.get(), Transaction::State::kConnectionGone);
    Fail(CONFD_ERR_OS, "socket " + std::to_string(fd) + ": the connection to the configuration database is gone");
    return CONFD_EOF;
  }
  if (result != CONFD_OK || packet.empty() || !is_control) return result;
  if (const auto init = Decode<TransInit>(packet)) return HandleInit(daemon, *init);
  return connection->FailProtocol();
}
