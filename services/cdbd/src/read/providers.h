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
  /// What is asked for, and by whom.
  struct Request {
    const cdb_store::Node* list = nullptr;
    std::string parent_keys;  ///< of the instance that holds the list
    std::string user;
    std::function<bool()> wanted;  ///< false: nobody waits for the answer any more
  };
  /// All entries of the list. `done` is called once, perhaps from within, unless the answer is no longer wanted; an
  /// error names the callpoint.
  virtual void Fetch(Request request, Done done) = 0;
};

}  // namespace cdbd
