#pragma once

#include <lmdb.h>

#include <optional>
#include <string>
#include <string_view>

#include "cdb_store/store_reader.h"

/// The records of the meta table that both sides of the store use.
namespace cdb_store {

inline constexpr const char* kSchemaKey = "schema";
inline constexpr const char* kPrimaryKey = "primary";
inline constexpr const char* kIdentityKey = "identity";

std::optional<std::string> ReadMeta(MDB_txn* txn, MDB_dbi meta, std::string_view key);
/// All zero when there is none.
Identity ReadIdentityRecord(MDB_txn* txn, MDB_dbi meta);
std::string PackIdentity(const Identity& identity);

}  // namespace cdb_store
