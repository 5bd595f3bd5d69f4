#include "model/model.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "model/schema_compiler.h"
#include "yang/last_error.h"

namespace cdbd {
namespace {

using common::Error;

/// Modules that NETCONF needs wherever the data model comes from, with the features that this server has.
struct Builtin {
  const char* name;
  std::vector<const char*> features;
};
const Builtin kBuiltins[] = {
    {"ietf-netconf", {"writable-running", "rollback-on-error", "validate", nullptr}},
    {"ietf-netconf-monitoring", {nullptr}},
    {"cdb-extensions", {nullptr}},
    {"cdb-monitor", {nullptr}},
};

common::Result<std::set<std::string>> ModulesIn(const std::vector<std::string>& directories) {
  std::set<std::string> names;
  for (const std::string& directory : directories) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator{directory, error}) {
      const std::filesystem::path& path = entry.path();
      if (path.extension() != ".yang") continue;
      std::string name = path.stem().string();
      names.insert(name.substr(0, name.find('@')));
    }
    if (error) return Error{"read data models", directory, error.message()};
  }
  return names;
}

}  // namespace

common::Result<std::unique_ptr<Model>> Model::Load(const ModelOptions& options) {
  ly_log_options(LY_LOSTORE);
  std::unique_ptr<Model> model{new Model};
  ly_ctx* ctx = nullptr;
  if (ly_ctx_new(options.directories.front().c_str(), LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx) != LY_SUCCESS)
    return Error{"read data models", options.directories.front(), "not a readable directory"};
  model->context_.reset(ctx);
  for (size_t i = 1; i < options.directories.size(); ++i)
    if (ly_ctx_set_searchdir(ctx, options.directories[i].c_str()) > LY_EEXIST)
      return Error{"read data models", options.directories[i], "not a readable directory"};

  std::set<std::string> names{options.modules.begin(), options.modules.end()};
  if (names.empty()) {
    auto found = ModulesIn(options.directories);
    if (!found) return found.error();
    names = std::move(found).value();
  }
  for (const Builtin& builtin : kBuiltins) {
    names.erase(builtin.name);
    std::vector<const char*> features = builtin.features;
    if (ly_ctx_load_module(ctx, builtin.name, nullptr, features.data()) == nullptr)
      return Error{"load data model", builtin.name, yang::ReadLastError(ctx).message};
  }
  const char* all_features[] = {"*", nullptr};
  for (const std::string& name : names)
    if (ly_ctx_load_module(ctx, name.c_str(), nullptr, all_features) == nullptr) {
      const yang::LastError why = yang::ReadLastError(ctx);
      return Error{"load data model", name, why.message + (why.data_path.empty() ? "" : " (" + why.data_path + ")")};
    }
  SchemaCompiler compiler{*model};
  if (const common::Status compiled = compiler.Run(); !compiled) return compiled.error();
  return model;
}

cdb_store::NodeId Model::IdOf(const lysc_node& node) {
  return static_cast<cdb_store::NodeId>(reinterpret_cast<uintptr_t>(node.priv));
}

int Model::NamespaceIndex(std::string_view uri) const {
  const auto& all = schema_.namespaces();
  const auto found = std::find_if(all.begin(), all.end(), [&](const auto& ns) { return ns.uri == uri; });
  return found == all.end() ? -1 : static_cast<int>(found - all.begin());
}

bool Model::KnowsNamespace(std::string_view uri) const {
  return ly_ctx_get_module_implemented_ns(context_.get(), std::string{uri}.c_str()) != nullptr;
}

}  // namespace cdbd
