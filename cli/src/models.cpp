#include "models.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <vector>

#include "yang/last_error.h"

namespace cli {
namespace {

/// "name@2026-11-21.yang" and "name.yang" both hold the module "name".
std::vector<std::string> ModuleNames(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& file : std::filesystem::directory_iterator(dir, error)) {
    if (file.path().extension() != ".yang") continue;
    const std::string stem = file.path().stem().string();
    names.push_back(stem.substr(0, stem.find('@')));
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

common::Result<Models> LoadModels(const std::string& dir) {
  ly_log_options(LY_LOSTORE);
  const std::vector<std::string> names = ModuleNames(dir);
  if (names.empty()) return common::Error{"load data models", dir, "no YANG module there"};
  ly_ctx* raw = nullptr;
  if (ly_ctx_new(dir.c_str(), LY_CTX_DISABLE_SEARCHDIR_CWD, &raw) != LY_SUCCESS) {
    return common::Error{"load data models", dir, "libyang could not start"};
  }
  Models models{raw};
  std::array<const char*, 2> all_features{"*", nullptr};
  for (const std::string& name : names) {
    if (ly_ctx_load_module(raw, name.c_str(), nullptr, all_features.data()) != nullptr) continue;
    return common::Error{"load data model", name, yang::ReadFirstError(raw).message};
  }
  return models;
}

}  // namespace cli
