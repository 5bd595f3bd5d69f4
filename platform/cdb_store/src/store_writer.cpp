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
  if (!creates.ok()) return creates.error();
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
  const auto identity = ReadMeta(txn.value().get(), store->env_->meta, kIdentityKey);
  if (!identity.ok()) return identity.error();
  const uint32_t number = UnpackIdentity(identity.value().value_or("")).value_or(Identity{}).txid.store;
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
  const Lookup<std::string> identity_record = ReadMeta(txn.get(), env_->meta, kIdentityKey);
  if (!identity_record.ok()) return identity_record.error();
  const std::optional<std::string>& stored = identity_record.value();
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
    const Lookup<std::string> version = ReadMeta(txn.get(), env_->meta, kModelKey);
    if (!version.ok()) return version.error();
    if (check.allows && version.value() != check.version) {
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
    const Lookup<std::string> present = ReadMeta(txn.get(), env_->meta, name);
    if (!present.ok()) return present.error();
    if (present.value() == value) continue;
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
  return Snapshot::Of(*env_, schema_, std::move(txn).value());
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
  if (auto status = txn.PutIdentity(settled); !status) return status;
  if (const int code = mdb_txn_commit(txn.txn_.release()); code != 0) {
    return StoreError("settle configuration store", path(), code);
  }
  identity_ = settled;
  return common::Ok();
}

common::Result<std::vector<LogRecord>> StoreWriter::ReadLog() const {
  const auto txn = env_->BeginRead();
  if (!txn) return txn.error();
  std::vector<LogRecord> records;
  const auto take = [&](MDB_cursor*, std::string_view key, std::string_view record) {
    if (key.size() != sizeof(uint64_t)) return MDB_CORRUPTED;
    records.push_back({LoadInt<uint64_t>(key), std::string(record)});
    return 0;
  };
  if (const int code = ForEachRecord(txn.value().get(), env_->log, "", take); code != 0) {
    return StoreError("read", "the log of the configuration store", code);
  }
  return records;
}

}  // namespace cdb_store
