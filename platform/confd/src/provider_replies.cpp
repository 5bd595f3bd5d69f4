// Answers to callbacks, given inside them or later.
#include "client.h"
#include "provider.h"
#include "values.h"

using confd::Fail;
using confd::Page;
using confd::Provider;
using confd::Transaction;

namespace {

using TransactionPtr = std::shared_ptr<Transaction>;
using Call = Transaction::Call;

/// The transaction whose open callback an answer is for: one of `wanted`, or any for kNone. Null, with the last error
/// set, when none waits for the answer.
TransactionPtr FindOpen(const confd_trans_ctx* tctx, Call wanted) {
  TransactionPtr transaction = Provider::Get().Find(tctx);
  if (transaction == nullptr) return nullptr;
  const std::string name = "transaction " + std::to_string(tctx->thandle);
  switch (transaction->state) {
    case Transaction::State::kRunning:
      if (transaction->open != Call::kNone && (wanted == Call::kNone || wanted == transaction->open)) {
        return transaction;
      }
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

/// The callback is answered. An answer that comes later ends the page early: the callbacks after it run when the server
/// asks for the next one, and not inside the application's call. A connection that is gone is an error of the
/// transaction here.
int Answered(const TransactionPtr& transaction) {
  transaction->open = Call::kNone;
  if (!transaction->is_delayed) return CONFD_OK;
  const std::shared_ptr<confd::Worker> worker = transaction->worker;
  const int result = transaction->SendPage();
  if (result != CONFD_EOF) return result;
  Provider::Get().EndAll(*transaction->daemon, worker.get(), Transaction::State::kConnectionGone);
  return Fail(CONFD_ERR_BADSTATE,
              "transaction " + std::to_string(transaction->context.thandle) + ": its connection is gone");
}

/// The row's object has been answered: the key after it is next.
int RowIsDone(const TransactionPtr& transaction) {
  transaction->page->reply.next = transaction->next_row->next;
  transaction->next_row.reset();
  return Answered(transaction);
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
  const TransactionPtr transaction = FindOpen(tctx, Call::kGetNext);
  if (transaction == nullptr) return CONFD_ERR;
  if (keys == nullptr && n == -1) {
    transaction->page->reply.end = true;
    return Answered(transaction);
  }
  confd::NextRow row;
  row.next = next;
  const cdb_store::Schema& schema = *confd::Client::Get().schema();
  if (const int result = ToKeys(schema, *transaction->page->list, keys, n, row.keys); result != CONFD_OK) {
    return result;
  }
  transaction->next_row = std::move(row);
  return Answered(transaction);
}

int confd_data_reply_tag_value_array(confd_trans_ctx* tctx, const confd_tag_value_t* values, int n) {
  const TransactionPtr transaction = FindOpen(tctx, Call::kGetObject);
  if (transaction == nullptr) return CONFD_ERR;
  if (n < 0 || (values == nullptr && n > 0)) return Fail(CONFD_ERR_PROTOUSAGE, "the values are missing");
  confd_wire::Row row;
  row.values.resize(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    confd_wire::TagValue& value = row.values[static_cast<size_t>(i)];
    value.tag = values[i].tag.tag;
    value.ns = values[i].tag.ns;
    if (!confd::ToWire(values[i].v, value.value)) {
      return Fail(CONFD_ERR_BADTYPE, "value " + std::to_string(i) + " has a type that cannot be sent");
    }
  }
  row.keys = transaction->next_row->keys;
  if (const size_t size = Page::SizeOf(row); !Page::Fits(size)) {
    return Fail(CONFD_ERR_PROTOUSAGE, "an answer of " + std::to_string(size) + " bytes is too long");
  }
  if (!transaction->page->Add(row)) transaction->left_over = std::move(row);
  return RowIsDone(transaction);
}

int confd_data_reply_not_found(confd_trans_ctx* tctx) {
  const TransactionPtr transaction = FindOpen(tctx, Call::kGetObject);
  return transaction != nullptr ? RowIsDone(transaction) : CONFD_ERR;
}

int confd_delayed_reply_error(confd_trans_ctx* tctx, const char* text) {
  const TransactionPtr transaction = FindOpen(tctx, Call::kNone);
  if (transaction == nullptr) return CONFD_ERR;
  transaction->page->error = text != nullptr ? text : "the provider reports an error";
  return Answered(transaction);
}
