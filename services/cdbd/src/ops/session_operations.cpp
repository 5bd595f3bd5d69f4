#include <charconv>

#include "northbound/server.h"
#include "ops/operations.h"
#include "ops/params.h"

namespace cdbd {
namespace {

bool TargetIsRunning(const RpcPtr& rpc) {
  Params params{rpc->operation(), {"target"}};
  params.RequireOneOf("target", {"running"});
  if (params.error()) rpc->Fail(*params.error());
  return !params.error();
}

}  // namespace

void LockRunning(Core& core, const RpcPtr& rpc) {
  if (!TargetIsRunning(rpc)) return;
  if (core.lock) {
    RpcError error{.type = "protocol", .tag = "lock-denied"};
    error.message = "running is locked by session " + std::to_string(core.lock->session);
    error.info = "<session-id>" + std::to_string(core.lock->session) + "</session-id>";
    return rpc->Fail(std::move(error));
  }
  core.lock = Lock{rpc->session(), std::chrono::system_clock::now()};
  rpc->Ok();
}

void UnlockRunning(Core& core, const RpcPtr& rpc) {
  if (!TargetIsRunning(rpc)) return;
  if (!core.lock || core.lock->session != rpc->session()) {
    RpcError error{.type = "protocol", .message = "this session holds no lock on running"};
    if (core.lock) error.message += "; session " + std::to_string(core.lock->session) + " does";
    return rpc->Fail(std::move(error));
  }
  core.lock.reset();
  rpc->Ok();
}

void CloseSession(Core& core, const RpcPtr& rpc) {
  const Params params{rpc->operation(), {}};
  if (params.error()) return rpc->Fail(*params.error());
  const uint32_t session = rpc->session();
  OnSessionEnded(core, session);  // the lock is free when the answer arrives
  rpc->Ok();
  core.netconf->Close(session);
}

void KillSession(Core& core, const RpcPtr& rpc) {
  Params params{rpc->operation(), {"session-id"}};
  params.Require("session-id");
  const std::string_view text = params.Text("session-id", "");
  uint32_t session = 0;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), session);
  if (!params.error() && (code != std::errc{} || end != text.data() + text.size() || session == 0 ||
                          session == rpc->session() || core.netconf->Find(session) == nullptr))
    params.Invalid("session-id", text);
  if (params.error()) return rpc->Fail(*params.error());
  core.netconf->Kill(session, "killed");
  rpc->Ok();
}

}  // namespace cdbd
