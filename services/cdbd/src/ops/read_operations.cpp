#include "ops/read_operations.h"

#include "ops/get_request.h"
#include "ops/params.h"
#include "read/stored_data.h"

namespace cdbd {
namespace {

Selection SelectionOf(const netconf::XmlElement* filter) {
  return filter == nullptr ? Selection::Everything() : Selection::Of(*filter);
}

}  // namespace

void ReadOperations::AddTo(Operations* operations) {
  operations->Add(netconf::kBaseNs, "get", [this](const RpcPtr& rpc) { Get(rpc); });
  operations->Add(netconf::kBaseNs, "get-config", [this](const RpcPtr& rpc) { GetConfig(rpc); });
}

void ReadOperations::GetConfig(const RpcPtr& rpc) const {
  Params params{rpc->operation(), {"source", "filter"}};
  params.RequireOneOf("source", {"running"});
  const netconf::XmlElement* filter = params.Filter();
  if (params.error()) return rpc->Fail(*params.error());
  const auto snapshot = sources_.store.Take();
  if (!snapshot) return rpc->Fail(RpcError{.message = snapshot.error().Text()});
  std::string data{"<data>"};
  const cdb_store::View running = snapshot.value()->Running();
  if (const auto written = WriteConfiguration(sources_.model, running, SelectionOf(filter), &data); !written)
    return rpc->Fail(RpcError{.message = written.error().Text()});
  data += "</data>";
  rpc->Content(data);
}

void ReadOperations::Get(const RpcPtr& rpc) const {
  Params params{rpc->operation(), {"filter"}};
  const netconf::XmlElement* filter = params.Filter();
  if (params.error()) return rpc->Fail(*params.error());
  StartGet(sources_, rpc, SelectionOf(filter));
}

}  // namespace cdbd
