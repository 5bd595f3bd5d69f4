#include "ops/session_operations.h"

#include <spdlog/spdlog.h>

#include <charconv>

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

void SessionOperations::AddTo(Operations* operations) {
  operations->Add(netconf::kBaseNs, "lock", [this](const RpcPtr& rpc) { Lock(rpc); });
  operations->Add(netconf::kBaseNs, "unlock", [this](const RpcPtr& rpc) { Unlock(rpc); });
  operations->Add(netconf::kBaseNs, "close-session", [this](const RpcPtr& rpc) { Close(rpc); });
  operations->Add(netconf::kBaseNs, "kill-session", [this](const RpcPtr& rpc) { Kill(rpc); });
}

void SessionOperations::OnSessionEnded(uint32_t session) {
  if (lock_.Release(session)) spdlog::info("netconf: the lock of session {} on running is released", session);
}

void SessionOperations::Lock(const RpcPtr& rpc) {
  if (!TargetIsRunning(rpc)) return;
  if (lock_.Take(rpc->session())) return rpc->Ok();
  const std::string holder = std::to_string(lock_.holder()->session);
  RpcError error{.type = "protocol", .tag = "lock-denied", .message = "running is locked by session " + holder};
  netconf::AppendTextElement("session-id", holder, &error.info);
  rpc->Fail(std::move(error));
}

void SessionOperations::Unlock(const RpcPtr& rpc) {
  if (!TargetIsRunning(rpc)) return;
  if (lock_.Release(rpc->session())) return rpc->Ok();
  RpcError error{.type = "protocol", .message = "this session holds no lock on running"};
  if (lock_.holder()) error.message += "; session " + std::to_string(lock_.holder()->session) + " does";
  rpc->Fail(std::move(error));
}

void SessionOperations::Close(const RpcPtr& rpc) {
  const Params params{rpc->operation(), {}};
  if (params.error()) return rpc->Fail(*params.error());
  const uint32_t session = rpc->session();
  OnSessionEnded(session);  // the lock is free when the answer arrives
  rpc->Ok();
  netconf_.Close(session);
}

void SessionOperations::Kill(const RpcPtr& rpc) {
  Params params{rpc->operation(), {"session-id"}};
  params.Require("session-id");
  const std::string_view text = params.Text("session-id", "");
  uint32_t session = 0;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), session);
  if (!params.error() && (code != std::errc{} || end != text.data() + text.size() || session == 0 ||
                          session == rpc->session() || netconf_.Find(session) == nullptr))
    params.Invalid("session-id", text);
  if (params.error()) return rpc->Fail(*params.error());
  netconf_.Kill(session);
  rpc->Ok();
}

}  // namespace cdbd
