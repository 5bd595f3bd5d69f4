#pragma once

#include <lmdb.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "cdb_store/environment.h"
#include "cdb_store/instance_key.h"
#include "cdb_store/packed_row.h"
#include "cdb_store/schema.h"

namespace cdb_store {

/// One configuration (running or before the commit) as a transaction sees it. Cheap to copy; lives no longer than the
/// transaction. Views handed out point into the store: valid until the transaction ends or writes.
///
/// `keys` are the encoded keys (instance_key.h) of the instance asked for; for a leaf or container those of the lists
/// above it, for a leaf-list instance its value is the last one; at most kMaxKeys bytes, longer ones name nothing. A
/// read that the store cannot serve is an error, as is a malformed count record.
class View final {
 public:
  View(const Schema& schema, MDB_txn* txn, MDB_dbi dbi) : schema_{&schema}, txn_{txn}, dbi_{dbi} {}

  /// The row of an instance of `node` (a row node; the root with no keys).
  [[nodiscard]] Lookup<std::string_view> Row(const Node& node, std::string_view keys) const;
  /// The stored value of a leaf that is not a key: a key's is among the keys, see OwnKey().
  [[nodiscard]] Lookup<std::string_view> Leaf(const Node& leaf, std::string_view keys) const;
  /// Exists, whatever kind `node` is. A container without presence exists when it has content.
  [[nodiscard]] Answer<bool> Exists(const Node& node, std::string_view keys) const;
  /// Number of instances of a list or leaf-list below the instance with `parent_keys`. One read.
  [[nodiscard]] common::Result<uint32_t> Count(const Node& list, std::string_view parent_keys) const;

  [[nodiscard]] const Schema& schema() const noexcept { return *schema_; }
  [[nodiscard]] MDB_txn* txn() const noexcept { return txn_; }
  [[nodiscard]] MDB_dbi dbi() const noexcept { return dbi_; }

 private:
  [[nodiscard]] Answer<bool> HasRow(const Node& node, std::string_view keys) const;
  [[nodiscard]] Answer<bool> HasContent(const Node& container, std::string_view keys) const;

  const Schema* schema_;
  MDB_txn* txn_;
  MDB_dbi dbi_;
};

/// The instances of one list (or leaf-list) below one parent, in key order. Closed before its transaction ends. A move
/// that the store cannot serve is an error; the cursor then has no present instance.
class RowCursor final {
 public:
  /// Nothing is read yet.
  RowCursor(const View& view, const Node& list, std::string_view parent_keys);

  /// Goes to the first, then to each next instance. False at the end.
  [[nodiscard]] Answer<bool> Next();
  /// Goes to the instance at `position`, from 0: a step when it is the present or the next one, else a walk from
  /// whichever of front and present comes last before it. False past the end.
  [[nodiscard]] Answer<bool> GoTo(uint32_t position);
  /// Goes to the first instance whose encoded keys are not below `keys`.
  [[nodiscard]] Answer<bool> Seek(std::string_view keys);

  [[nodiscard]] std::string_view keys() const { return key_.substr(2); }  ///< the instance's, its parents' included
  [[nodiscard]] std::string_view row() const { return row_; }
  [[nodiscard]] const Node& list() const noexcept { return *list_; }
  [[nodiscard]] std::string_view parent_keys() const { return parent_.keys(); }

 private:
  Answer<bool> Accept(int code, const MDB_val& key, const MDB_val& data);

  const Node* list_;
  InstanceKey parent_;
  CursorHandle cursor_;
  int open_error_ = 0;  ///< LMDB's code if there is no cursor
  std::string_view key_, row_;
  int64_t position_ = -1;  ///< of the present instance; -1: none
};

}  // namespace cdb_store
