#include "meta_records.h"

#include "cdb_store/value.h"

namespace cdb_store {

std::optional<std::string> ReadMeta(MDB_txn* txn, MDB_dbi meta, std::string_view key) {
  MDB_val key_val = ToVal(key);
  MDB_val data{};
  if (mdb_get(txn, meta, &key_val, &data) != 0) return std::nullopt;
  return std::string(FromVal(data));
}

Identity ReadIdentityRecord(MDB_txn* txn, MDB_dbi meta) {
  MDB_val key = ToVal(kIdentityKey);
  MDB_val data{};
  Identity identity;
  if (mdb_get(txn, meta, &key, &data) != 0 || data.mv_size != 28) return identity;
  const std::string_view bytes = FromVal(data);
  identity.txid.store = LoadInt<uint32_t>(bytes);
  identity.txid.number = LoadInt<uint64_t>(bytes.substr(4));
  identity.diff_of = LoadInt<uint64_t>(bytes.substr(12));
  identity.fingerprint = LoadInt<uint64_t>(bytes.substr(20));
  return identity;
}

std::string PackIdentity(const Identity& identity) {
  return StoreInt(identity.txid.store) + StoreInt(identity.txid.number) + StoreInt(identity.diff_of) +
         StoreInt(identity.fingerprint);
}

}  // namespace cdb_store
