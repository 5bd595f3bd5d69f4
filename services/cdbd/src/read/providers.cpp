#include "read/providers.h"

#include <algorithm>

namespace cdbd {

const std::string* ProvidedRow::Find(cdb_store::NodeId id) const {
  const auto found = std::find_if(leaves.begin(), leaves.end(), [id](const auto& leaf) { return leaf.first == id; });
  return found == leaves.end() ? nullptr : &found->second;
}

}  // namespace cdbd
