#pragma once

#include <libyang/libyang.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/schema.h"
#include "common/result.h"

namespace cdbd {

struct FreeContext {
  void operator()(ly_ctx* ctx) const noexcept { ly_ctx_destroy(ctx); }
};
using ContextPtr = std::unique_ptr<ly_ctx, FreeContext>;

struct FreeTree {
  void operator()(lyd_node* tree) const noexcept { lyd_free_all(tree); }
};
using TreePtr = std::unique_ptr<lyd_node, FreeTree>;

struct ModelOptions {
  std::vector<std::string> directories;  ///< where modules are looked for; at least one
  std::vector<std::string> modules;      ///< served ones; empty: every module of the directories
};

/// What cdbd knows of a node beyond what the store's schema says.
struct NodeExtras {
  const lysc_node* schema = nullptr;      ///< null for the root
  std::vector<cdb_store::NodeId> rivals;  ///< nodes in other cases of its choices: gone when this one is set
};

/// Of the server's own module, cdb-monitor.
inline constexpr const char* kMonitorNs = "urn:ip-spoofing:cdb-monitor";

/// The compiled data model: libyang's context, and the store's schema made from it. Immutable once loaded.
class Model final {
 public:
  /// Compiles the modules. Fails with libyang's words, or on what the store cannot hold (user-ordered lists, anydata,
  /// ...).
  static common::Result<std::unique_ptr<Model>> Load(const ModelOptions& options);

  [[nodiscard]] const cdb_store::Schema& schema() const noexcept { return schema_; }
  [[nodiscard]] const ly_ctx* context() const noexcept { return context_.get(); }
  [[nodiscard]] const NodeExtras& extras(const cdb_store::Node& node) const { return extras_[node.id]; }
  /// The data model has a rule that involves more than the value of one leaf: must, when, leafref, unique, mandatory,
  /// ...
  [[nodiscard]] bool has_constraints() const noexcept { return has_constraints_; }

  /// Number of the data node, kRootId when the schema does not have it.
  [[nodiscard]] static cdb_store::NodeId IdOf(const lysc_node& node);
  /// Index in schema().namespaces() of a namespace name, or -1.
  [[nodiscard]] int NamespaceIndex(std::string_view uri) const;
  /// The namespace belongs to a module that is served, with or without data nodes of its own.
  [[nodiscard]] bool KnowsNamespace(std::string_view uri) const;
  /// Changes whenever the set of modules does.
  [[nodiscard]] const std::string& content_id() const noexcept { return content_id_; }
  /// Changes whenever anything does that a module says of its data, restrictions and rules included.
  [[nodiscard]] const std::string& version() const noexcept { return version_; }

 private:
  friend class SchemaCompiler;
  Model() = default;

  ContextPtr context_;
  cdb_store::Schema schema_;
  std::vector<NodeExtras> extras_;
  bool has_constraints_ = false;
  std::string content_id_;
  std::string version_;
};

}  // namespace cdbd
