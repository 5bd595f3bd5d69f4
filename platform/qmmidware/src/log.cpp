/// Logs and traces of a process are categories of zlog. The first use initialises zlog, with the first of: the file
/// that ZLOG_CONF_PATH names, zlog.conf in the state directory, /etc/ip-spoofing/zlog.conf. Without any of them, or
/// when it is wrong, the rules of the packaged file hold, so that a program always has its log.
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/paths.h"
#include "common/unique_fd.h"
#include "default_zlog_conf.h"
#include "qmmw.h"

namespace {

constexpr const char* kSystemConfig = "/etc/ip-spoofing/zlog.conf";
constexpr int kDebug = 20;  // zlog's own levels
constexpr int kInfo = 40;

enum class ZlogState { kNone, kAsConfigured, kBuiltIn, kFailed };

/// "" when no file is there.
std::string ConfigPath() {
  if (const char* path = std::getenv("ZLOG_CONF_PATH"); path != nullptr && *path != '\0') return path;
  const std::string own = common::StateDir() + "/zlog.conf";
  for (const std::string& path : {own, std::string{kSystemConfig}}) {
    if (::access(path.c_str(), F_OK) == 0) return path;
  }
  return "";
}

bool InitialiseFromBuiltInRules() {
  const common::UniqueFd file{::memfd_create("zlog.conf", MFD_CLOEXEC)};
  const size_t size = std::strlen(kDefaultZlogConf);
  if (!file || ::write(file.get(), kDefaultZlogConf, size) != static_cast<ssize_t>(size)) return false;
  return zlog_init(("/proc/self/fd/" + std::to_string(file.get())).c_str()) == 0;
}

ZlogState Initialised() {
  static ZlogState state = ZlogState::kNone;
  if (state != ZlogState::kNone) return state;
  const std::string path = ConfigPath();
  if (!path.empty() && zlog_init(path.c_str()) == 0) return state = ZlogState::kAsConfigured;
  if (!InitialiseFromBuiltInRules()) return state = ZlogState::kFailed;
  return state = path.empty() ? ZlogState::kAsConfigured : ZlogState::kBuiltIn;
}

}  // namespace

struct qmmw_log {
  int id;
  int sub_id;
  zlog_category_t* category;
};

struct qmmw_trace {};

namespace {

/// One line of the process log: "id.sub_id", then the text.
void Write(const qmmw_log& log, int level, const char* format, va_list args) {
  if (zlog_level_enabled(log.category, level) == 0) return;
  std::array<char, 2048> text{};
  std::vsnprintf(text.data(), text.size(), format, args);
  zlog(log.category, "", 0, "", 0, 0, level, "%d.%d %s", log.id, log.sub_id, text.data());
}

}  // namespace

qmmw_log_t* qmmw_log_init(qmmw_t* mw, int id, int sub_id, const char* name) {
  if (mw == nullptr || name == nullptr || Initialised() == ZlogState::kFailed) return nullptr;
  zlog_category_t* category = zlog_get_category(name);
  return category != nullptr ? new qmmw_log{id, sub_id, category} : nullptr;
}

void qmmw_log_finish(qmmw_log_t** log) {
  if (log == nullptr) return;
  delete *log;
  *log = nullptr;
}

void qmmw_vlog(qmmw_log_t* log, const char* format, va_list args) {
  if (log != nullptr && format != nullptr) Write(*log, kInfo, format, args);
}

void qmmw_vlog_debug(qmmw_log_t* log, const char* format, va_list args) {
  if (log != nullptr && format != nullptr) Write(*log, kDebug, format, args);
}

qmmw_trace_t* qmmw_trace_init(qmmw_t* mw, const char* name) {
  static qmmw_trace trace;  // one per process
  if (mw == nullptr || name == nullptr || *name == '\0') return nullptr;
  return Initialised() == ZlogState::kAsConfigured ? &trace : nullptr;
}

zlog_category_t* qmmw_trace_register_category(const char* name) {
  return Initialised() == ZlogState::kFailed ? nullptr : zlog_get_category(name);
}
