#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cdb_store/schema.h"
#include "common/result.h"

namespace cdbd {

/// One entry of a list that a data provider serves: the texts of its leaves, keys included.
struct ProvidedRow {
  std::vector<std::pair<cdb_store::NodeId, std::string>> leaves;
  /// Null when the entry has no such leaf.
  [[nodiscard]] const std::string* Find(cdb_store::NodeId id) const;
};

/// The data providers that are connected.
class Providers {
 public:
  using Done = std::function<void(common::Status)>;

  virtual ~Providers() = default;
  /// A provider that serves the callpoint is connected.
  [[nodiscard]] virtual bool Serves(const std::string& callpoint) const = 0;
  /// What is read, and for which user.
  struct Request {
    const cdb_store::Node* list = nullptr;
    std::string parent_keys;  ///< of the instance that holds the list
    std::string user;
    std::function<bool()> wanted;                  ///< false: the client that asked has gone
    std::function<void(const ProvidedRow&)> take;  ///< called for each entry, in the provider's order, before `done`
  };
  /// All entries of the list. `done` is called once, perhaps from within, unless the answer is no longer wanted; an
  /// error names the callpoint.
  virtual void Fetch(Request request, Done done) = 0;
};

}  // namespace cdbd
