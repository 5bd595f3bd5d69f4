#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cdb_store/diff.h"
#include "cdb_store/environment.h"
#include "cdb_store/schema.h"
#include "cdb_store/view.h"

namespace cdb_store {

/// Identity of a commit. Numbers rise by one with every commit that changes something.
struct Txid {
  uint32_t store = 0;  ///< random, set when the store was created; never 0
  uint64_t number = 0;
  friend bool operator==(const Txid&, const Txid&) = default;
};

/// What one record of the store says about itself as a whole.
struct Identity {
  Txid txid;
  uint64_t diff_of = 0;      ///< number of the commit that the difference is of; 0: settled
  uint64_t fingerprint = 0;  ///< of the schema that the rows are stored by
};

/// The state of one moment: running, pre_commit and the difference between them agree, whatever the server does
/// meanwhile. Short-lived: the store grows while old snapshots are held.
class Snapshot final {
 public:
  /// Fails when the store cannot say which commit `txn` shows.
  static common::Result<std::shared_ptr<Snapshot>> Of(const Environment& env, const Schema& schema, TxnHandle txn);

  [[nodiscard]] View Running() const { return {*schema_, txn_.get(), env_->running}; }
  /// The configuration before the last commit; equal to Running() after a settle or bulk commit.
  [[nodiscard]] View PreCommit() const { return {*schema_, txn_.get(), env_->pre_commit}; }
  [[nodiscard]] DiffView Diff() const { return {*schema_, txn_.get(), env_->diff}; }
  [[nodiscard]] const Txid& txid() const noexcept { return identity_.txid; }
  /// Number of the commit whose difference Diff() shows; 0 when it is settled.
  [[nodiscard]] uint64_t diff_of() const noexcept { return identity_.diff_of; }
  [[nodiscard]] const Schema& schema() const noexcept { return *schema_; }
  [[nodiscard]] MDB_txn* txn() const noexcept { return txn_.get(); }

 private:
  friend class StoreReader;
  Snapshot(const Environment& env, const Schema& schema, TxnHandle txn, const Identity& identity)
      : env_{&env}, schema_{&schema}, txn_{std::move(txn)}, identity_{identity} {}

  const Environment* env_;
  const Schema* schema_;
  TxnHandle txn_;
  Identity identity_;
};

/// Reads a store written by another process. One per process and store; never used after fork(2).
class StoreReader final {
 public:
  static common::Result<std::unique_ptr<StoreReader>> Open(const std::string& path);
  ~StoreReader();
  StoreReader(const StoreReader&) = delete;
  StoreReader& operator=(const StoreReader&) = delete;

  [[nodiscard]] const Schema& schema() const noexcept { return schema_; }
  /// Name of the server that wrote the store.
  [[nodiscard]] const std::string& primary() const noexcept { return primary_; }
  [[nodiscard]] const std::string& path() const noexcept { return env_->path(); }
  /// The state of this moment. The snapshot must not outlive the reader. Fails when the server has changed to another
  /// data model since Open().
  common::Result<std::shared_ptr<Snapshot>> Take();

 private:
  explicit StoreReader(std::unique_ptr<Environment> env) : env_{std::move(env)} {}

  std::unique_ptr<Environment> env_;
  Schema schema_;
  uint64_t fingerprint_ = 0;
  std::string primary_;
  std::shared_ptr<std::vector<TxnHandle>> idle_;  ///< reset transactions, for renewal
};

}  // namespace cdb_store
