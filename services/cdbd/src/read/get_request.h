#pragma once

#include "northbound/rpc.h"
#include "ops/core.h"
#include "read/filter.h"

namespace cdbd {

/// Answers <get>: configuration, the server's own state, and what data providers serve. Waits, without holding up
/// anybody, for the providers that the selection needs; an error of one of them is the answer.
void StartGet(Core& core, const RpcPtr& rpc, Selection selection);

}  // namespace cdbd
