#include "dataplane/dataplanes.h"

#include <array>

#include "dataplane/memory_dataplane.h"

namespace mgr {

std::span<const DataplaneKind> DataplaneKinds() {
  static constexpr std::array kKinds{
      DataplaneKind{"memory", OpenMemoryDataplane},
  };
  return kKinds;
}

}  // namespace mgr
