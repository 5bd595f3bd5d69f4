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

const std::map<PortId, std::string>& Dataplane::Unguarded() const {
  static const std::map<PortId, std::string> kNone;
  return kNone;
}

std::span<const DataplaneKind> DataplaneKinds() {
  static constexpr std::array kKinds{
#ifdef HAVE_TCX
      DataplaneKind{"tcx", OpenTcx, FindTcx},
#endif
#ifdef HAVE_NFT
      DataplaneKind{"nft", OpenNft, FindNft},
#endif
      DataplaneKind{"memory", OpenMemoryDataplane, FindNothing},
  };
  return kKinds;
}

}  // namespace mgr
