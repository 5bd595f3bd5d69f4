// Answers to requests, in the callback or later.
#include "client.h"
#include "provider.h"
#include "values.h"

using confd::Fail;
using confd::OpenRequest;
using confd::Provider;
using confd::Transaction;

namespace {

/// The request that an answer of this kind is for. Null, with the last error set, when nothing waits for it.
std::optional<OpenRequest>* FindOpen(const std::shared_ptr<Transaction>& transaction,
                                     std::optional<OpenRequest>* wanted) {
  const std::string name = "transaction " + std::to_string(transaction->context.thandle);
  switch (transaction->state) {
    case Transaction::State::kRunning:
      if (*wanted) return wanted;
      Fail(CONFD_ERR_BADSTATE, name + " has no open request for this answer: it was answered before");
      return nullptr;
    case Transaction::State::kFinished:
      Fail(CONFD_ERR_BADSTATE, name + " is over: the answer comes too late");
      break;
    case Transaction::State::kConnectionGone:
      Fail(CONFD_ERR_BADSTATE, name + ": its connection is gone");
      break;
    case Transaction::State::kDaemonReleased:
      Fail(CONFD_ERR_BADSTATE, name + ": its daemon context was released");
      break;
  }
  Provider::Get().Settle(transaction);
  return nullptr;
}

/// Sends the answer and closes the request. A connection that is gone is an error of the transaction here.
template <class Reply>
int Answer(const std::shared_ptr<Transaction>& transaction, std::optional<OpenRequest>& open, Reply reply) {
  reply.request = (*open).id;
  std::string packet = confd_wire::Encode(reply);
  if (packet.size() > confd_wire::kMaxMessage) {
    return Fail(CONFD_ERR_PROTOUSAGE, "an answer of " + std::to_string(packet.size()) + " bytes is too long");
  }
  open.reset();
  const std::shared_ptr<confd::Worker> worker = transaction->worker;
  const int result = worker->Send(packet);
  if (result != CONFD_EOF) return result;
  Provider::Get().EndAll(*transaction->daemon, worker.get(), Transaction::State::kConnectionGone);
  return Fail(CONFD_ERR_BADSTATE,
              "transaction " + std::to_string(transaction->context.thandle) + ": its connection is gone");
}

/// The request whose callback runs, else the one that waits.
std::optional<OpenRequest>* AnyOpen(Transaction& transaction) {
  if (transaction.current != nullptr && *transaction.current) return transaction.current;
  return transaction.next_key ? &transaction.next_key : &transaction.object;
}

int ToKeys(const cdb_store::Schema& schema, const cdb_store::Node& list, const confd_value_t* keys, int n,
           std::vector<confd_wire::Value>& wire) {
  if (keys == nullptr || n != static_cast<int>(list.keys.size())) {
    return Fail(CONFD_ERR_PROTOUSAGE,
                list.name + " has " + std::to_string(list.keys.size()) + " keys, not " + std::to_string(n));
  }
  for (int i = 0; i < n; ++i) {
    const cdb_store::Node& leaf = schema.node(list.keys[static_cast<size_t>(i)]);
    confd_wire::Value& value = wire.emplace_back();
    if (!confd::ToWire(keys[i], value) || value.type != leaf.type) {
      return Fail(CONFD_ERR_BADTYPE, "key " + leaf.name + " of " + list.name + " is of type " + TypeName(leaf.type));
    }
  }
  return CONFD_OK;
}

}  // namespace

int confd_data_reply_next_key(confd_trans_ctx* tctx, const confd_value_t* keys, int n, long next) {
  const auto transaction = Provider::Get().Find(tctx);
  if (transaction == nullptr) return CONFD_ERR;
  std::optional<OpenRequest>* const open = FindOpen(transaction, &transaction->next_key);
  if (open == nullptr) return CONFD_ERR;
  confd_wire::NextKeyReply reply;
  reply.end = keys == nullptr && n == -1;
  reply.next = next;
  if (!reply.end) {
    const cdb_store::Schema& schema = *confd::Client::Get().schema();
    if (const int result = ToKeys(schema, *(*open)->node, keys, n, reply.keys); result != CONFD_OK) return result;
  }
  // On with the row by itself: only from within the callback, and not while its row's object is still owed, which would
  // stand in the way of the next one's.
  if (!reply.end && (*open)->ahead > 0 && transaction->current == open && !transaction->object) {
    reply.goes_on = true;
    transaction->next_row = confd::NextRow{reply.keys, next};
  }
  const int result = Answer(transaction, *open, std::move(reply));
  if (result != CONFD_OK) transaction->next_row.reset();
  return result;
}

int confd_data_reply_tag_value_array(confd_trans_ctx* tctx, const confd_tag_value_t* values, int n) {
  const auto transaction = Provider::Get().Find(tctx);
  if (transaction == nullptr) return CONFD_ERR;
  std::optional<OpenRequest>* const open = FindOpen(transaction, &transaction->object);
  if (open == nullptr) return CONFD_ERR;
  if (n < 0 || (values == nullptr && n > 0)) return Fail(CONFD_ERR_PROTOUSAGE, "the values are missing");
  confd_wire::ObjectReply reply;
  for (int i = 0; i < n; ++i) {
    confd_wire::TagValue& value = reply.values.emplace_back();
    value.tag = values[i].tag.tag;
    value.ns = values[i].tag.ns;
    if (!confd::ToWire(values[i].v, value.value)) {
      return Fail(CONFD_ERR_BADTYPE, "value " + std::to_string(i) + " has a type that cannot be sent");
    }
  }
  return Answer(transaction, *open, std::move(reply));
}

int confd_data_reply_not_found(confd_trans_ctx* tctx) {
  const auto transaction = Provider::Get().Find(tctx);
  if (transaction == nullptr) return CONFD_ERR;
  std::optional<OpenRequest>* const open = FindOpen(transaction, &transaction->object);
  return open != nullptr ? Answer(transaction, *open, confd_wire::NotFoundReply{}) : CONFD_ERR;
}

int confd_delayed_reply_error(confd_trans_ctx* tctx, const char* text) {
  const auto transaction = Provider::Get().Find(tctx);
  if (transaction == nullptr) return CONFD_ERR;
  std::optional<OpenRequest>* const open = FindOpen(transaction, AnyOpen(*transaction));
  if (open == nullptr) return CONFD_ERR;
  return Answer(transaction, *open,
                confd_wire::ErrorReply{0, text != nullptr ? text : "the provider reports an error"});
}
