#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"

/// The bpffs in which a manager keeps its maps and links while no process holds them.
///
///     <run directory>/bpf                     a mount of its own
///         v<layout>-<slots>/<map>             the maps; "-new" or "-blind" behind the name until they are complete
///         links/if-<interface index>          the attachments
namespace mgr::tcx {

std::string BpfFsPath(const std::string& run_dir);
bool IsBpfFs(const std::string& path);
/// Finds the bpffs below `run_dir` mounted, or makes and mounts it, which needs CAP_SYS_ADMIN. The path of the mount.
common::Result<std::string> MountBpfFs(const std::string& run_dir);
/// Unmounts it; a mount that is in use stays until its last user ends.
void UnmountBpfFs(const std::string& mount);

/// A directory of maps.
struct MapDir {
  enum class State : uint8_t {
    kComplete,
    kNew,   ///< everything of the earlier ones is copied here; complete in fact when there is no other any more
    kBlind  ///< made beside what cannot be read; never taken over before it is complete
  };
  uint32_t layout = 0;
  uint32_t slots = 0;  ///< size of the entry map
  State state = State::kNew;
  [[nodiscard]] bool complete() const noexcept { return state == State::kComplete; }
  [[nodiscard]] std::string Name() const;
};
std::optional<MapDir> ParseMapDir(const std::string& name);

/// What is pinned in `dir`, sorted; not the files that the kernel puts into every bpffs.
std::vector<std::string> ListNames(const std::string& dir);
/// Removes a pin, or a directory and all that is in it; attachments among it end at once. Absent is no error.
void RemovePins(const std::string& path);

enum class PinKind : uint8_t { kMap, kLink, kOther };
PinKind KindOf(int object);

}  // namespace mgr::tcx
