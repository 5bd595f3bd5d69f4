#include "rpc_errors.h"

namespace cli {
namespace {

std::string TextOf(const netconf::XmlElement& error, std::string_view name) {
  const netconf::XmlElement* child = error.Child(netconf::kBaseNs, name);
  return child != nullptr ? std::string{netconf::Trim(child->text)} : "";
}

}  // namespace

std::string RpcError::Text() const {
  const std::string what = message.empty() ? tag : message;
  return path.empty() ? what : path + ": " + what;
}

std::vector<RpcError> RpcErrors(const netconf::XmlElement& reply) {
  std::vector<RpcError> errors;
  for (const netconf::XmlElement* child = reply.first_child; child != nullptr; child = child->next) {
    if (!child->Is(netconf::kBaseNs, "rpc-error")) continue;
    errors.push_back({TextOf(*child, "error-tag"), TextOf(*child, "error-path"), TextOf(*child, "error-message"),
                      TextOf(*child, "error-severity") == "warning"});
  }
  return errors;
}

}  // namespace cli
