#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cdb_store/environment.h"
#include "cdb_store/instance_key.h"
#include "cdb_store/schema.h"

namespace cdb_store {

/// One changed record of a commit, net: the old and new row differ, and at least one of them exists. Count records are
/// among them (ParseRecordKey() tells).
struct Change {
  std::string_view key;  ///< record key
  std::optional<std::string_view> old_row, new_row;
};

/// As Change, owning its bytes.
struct OwnedChange {
  std::string key;
  std::optional<std::string> old_row, new_row;
  [[nodiscard]] Change view() const { return {key, old_row, new_row}; }
};

std::string PackChange(const Change& change);
/// Views point into `packed`. Nothing when malformed.
std::optional<Change> UnpackChange(std::string_view key, std::string_view packed);

/// What the last commit changed, as a transaction sees it; same lifetime rules as View. A read that the store cannot
/// serve, or that finds a malformed change, is an error.
class DiffView final {
 public:
  DiffView(const Schema& schema, MDB_txn* txn, MDB_dbi dbi) : schema_{&schema}, txn_{txn}, dbi_{dbi} {}

  [[nodiscard]] Lookup<Change> Get(const Node& node, std::string_view keys) const;
  [[nodiscard]] const Schema& schema() const noexcept { return *schema_; }
  [[nodiscard]] MDB_txn* txn() const noexcept { return txn_; }
  [[nodiscard]] MDB_dbi dbi() const noexcept { return dbi_; }

 private:
  const Schema* schema_;
  MDB_txn* txn_;
  MDB_dbi dbi_;
};

/// Walks the changes in record key order: by node in schema order, then by keys; count records last.
class DiffCursor final {
 public:
  explicit DiffCursor(const DiffView& diff);
  /// The first change whose record key is not below `record_key` ("" for the first of all). Nothing past the end.
  [[nodiscard]] Lookup<Change> Seek(std::string_view record_key);
  [[nodiscard]] Lookup<Change> Next();

 private:
  CursorHandle cursor_;
  int open_error_ = 0;  ///< LMDB's code if there is no cursor
};

/// What a subscription looks at: a node, and the keys of the first lists on the way to it when the path named them.
struct SubscriptionTarget {
  NodeId node = 0;
  std::string keys;  ///< encoded, from the top down without a gap; may be empty
};

/// The change is at or below the target, or deletes an instance above it. False for count records.
bool Triggers(const Schema& schema, const SubscriptionTarget& target, const Change& change);

}  // namespace cdb_store
