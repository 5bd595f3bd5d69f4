#pragma once

#include <libyang/libyang.h>

#include <memory>
#include <string>

#include "common/result.h"

namespace cli {

struct FreeContext {
  void operator()(ly_ctx* context) const noexcept { ly_ctx_destroy(context); }
};
struct FreeTree {
  void operator()(lyd_node* tree) const noexcept { lyd_free_all(tree); }
};
using Models = std::unique_ptr<ly_ctx, FreeContext>;
using DataTree = std::unique_ptr<lyd_node, FreeTree>;  ///< frees its siblings and parents too

/// Every YANG module of `dir`, with all features; messages are kept for ly_err_first(3) and not printed. Fails if
/// the directory has no module, or if one is invalid.
common::Result<Models> LoadModels(const std::string& dir);

}  // namespace cli
