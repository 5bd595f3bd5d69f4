#include "dataplane/tcx/bpf_fs.h"

#include <dirent.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "common/paths.h"

namespace mgr::tcx {
namespace {

constexpr const char* kUnfinished = "-new";

bool IsBpfFs(const std::string& path) {
  struct statfs info {};
  return statfs(path.c_str(), &info) == 0 && info.f_type == BPF_FS_MAGIC;
}

}  // namespace

common::Result<std::string> MountBpfFs(const std::string& run_dir) {
  const std::string path = run_dir + "/bpf";
  if (IsBpfFs(path)) return path;
  if (common::Status made = common::EnsureDir(path); !made.ok()) return made.error();
  if (mount("bpf", path.c_str(), "bpf", 0, "mode=0700") != 0) return common::SystemError("mount bpf", path, errno);
  return path;
}

void UnmountBpfFs(const std::string& mount) {
  if (umount2(mount.c_str(), MNT_DETACH) == 0) rmdir(mount.c_str());
}

std::string MapDir::Name() const {
  return "v" + std::to_string(layout) + "-" + std::to_string(slots) + (complete ? "" : kUnfinished);
}

std::optional<MapDir> ParseMapDir(const std::string& name) {
  MapDir dir;
  if (std::sscanf(name.c_str(), "v%u-%u", &dir.layout, &dir.slots) != 2) return std::nullopt;
  dir.complete = !name.ends_with(kUnfinished);
  if (dir.Name() != name) return std::nullopt;
  return dir;
}

std::vector<std::string> ListNames(const std::string& dir) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> handle{opendir(dir.c_str()), closedir};
  if (handle == nullptr) return names;
  while (const dirent* entry = readdir(handle.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

std::vector<MapDir> ListMapDirs(const std::string& mount) {
  std::vector<MapDir> dirs;
  for (const std::string& name : ListNames(mount))
    if (const auto dir = ParseMapDir(name)) dirs.push_back(*dir);
  return dirs;
}

void RemovePins(const std::string& dir) {
  for (const std::string& name : ListNames(dir)) unlink((dir + "/" + name).c_str());
  rmdir(dir.c_str());
}

}  // namespace mgr::tcx
