#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/schema.h"
#include "common/result.h"
#include "read/data_writer.h"

namespace cdbd {

/// The data providers that are connected.
class Providers {
 public:
  using Rows = common::Result<std::vector<ProvidedRow>>;
  using Done = std::function<void(Rows)>;

  virtual ~Providers() = default;
  /// Somebody serves the callpoint now.
  [[nodiscard]] virtual bool Serves(const std::string& callpoint) const = 0;
  /// All entries of `list` below the instance with `parent_keys`. `done` is called once, perhaps from within; an error
  /// names the callpoint.
  virtual void Fetch(const cdb_store::Node& list, std::string_view parent_keys, Done done) = 0;
};

}  // namespace cdbd
