#pragma once

#include "ops/core.h"
#include "programs/provider_service.h"
#include "programs/subscription_service.h"
#include "state/state_reader.h"

namespace cdbd {

/// Adds the module cdb-monitor: commits, subscribers, data providers.
void AddDatabaseState(const Core& core, const SubscriptionService& subscriptions, const ProviderService& providers,
                      StateReader* reader);

}  // namespace cdbd
