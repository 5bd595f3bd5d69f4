#pragma once

#include "cdb_store/environment.h"
#include "cdb_store/schema.h"

namespace cdb_store {

/// Carries every row of running over from the schema in the store to `to`, in `txn`; pre_commit becomes equal and the
/// difference empty. Fails, with nothing to be kept of `txn`, when a node with data is not in `to` with the same kind,
/// type, keys and enumeration names. Needs memory for the whole configuration.
common::Status Migrate(MDB_txn* txn, const Environment& env, const Schema& to);

}  // namespace cdb_store
