#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>

#include "model/model.h"
#include "read/data_instance.h"

namespace cdbd {

/// The server's own state: top-level containers, each made when it is read.
class StateReader final {
 public:
  /// Appends the whole container as XML, or nothing if there is none now.
  using Source = std::function<void(std::string* out)>;

  /// `model` outlives it.
  explicit StateReader(const Model& model) : model_{model} {}

  /// `ns` and `name` are those of the container, a top-level node of the data model.
  void Add(std::string_view ns, std::string_view name, Source source);
  /// Visits the container `node`. False if it is not of the server's own state.
  bool Visit(const cdb_store::Node& node, DataInstance::VisitInstance visit) const;

 private:
  const Model& model_;
  std::map<cdb_store::NodeId, Source> sources_;
};

/// RFC 3339 text in UTC, "2026-11-21T07:30:00Z".
std::string DateAndTime(std::chrono::system_clock::time_point time);

}  // namespace cdbd
