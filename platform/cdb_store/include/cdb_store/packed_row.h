#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cdb_store/schema.h"

namespace cdb_store {

/* A row is the leaves of one instance (those in containers without presence below it included), in schema order:
 * varint node id, varint size, stored value. Key leaves are not in it: they are in the record key. */

struct PackedLeaf {
  NodeId id = 0;
  std::string_view value;
};

/// Walks the leaves of a row. Stops early on malformed bytes (ok() is then false).
class PackedRowReader final {
 public:
  explicit PackedRowReader(std::string_view row) : rest_{row} {}
  /// The next leaf, nothing at the end.
  std::optional<PackedLeaf> Next();
  [[nodiscard]] bool ok() const noexcept { return ok_; }

 private:
  std::string_view rest_;
  bool ok_ = true;
};

/// The leaf's value in `row`, a view into it.
std::optional<std::string_view> FindLeaf(std::string_view row, NodeId leaf);
/// `row` with the leaf set.
std::string WithLeaf(std::string_view row, NodeId leaf, std::string_view value);
/// `row` without the leaves whose id is in [first, end).
std::string WithoutLeaves(std::string_view row, NodeId first, NodeId end);
/// A leaf whose id is in [first, end) is in `row`.
bool HasLeafIn(std::string_view row, NodeId first, NodeId end);

}  // namespace cdb_store
