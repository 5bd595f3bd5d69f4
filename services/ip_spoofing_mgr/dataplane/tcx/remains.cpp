#include <bpf/bpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/unique_fd.h"
#include "dataplane/tcx/bpf_fs.h"
#include "dataplane/tcx/links.h"
#include "dataplane/tcx/tcx_dataplane.h"

namespace mgr {
namespace {

/// What is below a directory of a bpffs.
struct Pinned {
  size_t pins = 0;
  size_t attachments = 0;  ///< to interfaces that there are
  int unseen = 0;          ///< an errno: there is a directory that this process may not look into
  int fixed = 0;           ///< an errno: there is one that it may not take pins out of
};

/// One that may not be opened is known by its name alone.
bool IsAttachment(const std::string& dir, const std::string& name) {
  const common::UniqueFd pin{bpf_obj_get((dir + "/" + name).c_str())};
  if (!pin) return name.starts_with("if-");
  return tcx::KindOf(pin.get()) == tcx::PinKind::kLink && tcx::InterfaceOf(pin.get()) != 0;
}

void Look(const std::string& dir, Pinned* pinned) {
  if (access(dir.c_str(), R_OK | X_OK) != 0) pinned->unseen = errno;
  if (access(dir.c_str(), W_OK) != 0) pinned->fixed = errno;
  for (const std::string& name : tcx::ListNames(dir)) {
    struct stat info {};
    if (stat((dir + "/" + name).c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
      Look(dir + "/" + name, pinned);
      continue;
    }
    ++pinned->pins;
    if (IsAttachment(dir, name)) ++pinned->attachments;
  }
}

Pinned LookAt(const std::string& mount) {
  Pinned pinned;
  if (tcx::IsBpfFs(mount)) Look(mount, &pinned);
  return pinned;
}

}  // namespace

std::optional<Remains> FindTcx(const DataplaneOptions& options) {
  const std::string mount = tcx::BpfFsPath(options.run_dir);
  const Pinned found = LookAt(mount);
  if (found.pins == 0 && found.unseen == 0) return std::nullopt;
  Remains remains{.ports = found.attachments, .where = "pinned in " + mount, .obstacle = {}, .end = {}};
  if (found.unseen != 0) remains.ports.reset();
  if (const int error = found.unseen != 0 ? found.unseen : found.fixed; error != 0)
    remains.obstacle = std::strerror(error);
  remains.end = [mount]() -> common::Status {
    for (const std::string& name : tcx::ListNames(mount)) tcx::RemovePins(mount + "/" + name);
    if (LookAt(mount).pins == 0) return common::Ok();
    return common::Error{"remove the pins", mount, "some stay"};
  };
  return remains;
}

}  // namespace mgr
