#pragma once

#include <lmdb.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "cdb_store/lookup.h"
#include "common/result.h"

namespace cdb_store {

inline constexpr size_t kDefaultMapSize = size_t{1} << 30;
inline constexpr const char* kStoreFormat = "cdb-store 2";
inline constexpr const char* kFirstStoreFormat = "cdb-store 1";  ///< the server carries it over

/// An LMDB read or write transaction; aborted unless committed. Wraps `mdb_txn_abort`.
struct AbortTxn {
  void operator()(MDB_txn* txn) const noexcept { mdb_txn_abort(txn); }
};
using TxnHandle = std::unique_ptr<MDB_txn, AbortTxn>;

struct CloseCursor {
  void operator()(MDB_cursor* cursor) const noexcept { mdb_cursor_close(cursor); }
};
using CursorHandle = std::unique_ptr<MDB_cursor, CloseCursor>;

struct StoreOptions {
  std::string path;                   ///< an existing directory
  size_t map_size = kDefaultMapSize;  ///< fixed upper bound of the file, bytes
  bool durable = true;                ///< false: a crash of the machine may lose the last commits (tests, benchmarks)
  std::string identity_file{};        ///< names the database that was last here; "": PATH/identity
  bool new_database = false;          ///< begin with an empty one where the former one is gone or empty
};

/// The open LMDB environment with its sub-databases. One per process and store; never used after fork(2).
class Environment final {
 public:
  /// For the one server, which holds the store's lock. A file that is damaged, foreign or of another version fails and
  /// is left as it is.
  static common::Result<std::unique_ptr<Environment>> OpenForWriting(const StoreOptions& options);
  /// Creates an empty database with its tables in a directory that has none.
  static common::Result<std::unique_ptr<Environment>> Create(const StoreOptions& options);
  /// For clients: the store must exist.
  static common::Result<std::unique_ptr<Environment>> OpenForReading(const std::string& path);
  ~Environment();
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  [[nodiscard]] MDB_env* handle() const noexcept { return env_; }
  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  /// Made by Create().
  [[nodiscard]] bool is_new() const noexcept { return mode_ == Mode::kCreate; }

  MDB_dbi running = 0;
  MDB_dbi pre_commit = 0;
  MDB_dbi diff = 0;
  MDB_dbi meta = 0;
  MDB_dbi log = 0;

  /// A read-only transaction.
  common::Result<TxnHandle> BeginRead() const;
  /// The write transaction; waits for nobody, since only the server writes.
  common::Result<TxnHandle> BeginWrite() const;
  /// Frees the reader slots of dead processes (the file would grow with every commit otherwise). How many there were.
  int ReleaseDeadReaders() const;

 private:
  enum class Mode : uint8_t { kRead, kWrite, kCreate };
  Environment(std::string path, Mode mode) : path_{std::move(path)}, mode_{mode} {}
  common::Status Open(unsigned flags, size_t map_size);
  common::Status OpenTables();
  common::Status CheckFormat(MDB_txn* txn) const;
  /// The error of a file that is not usable, with what the server's operator can do.
  [[nodiscard]] common::Error Unusable(std::string_view reason) const;

  std::string path_;
  Mode mode_;
  MDB_env* env_ = nullptr;
};

/// An error from an LMDB return code.
common::Error StoreError(std::string operation, std::string object, int code);

/// Reads one record of a table. The bytes are valid until the transaction ends or writes.
inline Lookup<std::string_view> ReadRecord(MDB_txn* txn, MDB_dbi dbi, std::string_view record_key);

inline MDB_val ToVal(std::string_view bytes) { return {bytes.size(), const_cast<char*>(bytes.data())}; }
inline std::string_view FromVal(const MDB_val& val) { return {static_cast<const char*>(val.mv_data), val.mv_size}; }

inline Lookup<std::string_view> ReadRecord(MDB_txn* txn, MDB_dbi dbi, std::string_view record_key) {
  MDB_val key = ToVal(record_key);
  MDB_val data{};
  const int code = mdb_get(txn, dbi, &key, &data);
  if (code == 0) return FromVal(data);
  if (code == MDB_NOTFOUND) return std::nullopt;
  return StoreError("read", "configuration store", code);
}

}  // namespace cdb_store
