#include "northbound/rpc_error.h"

#include "netconf/xml.h"

namespace cdbd {
namespace {

void AppendLeaf(const char* name, const std::string& text, std::string* out) {
  if (!text.empty()) netconf::AppendTextElement(name, text, out);
}

}  // namespace

std::string BadElement(std::string_view name) { return "<bad-element>" + netconf::Escaped(name) + "</bad-element>"; }

std::string BadAttribute(std::string_view attribute, std::string_view element) {
  return "<bad-attribute>" + netconf::Escaped(attribute) + "</bad-attribute>" + BadElement(element);
}

void AppendRpcError(const RpcError& error, std::string* out) {
  out->append("<rpc-error>");
  AppendLeaf("error-type", error.type, out);
  AppendLeaf("error-tag", error.tag, out);
  AppendLeaf("error-severity", error.warning ? "warning" : "error", out);
  AppendLeaf("error-app-tag", error.app_tag, out);
  if (!error.path.empty()) {
    out->append("<error-path");
    for (const auto& [prefix, ns] : error.path_namespaces) {
      out->append(" xmlns:").append(prefix).append("=\"");
      out->append(netconf::EscapedAttribute(ns));
      out->append("\"");
    }
    out->append(">");
    netconf::AppendEscaped(error.path, out);
    out->append("</error-path>");
  }
  if (!error.message.empty()) {
    out->append("<error-message xml:lang=\"en\">");
    netconf::AppendEscaped(error.message, out);
    out->append("</error-message>");
  }
  if (!error.info.empty()) out->append("<error-info>").append(error.info).append("</error-info>");
  out->append("</rpc-error>");
}

}  // namespace cdbd
