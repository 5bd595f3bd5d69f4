#include "provider.h"

#include <algorithm>
#include <utility>

namespace confd {
namespace {

constexpr size_t kPageHead = 64;  // most bytes of a page without rows

}  // namespace

const confd_data_cbs* Daemon::FindCallbacks(const std::string& callpoint) const {
  const auto same = [&](const confd_data_cbs& callbacks) { return callpoint == callbacks.callpoint; };
  const auto found = std::ranges::find_if(data_callbacks, same);
  return found == data_callbacks.end() ? nullptr : &*found;
}

std::shared_ptr<Worker> Daemon::FindWorker(int fd) const {
  const auto same = [&](const auto& worker) { return worker->connection->fd() == fd; };
  const auto found = std::ranges::find_if(workers, same);
  return found == workers.end() ? nullptr : *found;
}

size_t Page::SizeOf(const confd_wire::Row& row) {
  constexpr size_t kHead = 16;  // of the row, and of a value with its tag
  size_t size = kHead;
  for (const confd_wire::Value& key : row.keys) size += kHead + key.stored.size();
  for (const confd_wire::TagValue& value : row.values) size += kHead + value.value.stored.size();
  return size;
}

bool Page::Fits(size_t row_size) { return kPageHead + row_size <= confd_wire::kMaxMessage; }

bool Page::Add(confd_wire::Row& row) {
  const size_t size = size_ + SizeOf(row);
  if (!Fits(size)) return false;
  size_ = size;
  reply.rows.push_back(std::move(row));
  return true;
}

int Transaction::SendPage() {
  const Page done = *std::exchange(page, std::nullopt);
  open = Call::kNone;
  is_delayed = false;
  const std::string packet = done.error ? confd_wire::Encode(confd_wire::ReadFailed{done.reply.request, *done.error})
                                        : confd_wire::Encode(done.reply);
  return worker->connection->Send(packet);
}

Provider& Provider::Get() {
  static auto* const provider = new Provider;
  return *provider;
}

std::shared_ptr<Daemon> Provider::NewDaemon(const char* name) {
  auto daemon = std::make_shared<Daemon>();
  daemon->name = name != nullptr ? name : "";
  daemon->context.name = daemon->name.c_str();
  daemon->context.internal = reinterpret_cast<confd_daemon_internal*>(daemon.get());
  daemons_[&daemon->context] = daemon;
  return daemon;
}

std::shared_ptr<Daemon> Provider::Find(const confd_daemon_ctx* context) {
  const auto found = daemons_.find(context);
  if (found != daemons_.end()) return found->second;
  Fail(CONFD_ERR_BADSTATE, "no such daemon context: it was released, or never made");
  return nullptr;
}

void Provider::Release(const std::shared_ptr<Daemon>& daemon) {
  daemon->released = true;
  EndAll(*daemon, nullptr, Transaction::State::kDaemonReleased);
  daemon->control.reset();
  daemon->workers.clear();
  daemons_.erase(&daemon->context);
}

std::shared_ptr<Transaction> Provider::NewTransaction(const std::shared_ptr<Daemon>& daemon, int thandle) {
  if (const auto old = FindRunning(*daemon, thandle)) End(old, Transaction::State::kFinished);
  auto transaction = std::make_shared<Transaction>();
  transaction->daemon = daemon;
  transaction->context.dx = &daemon->context;
  transaction->context.thandle = thandle;
  transaction->context.internal = reinterpret_cast<confd_trans_internal*>(transaction.get());
  transactions_[&transaction->context] = transaction;
  running_[{daemon.get(), thandle}] = transaction;
  return transaction;
}

std::shared_ptr<Transaction> Provider::Find(const confd_trans_ctx* context) {
  const auto found = transactions_.find(context);
  if (found != transactions_.end()) return found->second;
  Fail(CONFD_ERR_BADSTATE, "no such transaction context: it ended long ago, or never was");
  return nullptr;
}

std::shared_ptr<Transaction> Provider::FindRunning(const Daemon& daemon, int thandle) {
  const auto found = running_.find({&daemon, thandle});
  return found == running_.end() ? nullptr : found->second;
}

void Provider::End(const std::shared_ptr<Transaction>& transaction, Transaction::State state) {
  if (transaction->state != Transaction::State::kRunning) return;
  transaction->state = state;
  running_.erase({transaction->daemon.get(), transaction->context.thandle});
  transaction->is_owed = transaction->is_delayed;
  transaction->page.reset();
  transaction->open = Transaction::Call::kNone;
  transaction->is_delayed = false;
  transaction->next_row.reset();
  transaction->left_over.reset();
  transaction->worker.reset();
  if (!transaction->is_owed) Quarantine(transaction);
}

void Provider::EndAll(const Daemon& daemon, const Worker* worker, Transaction::State state) {
  std::vector<std::shared_ptr<Transaction>> ending;
  for (const auto& [key, transaction] : running_) {
    const bool same_worker = worker == nullptr || transaction->worker.get() == worker;
    if (key.first == &daemon && same_worker) ending.push_back(transaction);
  }
  for (const auto& transaction : ending) End(transaction, state);
}

void Provider::Settle(const std::shared_ptr<Transaction>& transaction) {
  if (!transaction->is_owed) return;
  transaction->is_owed = false;
  Quarantine(transaction);
}

void Provider::Quarantine(const std::shared_ptr<Transaction>& transaction) {
  quarantine_.push_back(&transaction->context);
  if (quarantine_.size() <= kQuarantine) return;
  transactions_.erase(quarantine_.front());
  quarantine_.pop_front();
}

}  // namespace confd
