#pragma once

#include <cstdint>
#include <string>

#include "cdb_store/environment.h"
#include "common/result.h"
#include "common/unique_fd.h"

namespace cdb_store {

/* The files of a store, and what they say about whether a database existed here before:
 *
 *   PATH/data.mdb     the database; moved here complete, so that a creation that was interrupted leaves none
 *   PATH/lock.mdb     LMDB's, made when data.mdb is first opened in its place
 *   PATH/server.lock  held by the server
 *   PATH/draft/       a database that is being created; worthless until it has been moved
 *   identity file     "cdb-store 1a2b3c4d\n", the number of the store; written after data.mdb, before anything is
 * served
 *
 * A crash at any moment of a creation leaves either nothing but locks and a draft, or a complete database. */
class StoreFiles final {
 public:
  explicit StoreFiles(const StoreOptions& options);

  /// The lock that keeps other servers out while the descriptor is open.
  [[nodiscard]] common::Result<common::UniqueFd> Lock() const;
  /// Whether a database has to be created. Refuses where one existed and is gone or empty, unless a new one was asked
  /// for, and where a new one was asked for although there is one.
  [[nodiscard]] common::Result<bool> NeedsCreation() const;
  /// Makes an empty directory for the draft.
  [[nodiscard]] common::Result<std::string> PrepareDraft() const;
  /// Moves the draft's database into place. It must be closed.
  [[nodiscard]] common::Status PublishDraft() const;
  /// Refuses a store that is not the one that the identity file names. A file that is missing or damaged names none.
  [[nodiscard]] common::Status CheckIdentity(uint32_t store) const;
  /// Makes the identity file name this store.
  [[nodiscard]] common::Status WriteIdentity(uint32_t store) const;

 private:
  [[nodiscard]] common::Status Sync(const std::string& path) const;

  const StoreOptions& options_;
  const std::string data_;
  const std::string draft_;
  const std::string identity_;
};

/// How the operator gets on after a refusal of a damaged database.
inline constexpr const char* kNothingChanged = "; nothing was changed. ";
inline constexpr const char* kBeginAnew =
    "To begin with an empty configuration on purpose, move data.mdb away and start once with --new-database";

}  // namespace cdb_store
