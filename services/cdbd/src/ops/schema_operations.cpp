#include "ops/schema_operations.h"

#include <cstdlib>

#include "ops/params.h"

namespace cdbd {
namespace {

constexpr const char* kMonitoringNs = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";

}  // namespace

void SchemaOperations::AddTo(Operations* operations) {
  operations->Add(kMonitoringNs, "get-schema", [this](const RpcPtr& rpc) { GetSchema(rpc); });
}

void SchemaOperations::GetSchema(const RpcPtr& rpc) const {
  Params params{rpc->operation(), {"identifier", "version", "format"}};
  params.Require("identifier");
  const std::string name{params.Text("identifier", "")};
  const std::string version{params.Text("version", "")};
  std::string_view format = params.Text("format", "yang");
  if (const size_t colon = format.find(':'); colon != std::string_view::npos) {
    const netconf::XmlElement& element = *params.Find("format");
    if (element.Namespace(format.substr(0, colon)) == kMonitoringNs) format.remove_prefix(colon + 1);
  }
  if (format != "yang") params.Invalid("format", format);
  if (params.error()) return rpc->Fail(*params.error());

  const ly_ctx* context = model_.context();
  const lys_module* module =
      params.Find("version") == nullptr
          ? ly_ctx_get_module_latest(context, name.c_str())
          : ly_ctx_get_module(context, name.c_str(), version.empty() ? nullptr : version.c_str());
  char* text = nullptr;
  if (module == nullptr || lys_print_mem(&text, module, LYS_OUT_YANG, 0) != LY_SUCCESS) {
    params.Invalid(module == nullptr && params.Find("version") != nullptr &&
                           ly_ctx_get_module_latest(context, name.c_str()) != nullptr
                       ? "version"
                       : "identifier",
                   module == nullptr && ly_ctx_get_module_latest(context, name.c_str()) != nullptr ? version : name);
    return rpc->Fail(*params.error());
  }
  std::string content = std::string{"<data xmlns=\""} + kMonitoringNs + "\">";
  netconf::AppendEscaped(text, &content);
  std::free(text);
  rpc->Content(content + "</data>");
}

}  // namespace cdbd
