#pragma once

#include "cdb_store/store_writer.h"
#include "commit/commit_line.h"
#include "programs/provider_service.h"
#include "programs/subscription_service.h"
#include "state/state_reader.h"

namespace cdbd {

/// What the module cdb-monitor shows. All outlive the reader.
struct DatabaseParts {
  const Model& model;
  const cdb_store::StoreWriter& store;
  const CommitLine& line;
  const SubscriptionService& subscriptions;
  const ProviderService& providers;
};

/// Adds the module cdb-monitor: commits, subscribers, data providers.
void AddDatabaseState(const DatabaseParts& parts, StateReader* reader);

}  // namespace cdbd
