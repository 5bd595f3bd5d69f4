#pragma once

#include "cdb_store/store_writer.h"
#include "model/data_error.h"
#include "model/model.h"

namespace cdbd {

/// Checks every rule of the data model on the whole configuration that `view` shows (a rule may look anywhere). With
/// `txn`, whose Running() is `view`, nodes that were there before and whose "when" has become false are deleted, as
/// RFC 7950 (section 8.3.2) has it. The errors, none when it is valid. Cost follows the configuration: to be called
/// when the model has constraints.
DataErrors Validate(const Model& model, const cdb_store::View& view, cdb_store::WriteTxn* txn);

}  // namespace cdbd
