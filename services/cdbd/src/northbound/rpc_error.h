#pragma once

#include <string>
#include <utility>
#include <vector>

#include "model/data_error.h"

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

/// The elements of these names for RpcError::info, "<bad-element>name</bad-element>".
std::string BadElement(std::string_view name);
std::string BadAttribute(std::string_view attribute, std::string_view element);
std::string BadNamespace(std::string_view ns);

/// Errors in the data of a request, as NETCONF says them.
RpcErrors ToRpcErrors(const DataErrors& errors);

/// Appends the element.
void AppendRpcError(const RpcError& error, std::string* out);

}  // namespace cdbd
