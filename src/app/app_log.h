/// @file app_log.h
/// Log lines, and the set-up of the middleware's log and trace systems.
#pragma once

#include <cstdarg>
#include <cstring>

#include "qmmw.h"
#include "utils/call_site.h"
#include "zlog.h"

namespace ip_spoofing_app {

/// Levels as the element's zlog configuration numbers them.
enum LogLevel : int {
  LOG_DETAIL = 10,  ///< per item; written, and its arguments evaluated, only when the level is on
  LOG_INFO = 11,    ///< milestones; always handed to zlog
  LOG_ERROR = 12,   ///< errors that do not stop the daemon; always handed to zlog
};

/// Sets up the middleware's log and trace systems; without them the daemon runs on. One object per process: the log
/// handle is the class's.
class IpSpoofAppLog {
 public:
  /// A null `mw` sets up nothing. A facility that does not start is a non-fatal fault and is not tried again.
  explicit IpSpoofAppLog(qmmw_t* mw);
  IpSpoofAppLog(const IpSpoofAppLog&) = delete;
  IpSpoofAppLog& operator=(const IpSpoofAppLog&) = delete;
  ~IpSpoofAppLog();

  /// Writes to the middleware's log; does nothing without one. Wraps `qmmw_vlog`.
  static void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
  /// Wraps `qmmw_vlog_debug` in the same way.
  static void LogDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));

 private:
  static qmmw_log_t* log_;
};

}  // namespace ip_spoofing_app

/// One line at `level` on `category`, from the place `site`; then a printf format with its arguments.
#define LOG_LINE_AT(site, category, level, ...)                                                                    \
  do {                                                                                                             \
    const ::ip_spoofing_app::CallSite log_site = (site);                                                           \
    zlog((category), log_site.file, std::strlen(log_site.file), log_site.function, std::strlen(log_site.function), \
         log_site.line, (level), __VA_ARGS__);                                                                     \
  } while (false)

/// A detail line: with the level off, nothing after `category` is evaluated.
#define LOG_DETAIL_LINE_AT(site, category, ...)                                \
  do {                                                                         \
    if (zlog_level_enabled((category), ::ip_spoofing_app::LOG_DETAIL) != 0) {  \
      LOG_LINE_AT(site, category, ::ip_spoofing_app::LOG_DETAIL, __VA_ARGS__); \
    }                                                                          \
  } while (false)

#define LOG_DETAIL_LINE(category, ...) LOG_DETAIL_LINE_AT(CALL_SITE, category, __VA_ARGS__)
#define LOG_INFO_LINE(category, ...) LOG_LINE_AT(CALL_SITE, category, ::ip_spoofing_app::LOG_INFO, __VA_ARGS__)
#define LOG_ERROR_LINE(category, ...) LOG_LINE_AT(CALL_SITE, category, ::ip_spoofing_app::LOG_ERROR, __VA_ARGS__)
