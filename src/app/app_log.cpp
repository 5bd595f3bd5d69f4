#include "app/app_log.h"

#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

// Identifiers of this daemon in the middleware's log system.
constexpr int kLogId = 38;
constexpr int kLogSubId = 23;
constexpr char kLogName[] = "IP_SPOOFING";
constexpr char kTraceName[] = "ip-spoofing-app";

}  // namespace

qmmw_log_t* IpSpoofAppLog::log_ = nullptr;

IpSpoofAppLog::IpSpoofAppLog(qmmw_t* mw) {
  log_ = nullptr;
  if (mw == nullptr) return;
  log_ = qmmw_log_init(mw, kLogId, kLogSubId, kLogName);
  if (log_ == nullptr) NON_FATAL_FAULT("IpSpoofAppLog could not init log system");
  if (qmmw_trace_init(mw, kTraceName) == nullptr) NON_FATAL_FAULT("IpSpoofAppLog could not init trace system");
}

IpSpoofAppLog::~IpSpoofAppLog() {
  if (log_ != nullptr) qmmw_log_finish(&log_);
  log_ = nullptr;
}

void IpSpoofAppLog::Log(const char* format, ...) {
  if (log_ == nullptr) return;
  va_list args;
  va_start(args, format);
  qmmw_vlog(log_, format, args);
  va_end(args);
}

void IpSpoofAppLog::LogDebug(const char* format, ...) {
  if (log_ == nullptr) return;
  va_list args;
  va_start(args, format);
  qmmw_vlog_debug(log_, format, args);
  va_end(args);
}

}  // namespace ip_spoofing_app
