#include "northbound/rpc_error.h"

#include "netconf/xml.h"

namespace cdbd {
namespace {

std::string TextElement(std::string_view name, std::string_view text) {
  std::string out;
  netconf::AppendTextElement(name, text, &out);
  return out;
}

void AppendLeaf(const char* name, const std::string& text, std::string* out) {
  if (!text.empty()) netconf::AppendTextElement(name, text, out);
}

}  // namespace

std::string BadElement(std::string_view name) { return TextElement("bad-element", name); }

std::string BadAttribute(std::string_view attribute, std::string_view element) {
  return TextElement("bad-attribute", attribute) + BadElement(element);
}

std::string BadNamespace(std::string_view ns) { return TextElement("bad-namespace", ns); }

RpcErrors ToRpcErrors(const DataErrors& errors) {
  RpcErrors all;
  for (const DataError& error : errors) {
    RpcError& one = all.emplace_back();
    one.tag = error.tag;
    one.message = error.message;
    one.path = error.path;
    one.app_tag = error.app_tag;
    one.warning = error.warning;
    one.path_namespaces = error.path_namespaces;
    for (const ErrorDetail& detail : error.details) {
      const std::string xmlns = detail.ns.empty() ? "" : " xmlns=\"" + netconf::EscapedAttribute(detail.ns) + "\"";
      netconf::AppendTextElement(detail.name, xmlns, detail.text, &one.info);
    }
  }
  return all;
}

void AppendRpcError(const RpcError& error, std::string* out) {
  netconf::OpenElement element{"rpc-error", {}, out};
  AppendLeaf("error-type", error.type, out);
  AppendLeaf("error-tag", error.tag, out);
  AppendLeaf("error-severity", error.warning ? "warning" : "error", out);
  AppendLeaf("error-app-tag", error.app_tag, out);
  if (!error.path.empty()) {
    std::string namespaces;
    for (const auto& [prefix, ns] : error.path_namespaces)
      namespaces += " xmlns:" + prefix + "=\"" + netconf::EscapedAttribute(ns) + "\"";
    netconf::AppendTextElement("error-path", namespaces, error.path, out);
  }
  if (!error.message.empty()) netconf::AppendTextElement("error-message", " xml:lang=\"en\"", error.message, out);
  if (!error.info.empty()) {
    netconf::OpenElement info{"error-info", {}, out};
    out->append(error.info);
    info.Close();
  }
  element.Close();
}

}  // namespace cdbd
