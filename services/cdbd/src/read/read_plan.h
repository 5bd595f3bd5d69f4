#pragma once

#include <string>
#include <vector>

#include "cdb_store/schema.h"
#include "read/data_instance.h"
#include "read/filter.h"

namespace cdbd {

/// A provided list that a selection needs.
struct NeededList {
  const cdb_store::Node* list = nullptr;
  std::string parent_keys;  ///< of the instance that holds it
  Selection candidates;     ///< the filter elements of its name
};

/// The provided lists that `selection` needs, in schema order. Looks only at what holds such lists.
std::vector<NeededList> PlanRead(const cdb_store::Schema& schema, const DataInstance& root, const Selection& selection);

}  // namespace cdbd
