#pragma once

#include "cdb_store/view.h"
#include "model/model.h"

namespace cdbd {

/// Whether the data model allows the whole of a stored configuration, as it must be asked when the model has changed
/// under it. The error names the first node that it does not allow and says why.
common::Status CheckStored(const Model& model, const cdb_store::View& view);

}  // namespace cdbd
