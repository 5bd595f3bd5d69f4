#pragma once

#include "cdb_store/schema.h"
#include "common/function_ref.h"
#include "read/data_instance.h"
#include "read/filter.h"

namespace cdbd {

/// What `candidates`, the filter elements of the name of `node`, select of its instance `instance`.
Selection SelectedOf(const cdb_store::Schema& schema, const cdb_store::Node& node, const DataInstance& instance,
                     const Selection& candidates);

/// Visits the instances in `holder` of `node`, a container or a list, of which `candidates` select something. Cost
/// follows what is selected: list entries named by all their keys are looked up.
void ForEachSelected(const cdb_store::Schema& schema, const cdb_store::Node& node, const DataInstance& holder,
                     const Selection& candidates,
                     common::FunctionRef<void(const DataInstance&, const Selection&)> visit);

}  // namespace cdbd
