#include "common/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace common {
namespace {

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::string RunDir() {
  if (std::string dir = Environment(kRunDirVariable); !dir.empty()) return dir;
  if (::geteuid() == 0) return "/run/ip-spoofing";
  if (std::string dir = Environment("XDG_RUNTIME_DIR"); !dir.empty()) return dir + "/ip-spoofing";
  return "/tmp/ip-spoofing-" + std::to_string(::geteuid());
}

std::string StateDir() {
  if (std::string dir = Environment(kStateDirVariable); !dir.empty()) return dir;
  if (::geteuid() == 0) return "/var/lib/ip-spoofing";
  if (std::string dir = Environment("XDG_STATE_HOME"); !dir.empty()) return dir + "/ip-spoofing";
  return Environment("HOME") + "/.local/state/ip-spoofing";
}

std::string CdbSocketPath() { return RunDir() + "/cdb.sock"; }
std::string NetconfSocketPath() { return RunDir() + "/netconf.sock"; }
std::string MgrSocketPath() { return RunDir() + "/mgr.sock"; }
std::string MgrControlSocketPath() { return RunDir() + "/mgr-ctl.sock"; }
std::string FaultFilePath() { return RunDir() + "/faults.jsonl"; }
std::string CdbStorePath() { return StateDir() + "/cdb"; }

std::string ModelsDir() {
  if (std::string dir = Environment(kModelsDirVariable); !dir.empty()) return dir;
  std::error_code error;
  std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  while (folder.has_relative_path()) {
    const std::filesystem::path candidate = folder / "share/ip-spoofing/models";
    if (std::filesystem::is_directory(candidate, error)) return candidate.string();
    folder = folder.parent_path();
  }
  return {};
}

Status EnsureDir(const std::string& path) {
  std::error_code error;
  const bool created = std::filesystem::create_directories(path, error);
  if (error) return Error{"create directory", path, error.message()};
  if (created) ::chmod(path.c_str(), 0750);
  if (!std::filesystem::is_directory(path, error)) return SystemError("open directory", path, ENOTDIR);
  if (::access(path.c_str(), R_OK | W_OK | X_OK) != 0) return SystemError("open directory", path, errno);
  return Ok();
}

Status EnsurePrivateDir(const std::string& path) {
  if (Status made = EnsureDir(path); !made) return made;
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return SystemError("stat", path, errno);
  if (info.st_uid != 0 && info.st_uid != ::geteuid()) {
    return Error{"use directory", path,
                 "it belongs to user " + std::to_string(info.st_uid) + ", not to root or to this process's user " +
                     std::to_string(::geteuid())};
  }
  if ((info.st_mode & S_IWOTH) != 0) {
    return Error{"use directory", path, "every user may write to it; take that away with chmod o-w"};
  }
  return Ok();
}

}  // namespace common
