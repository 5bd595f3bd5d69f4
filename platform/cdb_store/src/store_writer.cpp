#include "cdb_store/store_writer.h"

#include <sys/random.h>

#include <utility>

#include "meta_records.h"
#include "migration.h"
#include "store_files.h"
#include "table.h"

namespace cdb_store {
namespace {

uint32_t NewStoreNumber() {
  uint32_t number = 0;
  while (number == 0) {
    if (getrandom(&number, sizeof number, 0) != sizeof number) number = 0;
  }
  return number;
}

}  // namespace

common::Result<std::unique_ptr<StoreWriter>> StoreWriter::Open(const StoreOptions& options, Schema schema,
                                                               const std::string& primary, const ModelCheck& check) {
  const StoreFiles files(options);
  auto lock = files.Lock();
  if (!lock) return lock.error();
  const auto creates = files.NeedsCreation();
  if (!creates) return creates.error();
  if (creates.value()) {
    const auto draft = files.PrepareDraft();
    if (!draft) return draft.error();
    StoreOptions draft_options = options;
    draft_options.path = draft.value();
    auto env = Environment::Create(draft_options);
    if (!env) return env.error();
    StoreWriter fresh(std::move(env).value());
    fresh.schema_ = schema;
    if (auto status = fresh.Adopt(primary, check); !status) return status.error();
    fresh.env_.reset();
    if (auto status = files.PublishDraft(); !status) return status.error();
  }
  auto env = Environment::OpenForWriting(options);
  if (!env) return env.error();
  std::unique_ptr<StoreWriter> store(new StoreWriter(std::move(env).value()));
  store->lock_ = std::move(lock).value();
  store->created_ = creates.value();
  store->schema_ = std::move(schema);
  const auto txn = store->env_->BeginRead();
  if (!txn) return txn.error();
  const uint32_t number = ReadIdentityRecord(txn.value().get(), store->env_->meta).txid.store;
  if (number != 0) {
    if (auto status = files.CheckIdentity(number); !status) return status.error();
  }
  if (auto status = store->Adopt(primary, check); !status) return status.error();
  if (auto status = files.WriteIdentity(number); !status) return status.error();
  return store;
}

// Of a database that is being created nothing is known yet: its tables are empty.
common::Status StoreWriter::Adopt(const std::string& primary, const ModelCheck& check) {
  constexpr const char* kOperation = "open configuration store";
  auto begun = env_->BeginWrite();
  if (!begun) return begun.error();
  TxnHandle txn = std::move(begun).value();
  const std::optional<std::string> stored = ReadMeta(txn.get(), env_->meta, kIdentityKey);
  const std::optional<Identity> known = stored ? UnpackIdentity(*stored) : Identity{};
  const bool complete = env_->is_new() ? !stored : known && known->txid.store != 0;
  if (!complete) {
    return common::Error{
        kOperation, path(),
        std::string("data.mdb is damaged (what names its state is gone)") + kNothingChanged + kBeginAnew};
  }
  Identity identity = *known;
  const uint64_t fingerprint = schema_.Fingerprint();
  if (identity.txid.store == 0) {
    identity.txid.store = NewStoreNumber();
  } else {
    if (identity.fingerprint != fingerprint) {
      if (auto status = Migrate(txn.get(), *env_, schema_); !status) return status;
      identity.diff_of = 0;
      migrated_ = true;
    }
    if (check.allows && ReadMeta(txn.get(), env_->meta, kModelKey) != check.version) {
      if (auto allowed = check.allows(View(schema_, txn.get(), env_->running)); !allowed) {
        return common::Error{kOperation, path(),
                             "holds what the data model does not allow: " + allowed.error().object + ": " +
                                 allowed.error().reason + "; nothing was changed"};
      }
    }
  }
  identity.fingerprint = fingerprint;
  const std::pair<const char*, std::optional<std::string>> records[] = {
      {kFormatKey, kStoreFormat}, {kOldFingerprintKey, std::nullopt}, {kSchemaKey, schema_.Serialise()},
      {kPrimaryKey, primary},     {kModelKey, check.version},         {kIdentityKey, PackIdentity(identity)}};
  bool changed = false;
  for (const auto& [name, value] : records) {
    if (ReadMeta(txn.get(), env_->meta, name) == value) continue;
    changed = true;
    if (const int code = SetRecord(txn.get(), env_->meta, name, value); code != 0) {
      return StoreError("write configuration store", path(), code);
    }
  }
  if (changed) {
    if (const int code = mdb_txn_commit(txn.release()); code != 0) {
      return StoreError("write configuration store", path(), code);
    }
  }
  identity_ = identity;
  return common::Ok();
}

common::Result<std::shared_ptr<Snapshot>> StoreWriter::Take() {
  auto txn = env_->BeginRead();
  if (!txn) return txn.error();
  return std::make_shared<Snapshot>(*env_, schema_, std::move(txn).value());
}

common::Result<WriteTxn> StoreWriter::Begin() {
  auto txn = env_->BeginWrite();
  if (!txn) return txn.error();
  return WriteTxn(*this, std::move(txn).value());
}

common::Status StoreWriter::Settle(size_t min_changes) {
  if (identity_.diff_of == 0) return common::Ok();
  auto begun = Begin();
  if (!begun) return begun.error();
  WriteTxn txn = std::move(begun).value();
  MDB_stat stat{};
  if (const int code = mdb_stat(txn.txn_.get(), env_->diff, &stat); code != 0) {
    return StoreError("settle configuration store", path(), code);
  }
  if (stat.ms_entries < min_changes) return common::Ok();
  if (auto status = txn.CatchUpPreCommit(); !status) return status;
  Identity settled = identity_;
  settled.diff_of = 0;
  if (auto status = txn.PutMeta(kIdentityKey, PackIdentity(settled)); !status) return status;
  if (const int code = mdb_txn_commit(txn.txn_.release()); code != 0) {
    return StoreError("settle configuration store", path(), code);
  }
  identity_ = settled;
  return common::Ok();
}

std::optional<std::string> StoreWriter::GetMeta(const std::string& key) const {
  const auto txn = env_->BeginRead();
  return txn ? ReadMeta(txn.value().get(), env_->meta, key) : std::nullopt;
}

std::optional<std::string> StoreWriter::GetLog(uint64_t id) const {
  const auto txn = env_->BeginRead();
  return txn ? ReadMeta(txn.value().get(), env_->log, StoreInt(id)) : std::nullopt;
}

std::vector<uint64_t> StoreWriter::LogIds() const {
  std::vector<uint64_t> ids;
  const auto txn = env_->BeginRead();
  MDB_cursor* raw = nullptr;
  if (!txn || mdb_cursor_open(txn.value().get(), env_->log, &raw) != 0) return ids;
  const CursorHandle cursor(raw);
  MDB_val key{};
  MDB_val data{};
  while (mdb_cursor_get(raw, &key, &data, MDB_NEXT) == 0) ids.push_back(LoadInt<uint64_t>(FromVal(key)));
  return ids;
}

}  // namespace cdb_store
