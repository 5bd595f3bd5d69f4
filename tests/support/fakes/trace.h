/// @file trace.h
/// One ordered record of everything the daemon does to the platform, for tests that compare it whole.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace fakes {

/// Kinds of lines; a test records those it is about.
enum class Kind {
  kRequest,       ///< manager requests: "SendIpSpoofing eth3 true"
  kLog,           ///< "log 11 AppConnect: ConfD AppConnect started" (level, function, text)
  kFault,         ///< "backtrace"; "fault 1 main: ip-spoofing-app could not ..." (severity, function, message)
  kMiddleware,    ///< "qmmw_fd_register 41", "qmmw_init ip-spoofing-app"
  kConfd,         ///< connection and registration: "confd_register_done", "Init 0"
  kSubscription,  ///< "cdb_sync_subscription_socket 41 1"
  kSession,       ///< "open running", "close running"
  kRead,          ///< every CDB read: "cdb_exists running /config/anti-ip-spoofing = 1"; without a session "socket -1"
  kReply,         ///< data-provider replies: "reply 7 key 0 next 1"
  kFilter,        ///< filter-manager queries: "fm_init"
  kLimid,         ///< interface ids: "limid_from_intfname eth3", "limid_to_type eth3"
};

class Trace {
 public:
  /// Appends a line unless its kind is not recorded.
  void Add(Kind kind, std::string line);
  /// Records these kinds from now on and no other. At first every kind but kRead, kFilter and kLimid is recorded.
  void Record(std::set<Kind> kinds) { kinds_ = std::move(kinds); }
  const std::vector<std::string>& Lines() const { return lines_; }
  /// The lines so far, which are forgotten.
  std::vector<std::string> Take();

  /// Writes the whole trace to standard error when the process exits, for death tests: called in the statement that
  /// dies, so that order and texts can be matched.
  static void DumpAtExit();

 private:
  std::set<Kind> kinds_ = {Kind::kRequest, Kind::kLog,          Kind::kFault,   Kind::kMiddleware,
                           Kind::kConfd,   Kind::kSubscription, Kind::kSession, Kind::kReply};
  std::vector<std::string> lines_;
};

Trace& TheTrace();

/// printf into a string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace fakes
