#pragma once

#include <lmdb.h>

#include <optional>
#include <string>
#include <string_view>

#include "cdb_store/store_reader.h"

/// The records of the meta table that both sides of the store use.
namespace cdb_store {

inline constexpr const char* kFormatKey = "format";
inline constexpr const char* kSchemaKey = "schema";
inline constexpr const char* kPrimaryKey = "primary";
inline constexpr const char* kIdentityKey = "identity";
inline constexpr const char* kModelKey = "model";
inline constexpr const char* kOldFingerprintKey = "fingerprint";  ///< of the first format; part of the identity since

Lookup<std::string> ReadMeta(MDB_txn* txn, MDB_dbi meta, std::string_view key);
/// Returns nullopt for malformed bytes. The record of the first format has no fingerprint.
std::optional<Identity> UnpackIdentity(std::string_view bytes);
/// Fails also where the record is missing or malformed: every store has one.
common::Result<Identity> ReadIdentityRecord(MDB_txn* txn, MDB_dbi meta);
std::string PackIdentity(const Identity& identity);

}  // namespace cdb_store
