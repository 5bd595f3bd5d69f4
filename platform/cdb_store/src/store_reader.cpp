#include "cdb_store/store_reader.h"

#include <utility>

#include "meta_records.h"

namespace cdb_store {
namespace {

constexpr size_t kIdleTransactions = 2;

}  // namespace

common::Result<std::shared_ptr<Snapshot>> Snapshot::Of(const Environment& env, const Schema& schema, TxnHandle txn) {
  const common::Result<Identity> identity = ReadIdentityRecord(txn.get(), env.meta);
  if (!identity) return identity.error();
  return std::shared_ptr<Snapshot>(new Snapshot(env, schema, std::move(txn), identity.value()));
}

common::Result<std::unique_ptr<StoreReader>> StoreReader::Open(const std::string& path) {
  auto env = Environment::OpenForReading(path);
  if (!env) return env.error();
  std::unique_ptr<StoreReader> reader(new StoreReader(std::move(env).value()));
  reader->idle_ = std::make_shared<std::vector<TxnHandle>>();
  auto txn = reader->env_->BeginRead();
  if (!txn) return txn.error();
  const auto bytes = ReadMeta(txn.value().get(), reader->env_->meta, kSchemaKey);
  if (!bytes.ok()) return bytes.error();
  if (!bytes.value()) return common::Error{"open configuration store", path, "holds no schema"};
  auto schema = Schema::Parse(*bytes.value());
  if (!schema) return schema.error();
  reader->schema_ = std::move(schema).value();
  reader->fingerprint_ = reader->schema_.Fingerprint();
  const auto primary = ReadMeta(txn.value().get(), reader->env_->meta, kPrimaryKey);
  if (!primary.ok()) return primary.error();
  reader->primary_ = primary.value().value_or("");
  return reader;
}

common::Result<std::shared_ptr<Snapshot>> StoreReader::Take() {
  TxnHandle txn;
  while (txn == nullptr && !idle_->empty()) {
    txn = std::move(idle_->back());
    idle_->pop_back();
    if (mdb_txn_renew(txn.get()) != 0) txn.reset();
  }
  if (txn == nullptr) {
    auto fresh = env_->BeginRead();
    if (!fresh) return fresh.error();
    txn = std::move(fresh).value();
  }
  const auto give_back = [idle = idle_](Snapshot* snapshot) {
    TxnHandle done = std::move(snapshot->txn_);
    delete snapshot;
    if (idle->size() >= kIdleTransactions) return;
    mdb_txn_reset(done.get());
    idle->push_back(std::move(done));
  };
  const common::Result<Identity> identity = ReadIdentityRecord(txn.get(), env_->meta);
  if (!identity) return identity.error();
  std::shared_ptr<Snapshot> snapshot(new Snapshot(*env_, schema_, std::move(txn), identity.value()), give_back);
  if (identity.value().fingerprint == fingerprint_) return snapshot;
  return common::Error{"read configuration store", path(), "the server has another data model now: connect again"};
}

StoreReader::~StoreReader() { idle_->clear(); }

}  // namespace cdb_store
