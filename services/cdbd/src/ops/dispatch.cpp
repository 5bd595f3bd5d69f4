#include <spdlog/spdlog.h>

#include "ops/operations.h"

namespace cdbd {
namespace {

using netconf::kBaseNs;

constexpr std::string_view kMonitoringNs = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";

struct Entry {
  std::string_view ns;
  std::string_view name;
  void (*serve)(Core&, const RpcPtr&);
};
constexpr Entry kOperations[] = {
    {kBaseNs, "get", Get},
    {kBaseNs, "get-config", GetConfig},
    {kBaseNs, "edit-config", EditConfig},
    {kBaseNs, "validate", ValidateConfig},
    {kBaseNs, "lock", LockRunning},
    {kBaseNs, "unlock", UnlockRunning},
    {kBaseNs, "close-session", CloseSession},
    {kBaseNs, "kill-session", KillSession},
    {kMonitoringNs, "get-schema", GetSchema},
};

}  // namespace

void Dispatch(Core& core, const RpcPtr& rpc) {
  const netconf::XmlName& name = *rpc->operation().name;
  for (const Entry& entry : kOperations)
    if (entry.name == name.local && entry.ns == name.ns) return entry.serve(core, rpc);
  RpcError error{.type = "protocol", .tag = "operation-not-supported"};
  error.message = "there is no operation '" + std::string{name.local} + "'";
  if (!core.model.KnowsNamespace(name.ns)) {
    error.tag = "unknown-namespace";
    error.info = BadElement(name.local) + "<bad-namespace>" + netconf::Escaped(name.ns) + "</bad-namespace>";
  }
  rpc->Fail(std::move(error));
}

void OnSessionEnded(Core& core, uint32_t session) {
  if (!core.lock || core.lock->session != session) return;
  spdlog::info("netconf: the lock of session {} on running is released", session);
  core.lock.reset();
}

}  // namespace cdbd
