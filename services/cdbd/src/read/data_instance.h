#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/schema.h"
#include "common/function_ref.h"

namespace cdbd {

/// The texts of the keys of one list entry, in key order.
using EntryKeys = std::vector<std::string_view>;

/// One instance of a container or of a list entry, or the root, in a source of data: the store, a row of a data
/// provider, the server's own state. Valid for the time of the call that it is handed to.
class DataInstance {
 public:
  using Node = cdb_store::Node;
  using VisitText = common::FunctionRef<void(std::string_view)>;
  using VisitInstance = common::FunctionRef<void(const DataInstance&)>;

  virtual ~DataInstance() = default;

  /// The canonical text of a leaf of this instance (keys included), or nullopt if it is not set. May be in `buffer`.
  [[nodiscard]] virtual std::optional<std::string_view> Leaf(const Node& leaf, std::string* buffer) const = 0;
  /// Visits the canonical texts of the entries of a leaf-list.
  virtual void LeafList(const Node& list, VisitText visit) const = 0;
  /// `text` is an entry of a leaf-list, in whatever form.
  [[nodiscard]] virtual bool HasEntry(const Node& list, std::string_view text) const = 0;
  /// Visits the instances in this one of `node`, a container or a list. With `named`, the source may leave out list
  /// entries that do not have one of these keys.
  virtual void Instances(const Node& node, const std::vector<EntryKeys>* named, VisitInstance visit) const = 0;
  /// The encoded keys of the instance, which tell a data provider which instance holds its list; "" at the top.
  [[nodiscard]] virtual std::string_view keys() const { return {}; }
};

}  // namespace cdbd
