#include "meta_records.h"

#include "cdb_store/value.h"

namespace cdb_store {

Lookup<std::string> ReadMeta(MDB_txn* txn, MDB_dbi meta, std::string_view key) {
  const Lookup<std::string_view> record = ReadRecord(txn, meta, key);
  if (!record.ok()) return record.error();
  if (!record.value()) return std::nullopt;
  return std::string(*record.value());
}

std::optional<Identity> UnpackIdentity(std::string_view bytes) {
  constexpr size_t kFirstSize = 20;
  if (bytes.size() != kFirstSize && bytes.size() != kFirstSize + sizeof(uint64_t)) return std::nullopt;
  Identity identity;
  identity.txid.store = LoadInt<uint32_t>(bytes);
  identity.txid.number = LoadInt<uint64_t>(bytes.substr(4));
  identity.diff_of = LoadInt<uint64_t>(bytes.substr(12));
  if (bytes.size() > kFirstSize) identity.fingerprint = LoadInt<uint64_t>(bytes.substr(kFirstSize));
  return identity;
}

common::Result<Identity> ReadIdentityRecord(MDB_txn* txn, MDB_dbi meta) {
  const Lookup<std::string_view> bytes = ReadRecord(txn, meta, kIdentityKey);
  if (!bytes.ok()) return bytes.error();
  const std::optional<Identity> identity = bytes.value() ? UnpackIdentity(*bytes.value()) : std::nullopt;
  if (!identity) return StoreError("read", "the identity of the configuration store", MDB_CORRUPTED);
  return *identity;
}

std::string PackIdentity(const Identity& identity) {
  return StoreInt(identity.txid.store) + StoreInt(identity.txid.number) + StoreInt(identity.diff_of) +
         StoreInt(identity.fingerprint);
}

}  // namespace cdb_store
