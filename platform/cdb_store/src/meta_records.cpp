#include "meta_records.h"

#include "cdb_store/value.h"

namespace cdb_store {

std::optional<std::string> ReadMeta(MDB_txn* txn, MDB_dbi meta, std::string_view key) {
  MDB_val key_val = ToVal(key);
  MDB_val data{};
  if (mdb_get(txn, meta, &key_val, &data) != 0) return std::nullopt;
  return std::string(FromVal(data));
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

Identity ReadIdentityRecord(MDB_txn* txn, MDB_dbi meta) {
  const std::optional<std::string> bytes = ReadMeta(txn, meta, kIdentityKey);
  return bytes ? UnpackIdentity(*bytes).value_or(Identity{}) : Identity{};
}

std::string PackIdentity(const Identity& identity) {
  return StoreInt(identity.txid.store) + StoreInt(identity.txid.number) + StoreInt(identity.diff_of) +
         StoreInt(identity.fingerprint);
}

}  // namespace cdb_store
