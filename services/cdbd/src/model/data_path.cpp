#include "model/data_path.h"

#include <algorithm>

#include "cdb_store/instance_key.h"

namespace cdbd {
namespace {

using cdb_store::Node;

void Declare(const std::string& prefix, const std::string& uri, DataError* error) {
  const std::pair<std::string, std::string> entry{prefix, uri};
  auto& all = error->path_namespaces;
  if (std::find(all.begin(), all.end(), entry) == all.end()) all.push_back(entry);
}

std::string Quoted(const std::string& text) {
  const char quote = text.find('\'') == std::string::npos ? '\'' : '"';
  return quote + text + quote;
}

void AppendStep(const Model& model, const Node& node, std::string_view keys, DataError* error) {
  const cdb_store::Schema& schema = model.schema();
  const cdb_store::Namespace& ns = schema.ns(node);
  Declare(ns.prefix, ns.uri, error);
  error->path += "/" + ns.prefix + ":" + node.name;
  if (!node.IsKeyed()) return;
  const auto size = cdb_store::KeysSizeAt(schema, node, keys);
  if (!size) return;
  const std::vector<std::string> own = cdb_store::OwnKeys(schema, node, keys.substr(0, *size));
  if (node.kind == cdb_store::NodeKind::kLeafList) {
    if (own.size() == 1) error->path += "[.=" + Quoted(cdb_store::ValueToText(node, own[0])) + "]";
    return;
  }
  for (size_t i = 0; i < own.size() && i < node.keys.size(); ++i) {
    const Node& key = schema.node(node.keys[i]);
    error->path += "[" + ns.prefix + ":" + key.name + "=" + Quoted(cdb_store::ValueToText(key, own[i])) + "]";
  }
}

}  // namespace

void SetPath(const Model& model, const Node& node, std::string_view keys, DataError* error) {
  error->path.clear();
  std::vector<const Node*> steps;
  for (const Node* at = &node; at->id != cdb_store::kRootId; at = &model.schema().node(at->parent)) steps.push_back(at);
  for (auto step = steps.rbegin(); step != steps.rend(); ++step) AppendStep(model, **step, keys, error);
}

void SetLibyangPath(const Model& model, std::string_view path, DataError* error) {
  error->path.clear();
  std::string module;
  size_t at = 0;
  while (at < path.size()) {
    const char c = path[at];
    if (c == '\'' || c == '"') {
      const size_t end = std::min(path.find(c, at + 1), path.size() - 1);
      error->path.append(path, at, end - at + 1);
      at = end + 1;
      continue;
    }
    error->path += c;
    ++at;
    if (c != '/' && c != '[') continue;
    if (at < path.size() && (path[at] == '.' || (path[at] >= '0' && path[at] <= '9'))) continue;
    const std::string_view name = path.substr(at, path.find_first_of("/[=]", at) - at);
    const size_t colon = name.find(':');
    if (colon != std::string_view::npos) {
      module = name.substr(0, colon);
      at += colon + 1;
    }
    const lys_module* found = ly_ctx_get_module_implemented(model.context(), module.c_str());
    if (found == nullptr) continue;
    Declare(found->prefix, found->ns, error);
    error->path.append(found->prefix).append(":");
  }
}

}  // namespace cdbd
