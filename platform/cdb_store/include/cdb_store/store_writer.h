#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cdb_store/store_reader.h"
#include "common/unique_fd.h"

namespace cdb_store {

enum class CommitKind {
  kNormal,
  kBulk  ///< running and pre_commit move together and the difference stays empty: nothing to deliver (first load)
};

class StoreWriter;

/// One transaction of the server: changes running and remembers what changed. Aborted by its destructor unless
/// committed. Only one at a time. Errors leave it usable only for being dropped.
///
/// `keys` as in View. Changes of one record add up: what is changed back is no change.
class WriteTxn final {
 public:
  WriteTxn(WriteTxn&&) noexcept = default;
  WriteTxn& operator=(WriteTxn&&) noexcept = default;
  ~WriteTxn() = default;

  /// Running as this transaction has made it so far.
  [[nodiscard]] const View& Running() const noexcept { return running_; }
  /// Running before this transaction, record by record: the old value of a changed record is kept.
  [[nodiscard]] Lookup<std::string> OldRow(const Node& node, std::string_view keys) const;

  /// Makes an instance of a list, leaf-list or presence container; nothing when it exists. The instance above must
  /// exist (containers without presence need nothing).
  common::Status Create(const Node& node, std::string_view keys);
  /// Sets a leaf that is no key. The instance above must exist.
  common::Status SetLeaf(const Node& leaf, std::string_view keys, std::string_view stored);
  /// Removes what is at and below: a leaf, an instance, the content of a container, or (with the parent's keys) every
  /// instance of a list or leaf-list. Absent is no error.
  common::Status Delete(const Node& node, std::string_view keys);

  /// The net changes so far, in record key order. `with_counts`: count records too.
  [[nodiscard]] common::Result<std::vector<OwnedChange>> Changes(bool with_counts = false) const;

  /// Puts a record of the log, in place of one with the same id.
  common::Status PutLog(uint64_t id, std::string_view record);

  /// The identity that a commit of changes would get.
  [[nodiscard]] Txid NextTxid() const;
  /// Makes everything durable at once: running, pre_commit, the difference, counts, identity, meta and log. The new
  /// identity, or the old one when no record of running changed. Ends the transaction, on failure too.
  common::Result<Txid> Commit(CommitKind kind = CommitKind::kNormal);

 private:
  friend class StoreWriter;
  WriteTxn(StoreWriter& store, TxnHandle txn);

  /// A record of running.
  [[nodiscard]] Lookup<std::string_view> GetRow(std::string_view record_key) const;
  common::Status PutIdentity(const Identity& identity);
  common::Status PutRecord(std::string_view key, std::optional<std::string_view> value);
  common::Status AddToCount(const Node& list, std::string_view parent_keys, int delta);
  common::Status DeleteRows(const Node& node, std::string_view keys);
  common::Status CatchUpPreCommit();
  common::Status RecordChanges(CommitKind kind, Identity& identity);

  StoreWriter* store_;
  TxnHandle txn_;
  View running_;
  std::map<std::string, std::optional<std::string>, std::less<>> old_;  ///< first value of each touched record
  bool other_changes_ = false;                                          ///< of identity or log
};

/// What the server says of its data model beyond what the schema has of it.
struct ModelCheck {
  std::string version;  ///< another one whenever a word of the model changes
  /// Whether the model allows the configuration; the error names the node in `object`. Asked when the configuration was
  /// stored under another version; null: not asked.
  std::function<common::Status(const View&)> allows;
};

struct LogRecord {
  uint64_t id = 0;
  std::string record;
  friend bool operator==(const LogRecord&, const LogRecord&) = default;
};

/// The server's side of the store. One per directory, held by a lock file.
class StoreWriter final {
 public:
  /// Opens the store for `schema`, or creates it in a directory that never held one. A database that existed and is
  /// gone, empty, damaged or replaced by another one is refused: an empty configuration opens what was guarded. Rows
  /// written for another schema are carried over, in one transaction, when all their nodes exist in the new one with
  /// the same kind, type and keys and `check` allows the whole; else it fails, naming the first that does not, and the
  /// store is left as it is. `primary` is the server's name for clients.
  static common::Result<std::unique_ptr<StoreWriter>> Open(const StoreOptions& options, Schema schema,
                                                           const std::string& primary, const ModelCheck& check = {});

  [[nodiscard]] const Schema& schema() const noexcept { return schema_; }
  [[nodiscard]] const std::string& path() const noexcept { return env_->path(); }
  [[nodiscard]] bool created() const noexcept { return created_; }  ///< by this Open()
  [[nodiscard]] const Txid& txid() const noexcept { return identity_.txid; }
  /// The rows were stored for another schema and have been carried over to this one. The log was not touched.
  [[nodiscard]] bool migrated() const noexcept { return migrated_; }
  common::Result<std::shared_ptr<Snapshot>> Take();
  common::Result<WriteTxn> Begin();

  /// Brings pre_commit up to date and empties the difference, in a transaction of its own, when the difference holds at
  /// least `min_changes` records. Once the last commit is delivered only. Saves the next commit that work.
  common::Status Settle(size_t min_changes);
  /// Frees reader slots of dead clients. Call it when a client disconnects and before a commit.
  int ReleaseDeadReaders() const { return env_->ReleaseDeadReaders(); }

  /// The whole log, ids rising.
  [[nodiscard]] common::Result<std::vector<LogRecord>> ReadLog() const;

 private:
  friend class WriteTxn;
  explicit StoreWriter(std::unique_ptr<Environment> env) : env_{std::move(env)} {}
  common::Status Adopt(const std::string& primary, const ModelCheck& check);

  common::UniqueFd lock_;  ///< outlives the environment
  std::unique_ptr<Environment> env_;
  Schema schema_;
  Identity identity_;
  bool created_ = false;
  bool migrated_ = false;
};

}  // namespace cdb_store
