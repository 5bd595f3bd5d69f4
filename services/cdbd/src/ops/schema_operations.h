#pragma once

#include "model/model.h"
#include "ops/operations.h"

namespace cdbd {

/// <get-schema> (RFC 6022).
class SchemaOperations final {
 public:
  /// `model` outlives it.
  explicit SchemaOperations(const Model& model) : model_{model} {}
  void AddTo(Operations* operations);

 private:
  void GetSchema(const RpcPtr& rpc) const;

  const Model& model_;
};

}  // namespace cdbd
