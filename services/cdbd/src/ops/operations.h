#pragma once

#include "northbound/rpc.h"
#include "ops/core.h"

namespace cdbd {

/// Serves a request: finds the operation by its name and namespace, and answers or keeps the request.
void Dispatch(Core& core, const RpcPtr& rpc);

/// The lock of an ended session goes.
void OnSessionEnded(Core& core, uint32_t session);

/* One function per operation. */
void Get(Core& core, const RpcPtr& rpc);
void GetConfig(Core& core, const RpcPtr& rpc);
void EditConfig(Core& core, const RpcPtr& rpc);
void ValidateConfig(Core& core, const RpcPtr& rpc);
void LockRunning(Core& core, const RpcPtr& rpc);
void UnlockRunning(Core& core, const RpcPtr& rpc);
void CloseSession(Core& core, const RpcPtr& rpc);
void KillSession(Core& core, const RpcPtr& rpc);
void GetSchema(Core& core, const RpcPtr& rpc);

}  // namespace cdbd
