#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"

/// The bpffs in which a manager keeps its maps and links while no process holds them.
///
///     <run directory>/bpf                     a mount of its own
///         v<layout>-<slots>/<map>             the maps; "-new" behind the name until they are complete
///         links/if-<interface index>          the attachments
namespace mgr::tcx {

/// Makes and mounts the bpffs below `run_dir`, or finds it mounted. The path of the mount.
common::Result<std::string> MountBpfFs(const std::string& run_dir);
/// Unmounts it; a mount that is in use stays until its last user ends.
void UnmountBpfFs(const std::string& mount);

/// A directory of maps.
struct MapDir {
  uint32_t layout = 0;
  uint32_t slots = 0;     ///< size of the entry map
  bool complete = false;  ///< holds everything; an incomplete one may be thrown away while a complete one is there
  [[nodiscard]] std::string Name() const;
};
std::optional<MapDir> ParseMapDir(const std::string& name);
std::vector<MapDir> ListMapDirs(const std::string& mount);

std::vector<std::string> ListNames(const std::string& dir);
/// Removes the directory and the pins in it; absent is no error.
void RemovePins(const std::string& dir);

}  // namespace mgr::tcx
