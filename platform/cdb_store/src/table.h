#pragma once

#include <lmdb.h>

#include <optional>
#include <string_view>

#include "cdb_store/environment.h"

/// Records of one table in a transaction. Results are LMDB's codes; views are valid until the transaction writes.
namespace cdb_store {

/// Puts the record, or removes it; one that is not there is no error.
inline int SetRecord(MDB_txn* txn, MDB_dbi dbi, std::string_view record_key, std::optional<std::string_view> value) {
  MDB_val key = ToVal(record_key);
  if (value) {
    MDB_val data = ToVal(*value);
    return mdb_put(txn, dbi, &key, &data, 0);
  }
  const int code = mdb_del(txn, dbi, &key, nullptr);
  return code == MDB_NOTFOUND ? 0 : code;
}

/// Calls `visit(cursor, key, data)` for every record of the table whose key begins with `prefix`; stops at a non-zero
/// answer. `visit` may delete the record through the cursor.
template <class Visit>
int ForEachRecord(MDB_txn* txn, MDB_dbi dbi, std::string_view prefix, Visit visit) {
  MDB_cursor* raw = nullptr;
  if (const int code = mdb_cursor_open(txn, dbi, &raw); code != 0) return code;
  const CursorHandle cursor(raw);
  MDB_val key = ToVal(prefix);
  MDB_val data{};
  int code = mdb_cursor_get(raw, &key, &data, prefix.empty() ? MDB_FIRST : MDB_SET_RANGE);
  while (code == 0 && FromVal(key).starts_with(prefix)) {
    if (code = visit(raw, FromVal(key), FromVal(data)); code != 0) return code;
    code = mdb_cursor_get(raw, &key, &data, MDB_NEXT);
  }
  return code == MDB_NOTFOUND ? 0 : code;
}

}  // namespace cdb_store
