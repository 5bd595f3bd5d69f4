#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/schema.h"
#include "confd_lib.h"

namespace confd {

/// Holds the way from the root to a node and writes it as a keypath.
class KeypathBuilder final {
 public:
  explicit KeypathBuilder(const cdb_store::Schema& schema) : schema_{&schema} {}

  void PushNode(const cdb_store::Node& node);
  /// The keys of an instance of the list or leaf-list pushed last; `keys` are encoded, those of the lists above
  /// included.
  void PushKeys(const cdb_store::Node& node, std::string_view keys);
  void Pop() { --size_; }

  /// The keypath, deepest element first. Valid until the next call on this object.
  confd_hkeypath_t* Build();

 private:
  struct Element {
    size_t count = 0;  ///< values in use
    std::array<confd_value_t, MAXKEYLEN> values;
    std::vector<std::string> strings;  ///< what C_BUF and C_BINARY values point at
  };

  const cdb_store::Schema* schema_;
  std::array<Element, MAXDEPTH> elements_;
  size_t size_ = 0;
  confd_hkeypath_t keypath_;
};

/// The keypath of an instance given by its node and encoded keys, in `builder`.
void PushPath(KeypathBuilder& builder, const cdb_store::Schema& schema, const cdb_store::Node& node,
              std::string_view keys);

}  // namespace confd
