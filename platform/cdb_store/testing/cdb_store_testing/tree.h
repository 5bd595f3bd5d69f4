#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/store_writer.h"

/// Trees as text: "/tb:box/site{north}/height" = "1.50".
namespace cdb_store::testing {

/// One value to write. An instance, presence container or type empty leaf has an empty value.
struct PathValue {
  std::string path;
  std::string value;
};

/// Makes the instance or leaf at `path`, and the instances above it that are missing. Aborts on a bad path or value.
void Put(WriteTxn& txn, std::string_view path, std::string_view value = "");
/// Removes what is at and below `path` (a list without keys: every instance).
void Remove(WriteTxn& txn, std::string_view path);
/// Put() of each row, in one normal commit.
Txid CommitTree(StoreWriter& store, const std::vector<PathValue>& tree);

/// Every instance, presence container and leaf (keys included) in schema and key order: "path" or "path = value".
std::vector<std::string> Dump(const View& view);

}  // namespace cdb_store::testing
