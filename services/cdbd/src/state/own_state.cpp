#include "state/own_state.h"

#include <cstdlib>
#include <cstring>

#include "netconf/xml.h"

namespace cdbd {
namespace {

using netconf::AppendTextElement;

constexpr const char* kMonitoringNs = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring";
constexpr const char* kLibraryNs = "urn:ietf:params:xml:ns:yang:ietf-yang-library";

/// libyang says in which local file it found each module; clients must not see paths of this machine.
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
  netconf::OpenElement list{"schemas", {}, out};
  uint32_t index = 0;
  while (const lys_module* module = ly_ctx_get_module_iter(model.context(), &index)) {
    netconf::OpenElement element{"schema", {}, out};
    AppendTextElement("identifier", module->name, out);
    AppendTextElement("version", module->revision != nullptr ? module->revision : "", out);
    AppendTextElement("format", "yang", out);
    AppendTextElement("namespace", module->ns, out);
    AppendTextElement("location", "NETCONF", out);
    element.Close();
  }
  list.Close();
}

void WriteSessions(const NetconfServer& server, std::string* out) {
  netconf::OpenElement list{"sessions", {}, out};
  for (const SessionInfo& session : server.Sessions()) {
    netconf::OpenElement element{"session", {}, out};
    AppendTextElement("session-id", std::to_string(session.id), out);
    AppendTextElement("transport", std::string{" xmlns:cdbm=\""} + kMonitorNs + "\"", "cdbm:netconf-local", out);
    AppendTextElement("username", session.user, out);
    AppendTextElement("login-time", DateAndTime(session.login), out);
    AppendTextElement("in-rpcs", std::to_string(session.in_rpcs), out);
    AppendTextElement("in-bad-rpcs", std::to_string(session.in_bad_rpcs), out);
    AppendTextElement("out-rpc-errors", std::to_string(session.out_rpc_errors), out);
    AppendTextElement("out-notifications", "0", out);
    element.Close();
  }
  list.Close();
}

void WriteStatistics(const NetconfStatistics& statistics, std::string* out) {
  netconf::OpenElement element{"statistics", {}, out};
  AppendTextElement("netconf-start-time", DateAndTime(statistics.start), out);
  AppendTextElement("in-bad-hellos", std::to_string(statistics.in_bad_hellos), out);
  AppendTextElement("in-sessions", std::to_string(statistics.in_sessions), out);
  AppendTextElement("dropped-sessions", std::to_string(statistics.dropped_sessions), out);
  AppendTextElement("in-rpcs", std::to_string(statistics.in_rpcs), out);
  AppendTextElement("in-bad-rpcs", std::to_string(statistics.in_bad_rpcs), out);
  AppendTextElement("out-rpc-errors", std::to_string(statistics.out_rpc_errors), out);
  AppendTextElement("out-notifications", "0", out);
  element.Close();
}

void WriteMonitoring(const Model& model, const NetconfServer& netconf, const RunningLock& lock, std::string* out) {
  netconf::OpenElement state{"netconf-state", std::string{" xmlns=\""} + kMonitoringNs + "\"", out};
  netconf::OpenElement capabilities{"capabilities", {}, out};
  for (const std::string& capability : netconf.capabilities()) AppendTextElement("capability", capability, out);
  capabilities.Close();
  netconf::OpenElement datastores{"datastores", {}, out};
  netconf::OpenElement datastore{"datastore", {}, out};
  AppendTextElement("name", "running", out);
  if (const auto& holder = lock.holder()) {
    netconf::OpenElement locks{"locks", {}, out};
    netconf::OpenElement global{"global-lock", {}, out};
    AppendTextElement("locked-by-session", std::to_string(holder->session), out);
    AppendTextElement("locked-time", DateAndTime(holder->since), out);
    global.Close();
    locks.Close();
  }
  datastore.Close();
  datastores.Close();
  WriteSchemas(model, out);
  WriteSessions(netconf, out);
  WriteStatistics(netconf.statistics(), out);
  state.Close();
}

}  // namespace

void AddOwnState(const Model& model, const NetconfServer& netconf, const RunningLock& lock, StateReader* reader) {
  reader->Add(kMonitoringNs, "netconf-state",
              [&model, &netconf, &lock](std::string* out) { WriteMonitoring(model, netconf, lock, out); });
  for (const char* container : {"yang-library", "modules-state"})
    reader->Add(kLibraryNs, container, [&model, container](std::string* out) { WriteLibrary(model, container, out); });
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
