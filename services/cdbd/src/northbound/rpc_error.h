#pragma once

#include <string>
#include <utility>
#include <vector>

namespace cdbd {

/// One <rpc-error> (RFC 6241, section 4.3 and appendix A).
struct RpcError {
  const char* type = "application";  ///< transport, rpc, protocol or application
  std::string tag = "operation-failed";
  std::string message{};
  std::string path{};  ///< XPath; every step has the module's prefix
  std::string app_tag{};
  std::string info{};                                                  ///< the XML inside <error-info>
  bool warning = false;                                                ///< severity
  std::vector<std::pair<std::string, std::string>> path_namespaces{};  ///< prefix and namespace of the steps
};
using RpcErrors = std::vector<RpcError>;

/// "<bad-element>name</bad-element>" for RpcError::info.
std::string BadElement(std::string_view name);
std::string BadAttribute(std::string_view attribute, std::string_view element);

/// Appends the element.
void AppendRpcError(const RpcError& error, std::string* out);

}  // namespace cdbd
