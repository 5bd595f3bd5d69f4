#pragma once

#include <map>
#include <optional>
#include <string>

#include "cdb_store/schema_builder.h"
#include "model/model.h"

namespace cdbd {

/// Makes the store's schema, and what cdbd knows beside it, from a compiled libyang context.
class SchemaCompiler final {
 public:
  explicit SchemaCompiler(Model& model) : model_{model} {}
  common::Status Run();

 private:
  using NodeId = cdb_store::NodeId;

  common::Status AddChildren(const lysc_node* first, NodeId parent, bool under_provider);
  common::Status AddNode(const lysc_node& node, NodeId parent, bool under_provider);
  common::Status FillType(const lysc_node& node, cdb_store::NodeSpec* spec) const;
  uint16_t NamespaceOf(const lys_module& module);
  void NoteConstraints(const lysc_node& node);
  void FindRivals();
  common::Status SetVersion();

  Model& model_;
  cdb_store::SchemaBuilder builder_;
  std::map<const lys_module*, uint16_t> namespaces_;
};

}  // namespace cdbd
