#include "dataplane/dataplanes.h"

#include <array>

#include "dataplane/memory_dataplane.h"
#ifdef HAVE_NFT
#include "dataplane/nft/nft_dataplane.h"
#endif
#ifdef HAVE_TCX
#include "dataplane/tcx/tcx_dataplane.h"
#endif

namespace mgr {

std::span<const DataplaneKind> DataplaneKinds() {
  static constexpr std::array kKinds{
#ifdef HAVE_TCX
      DataplaneKind{"tcx", OpenTcx},
#endif
#ifdef HAVE_NFT
      DataplaneKind{"nft", OpenNft},
#endif
      DataplaneKind{"memory", OpenMemoryDataplane},
  };
  return kKinds;
}

}  // namespace mgr
