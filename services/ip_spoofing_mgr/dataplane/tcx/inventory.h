#pragma once

#include <string>
#include <vector>

#include "dataplane/tcx/bpf_fs.h"

namespace mgr::tcx {

/// What earlier processes have pinned below a mount.
struct Inventory {
  std::vector<MapDir> readable;  ///< maps of this layout, whole and of the right form
  /// Everything else but what was begun beside it, with the reason: "/run/../v2-64: another layout".
  std::vector<std::string> unreadable;
  bool attached = false;  ///< there are attachments that enforce something
};

/// Looks at everything below `mount`, and changes nothing.
Inventory TakeInventory(const std::string& mount);

}  // namespace mgr::tcx
