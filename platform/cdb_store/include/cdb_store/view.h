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
/// above it, for a leaf-list instance its value is the last one. A read that the store cannot serve, or a count that is
/// none, gives the answer for "absent", and error() then holds LMDB's code: whoever acts on what is absent looks at it
/// first.
class View final {
 public:
  View(const Schema& schema, MDB_txn* txn, MDB_dbi dbi) : schema_{&schema}, txn_{txn}, dbi_{dbi} {}

  /// The row of an instance of `node` (a row node; the root with no keys).
  [[nodiscard]] std::optional<std::string_view> Row(const Node& node, std::string_view keys) const;
  /// The stored value of a leaf that is not a key. Key leaves: KeyLeaf().
  [[nodiscard]] std::optional<std::string_view> Leaf(const Node& leaf, std::string_view keys) const;
  /// The stored value of any leaf, key leaves included, when its instance exists.
  [[nodiscard]] std::optional<std::string> AnyLeaf(const Node& leaf, std::string_view keys) const;
  /// Exists, whatever kind `node` is. A container without presence exists when it has content.
  [[nodiscard]] bool Exists(const Node& node, std::string_view keys) const;
  /// Number of instances of a list or leaf-list below the instance with `parent_keys`. One read.
  [[nodiscard]] uint32_t Count(const Node& list, std::string_view parent_keys) const;
  /// LMDB's code of the first read that failed, of this view or of a cursor on it; 0 when none did.
  [[nodiscard]] int error() const noexcept { return error_; }

  [[nodiscard]] const Schema& schema() const noexcept { return *schema_; }
  [[nodiscard]] MDB_txn* txn() const noexcept { return txn_; }
  [[nodiscard]] MDB_dbi dbi() const noexcept { return dbi_; }

 private:
  friend class RowCursor;
  friend class WriteTxn;
  bool Fetch(std::string_view record_key, MDB_val* data) const;
  /// Keeps the code of a read that failed. True when it has not, and has found something.
  bool Accept(int code) const;
  [[nodiscard]] bool HasContent(const Node& container, std::string_view keys) const;

  const Schema* schema_;
  MDB_txn* txn_;
  MDB_dbi dbi_;
  mutable int error_ = 0;
};

/// The instances of one list (or leaf-list) below one parent, in key order. Closed before its transaction ends; `view`
/// outlives it. A walk that the store cannot go on with ends there, and error() of the view then holds LMDB's code.
class RowCursor final {
 public:
  /// Nothing is read yet.
  RowCursor(const View& view, const Node& list, std::string_view parent_keys);
  RowCursor(const View&&, const Node&, std::string_view) = delete;  // nobody could ask it for the error

  /// Goes to the first, then to each next instance. False at the end.
  bool Next();
  /// Goes to the instance at `position`, from 0: a step when it is the present or the next one, else a walk from
  /// whichever of front and present is nearer behind it. False past the end.
  bool GoTo(uint32_t position);
  /// Goes to the first instance whose encoded keys are not below `keys`.
  bool Seek(std::string_view keys);

  [[nodiscard]] std::string_view keys() const { return key_.substr(2); }  ///< the instance's, its parents' included
  [[nodiscard]] std::string_view row() const { return row_; }
  [[nodiscard]] const Node& list() const noexcept { return *list_; }
  [[nodiscard]] std::string_view parent_keys() const { return parent_.keys(); }

 private:
  bool Accept(int code, const MDB_val& key, const MDB_val& data);

  const View* view_;
  const Node* list_;
  InstanceKey parent_;
  CursorHandle cursor_;
  std::string_view key_, row_;
  int64_t position_ = -1;  ///< of the present instance; -1: none
};

}  // namespace cdb_store
