#include "state/own_state.h"

#include <cstdlib>
#include <cstring>

#include "netconf/xml.h"
#include "northbound/server.h"

namespace cdbd {
namespace {

using netconf::AppendTextElement;

constexpr const char* kMonitoringNs = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";
constexpr const char* kLibraryNs = "urn:ietf:params:xml:ns:yang:ietf-yang-library";

/// libyang says in which local file it found each module; that is nobody's business.
void RemoveLocations(lyd_node* first) {
  while (first != nullptr) {
    lyd_node* next = first->next;
    const std::string_view name = first->schema != nullptr ? first->schema->name : "";
    const bool text = first->schema != nullptr && (first->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0;
    if (text && (name == "location" || name == "schema") &&
        std::string_view{lyd_get_value(first)}.substr(0, 5) == "file:")
      lyd_free_tree(first);
    else
      RemoveLocations(lyd_child(first));
    first = next;
  }
}

void WriteLibrary(const Model& model, const char* container, std::string* out) {
  lyd_node* raw = nullptr;
  if (ly_ctx_get_yanglib_data(model.context(), &raw, "%s", model.content_id().c_str()) != LY_SUCCESS) return;
  const TreePtr tree{raw};
  RemoveLocations(raw);
  for (const lyd_node* node = raw; node != nullptr; node = node->next) {
    if (std::strcmp(node->schema->name, container) != 0) continue;
    char* text = nullptr;
    if (lyd_print_mem(&text, node, LYD_XML, LYD_PRINT_SHRINK) == LY_SUCCESS) out->append(text);
    std::free(text);
  }
}

void WriteSchemas(const Model& model, std::string* out) {
  out->append("<schemas>");
  uint32_t index = 0;
  while (const lys_module* module = ly_ctx_get_module_iter(model.context(), &index)) {
    out->append("<schema>");
    AppendTextElement("identifier", module->name, out);
    AppendTextElement("version", module->revision != nullptr ? module->revision : "", out);
    AppendTextElement("format", "yang", out);
    AppendTextElement("namespace", module->ns, out);
    AppendTextElement("location", "NETCONF", out);
    out->append("</schema>");
  }
  out->append("</schemas>");
}

void WriteSessions(const NetconfServer& server, std::string* out) {
  out->append("<sessions>");
  for (const SessionInfo& session : server.Sessions()) {
    out->append("<session>");
    AppendTextElement("session-id", std::to_string(session.id), out);
    out->append("<transport xmlns:cdbm=\"").append(kMonitorNs).append("\">cdbm:netconf-local</transport>");
    AppendTextElement("username", session.user, out);
    AppendTextElement("login-time", DateAndTime(session.login), out);
    AppendTextElement("in-rpcs", std::to_string(session.in_rpcs), out);
    AppendTextElement("in-bad-rpcs", std::to_string(session.in_bad_rpcs), out);
    AppendTextElement("out-rpc-errors", std::to_string(session.out_rpc_errors), out);
    AppendTextElement("out-notifications", "0", out);
    out->append("</session>");
  }
  out->append("</sessions>");
}

void WriteStatistics(const NetconfStatistics& statistics, std::string* out) {
  out->append("<statistics>");
  AppendTextElement("netconf-start-time", DateAndTime(statistics.start), out);
  AppendTextElement("in-bad-hellos", std::to_string(statistics.in_bad_hellos), out);
  AppendTextElement("in-sessions", std::to_string(statistics.in_sessions), out);
  AppendTextElement("dropped-sessions", std::to_string(statistics.dropped_sessions), out);
  AppendTextElement("in-rpcs", std::to_string(statistics.in_rpcs), out);
  AppendTextElement("in-bad-rpcs", std::to_string(statistics.in_bad_rpcs), out);
  AppendTextElement("out-rpc-errors", std::to_string(statistics.out_rpc_errors), out);
  AppendTextElement("out-notifications", "0", out);
  out->append("</statistics>");
}

void WriteMonitoring(const Core& core, std::string* out) {
  out->append("<netconf-state xmlns=\"").append(kMonitoringNs).append("\"><capabilities>");
  for (const std::string& capability : core.netconf->capabilities()) AppendTextElement("capability", capability, out);
  out->append("</capabilities><datastores><datastore><name>running</name>");
  if (core.lock) {
    out->append("<locks><global-lock>");
    AppendTextElement("locked-by-session", std::to_string(core.lock->session), out);
    AppendTextElement("locked-time", DateAndTime(core.lock->since), out);
    out->append("</global-lock></locks>");
  }
  out->append("</datastore></datastores>");
  WriteSchemas(core.model, out);
  WriteSessions(*core.netconf, out);
  WriteStatistics(core.netconf->statistics(), out);
  out->append("</netconf-state>");
}

}  // namespace

void AddOwnState(Core& core, StateReader* reader) {
  reader->Add(kMonitoringNs, "netconf-state", [&core](std::string* out) { WriteMonitoring(core, out); });
  for (const char* container : {"yang-library", "modules-state"})
    reader->Add(kLibraryNs, container,
                [&core, container](std::string* out) { WriteLibrary(core.model, container, out); });
}

std::vector<std::string> Capabilities(const Model& model) {
  const std::string capability = "urn:ietf:params:netconf:capability:";
  std::vector<std::string> all{"urn:ietf:params:netconf:base:1.0", "urn:ietf:params:netconf:base:1.1",
                               capability + "writable-running:1.0", capability + "rollback-on-error:1.0",
                               capability + "validate:1.1",
                               // Clients of RFC 7895 know the library only by this one (RFC 7950, section 5.6.4).
                               capability + "yang-library:1.0?revision=2019-01-04&module-set-id=" + model.content_id(),
                               capability + "yang-library:1.1?revision=2019-01-04&content-id=" + model.content_id()};
  // Modules of YANG 1.1 are found through the YANG library, those of YANG 1.0 in the hello (RFC 7950, section 5.6.4).
  uint32_t index = 0;
  while (const lys_module* module = ly_ctx_get_module_iter(model.context(), &index)) {
    if (module->implemented == 0 || module->parsed == nullptr || module->parsed->version == LYS_VERSION_1_1) continue;
    std::string uri = std::string{module->ns} + "?module=" + module->name;
    if (module->revision != nullptr) uri += std::string{"&revision="} + module->revision;
    std::string features;
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(module->parsed->features, i) {
      if (lys_feature_value(module, module->parsed->features[i].name) != LY_SUCCESS) continue;
      features += (features.empty() ? "" : ",") + std::string{module->parsed->features[i].name};
    }
    if (!features.empty()) uri += "&features=" + features;
    all.push_back(std::move(uri));
  }
  return all;
}

}  // namespace cdbd
