#include "dataplane/tcx/bpf_fs.h"

#include <bpf/bpf.h>
#include <dirent.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

#include "common/paths.h"
#include "common/unique_fd.h"

namespace mgr::tcx {
namespace {

constexpr std::array<const char*, 3> kSuffixes = {"", "-new", "-blind"};

}  // namespace

std::string BpfFsPath(const std::string& run_dir) { return run_dir + "/bpf"; }

bool IsBpfFs(const std::string& path) {
  struct statfs info {};
  return statfs(path.c_str(), &info) == 0 && info.f_type == BPF_FS_MAGIC;
}

common::Result<std::string> MountBpfFs(const std::string& run_dir) {
  const std::string path = BpfFsPath(run_dir);
  if (IsBpfFs(path)) return path;
  if (common::Status made = common::EnsureDir(path); !made.ok()) return made.error();
  if (mount("bpf", path.c_str(), "bpf", 0, "mode=0700") == 0) return path;
  if (errno == EPERM) return common::Error{"mount bpf", path, "no permission; mount it there beforehand"};
  return common::SystemError("mount bpf", path, errno);
}

void UnmountBpfFs(const std::string& mount) {
  if (umount2(mount.c_str(), MNT_DETACH) == 0) rmdir(mount.c_str());
}

std::string MapDir::Name() const {
  return "v" + std::to_string(layout) + "-" + std::to_string(slots) + kSuffixes.at(static_cast<size_t>(state));
}

std::optional<MapDir> ParseMapDir(const std::string& name) {
  MapDir dir;
  if (std::sscanf(name.c_str(), "v%u-%u", &dir.layout, &dir.slots) != 2) return std::nullopt;
  for (const MapDir::State state : {MapDir::State::kComplete, MapDir::State::kNew, MapDir::State::kBlind}) {
    dir.state = state;
    if (dir.Name() == name) return dir;
  }
  return std::nullopt;
}

std::vector<std::string> ListNames(const std::string& dir) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> handle{opendir(dir.c_str()), closedir};
  if (handle == nullptr) return names;
  while (const dirent* entry = readdir(handle.get())) {
    const std::string name = entry->d_name;
    if (!name.starts_with('.') && name != "maps.debug" && name != "progs.debug") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

void RemovePins(const std::string& path) {
  for (const std::string& name : ListNames(path)) RemovePins(path + "/" + name);
  // An attachment that is only not pinned any more would go on for a while.
  if (const common::UniqueFd link{bpf_obj_get(path.c_str())}; link && KindOf(link.get()) == PinKind::kLink)
    bpf_link_detach(link.get());
  std::remove(path.c_str());  // what cannot be removed now is found again by the next process
}

PinKind KindOf(int object) {
  std::array<char, 64> text{};
  const std::string descriptor = "/proc/self/fd/" + std::to_string(object);
  if (readlink(descriptor.c_str(), text.data(), text.size() - 1) < 0) return PinKind::kOther;
  const std::string_view kind{text.data()};
  if (kind == "anon_inode:bpf-map") return PinKind::kMap;
  // The kernel writes it in two ways: of a link that was made here, and of one that was pinned.
  return kind == "anon_inode:bpf_link" || kind == "anon_inode:bpf-link" ? PinKind::kLink : PinKind::kOther;
}

}  // namespace mgr::tcx
