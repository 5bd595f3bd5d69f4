#pragma once

#include "commit/running_lock.h"
#include "northbound/server.h"
#include "ops/operations.h"

namespace cdbd {

/// <lock>, <unlock>, <close-session> and <kill-session>.
class SessionOperations final {
 public:
  /// Both outlive it.
  SessionOperations(NetconfServer& netconf, RunningLock& lock) : netconf_{netconf}, lock_{lock} {}
  void AddTo(Operations* operations);

  /// Releases the lock that the session held.
  void OnSessionEnded(uint32_t session);

 private:
  void Lock(const RpcPtr& rpc);
  void Unlock(const RpcPtr& rpc);
  void Close(const RpcPtr& rpc);
  void Kill(const RpcPtr& rpc);

  NetconfServer& netconf_;
  RunningLock& lock_;
};

}  // namespace cdbd
