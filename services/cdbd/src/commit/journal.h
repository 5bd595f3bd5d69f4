#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/store_writer.h"

namespace cdbd {

/// What a commit did, in few words. Entries of lists and presence containers are counted.
struct CommitSummary {
  enum class Operation : uint8_t { kCreated, kModified, kDeleted };
  struct Value {
    std::string text;  ///< canonical; empty for the type empty
    bool cut = false;  ///< only its first kMaxValueBytes
  };
  /// A leaf that is no key, and that the commit has set, changed or taken away.
  struct Leaf {
    cdb_store::NodeId node = 0;
    std::optional<Value> old_value;  ///< nothing: it was not there
    std::optional<Value> new_value;
  };
  struct Change {
    Operation operation = Operation::kCreated;
    std::string record_key;
    std::vector<Leaf> leaves;     ///< in the order of the data model
    uint32_t unnamed_leaves = 0;  ///< those for which there was no room
  };
  static constexpr size_t kMaxChanges = 8;        ///< that are named
  static constexpr size_t kMaxChangeBytes = 512;  ///< of their keys together
  static constexpr size_t kMaxLeaves = 32;        ///< of all of them together
  static constexpr size_t kMaxValueBytes = 64;

  uint32_t created = 0;
  uint32_t modified = 0;
  uint32_t deleted = 0;
  std::vector<Change> changes;  ///< the first ones, in the order of the data model

  /// Of what `txn` has changed so far.
  static common::Result<CommitSummary> Of(const cdb_store::WriteTxn& txn);
  [[nodiscard]] bool empty() const noexcept { return created == 0 && modified == 0 && deleted == 0; }
};

/// One commit of the journal.
struct JournalEntry {
  uint64_t txid = 0;
  std::chrono::system_clock::time_point time;
  std::string user;
  uint32_t session = 0;
  std::string comment;       ///< the author's; empty: none
  uint64_t fingerprint = 0;  ///< of the schema that the record keys are of
  CommitSummary summary;
};

/// The last kKept commits, in the log of the store: when, by whom, why, and what they did. An entry is written in the
/// transaction of its commit, over the oldest one, and is small enough to lie in a page of the table itself, so that it
/// costs one page.
namespace journal {

inline constexpr uint64_t kKept = 128;

/// Part of the commit that ends `txn`. Leaves that the entry has no room for are left out, the last ones first.
common::Status Note(JournalEntry entry, cdb_store::WriteTxn* txn);
/// The latest first, also those that an earlier version wrote. Malformed records are left out.
common::Result<std::vector<JournalEntry>> Read(const cdb_store::StoreWriter& store);

}  // namespace journal

}  // namespace cdbd
