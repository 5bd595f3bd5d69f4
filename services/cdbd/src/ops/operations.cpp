#include "ops/operations.h"

namespace cdbd {

void Operations::Dispatch(const RpcPtr& rpc) const {
  const netconf::XmlName& name = *rpc->operation().name;
  for (const Entry& entry : entries_)
    if (entry.name == name.local && entry.ns == name.ns) return entry.serve(rpc);
  RpcError error{.type = "protocol", .tag = "operation-not-supported"};
  error.message = "there is no operation '" + std::string{name.local} + "'";
  if (!model_.KnowsNamespace(name.ns)) {
    error.tag = "unknown-namespace";
    error.info = BadElement(name.local) + BadNamespace(name.ns);
  }
  rpc->Fail(std::move(error));
}

}  // namespace cdbd
