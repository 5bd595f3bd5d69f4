#pragma once

#include "northbound/rpc.h"
#include "ops/read_operations.h"
#include "read/filter.h"

namespace cdbd {

/// Answers <get>: configuration, the server's own state, and what data providers serve. Finds out which provided lists
/// the selection needs, waits for those without holding up other requests, then writes the reply; an error of a
/// provider is the answer.
void StartGet(const ReadSources& sources, const RpcPtr& rpc, Selection selection);

}  // namespace cdbd
