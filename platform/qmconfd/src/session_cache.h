#pragma once

#include <set>
#include <string>
#include <vector>

#include "confd_cdb.h"
#include "connection.h"

namespace qmconfd {

/// Idle CDB read connections of the process, so that a session start needs no round trip. One whose server has gone is
/// not handed out. Loop thread only.
class SessionCache final {
 public:
  static SessionCache& Instance();

  /// A socket with a session started on it, or -1. With `reuse` it may be an idle one, and is kept by Finish().
  int Start(const std::string& name, cdb_db_type db, bool reuse);
  /// Ends the session of `sock`.
  void Finish(int sock);
  /// Closes the idle connections: their server is gone.
  void Clear();

 private:
  CdbSocket TakeIdle();

  std::vector<CdbSocket> idle_;
  std::set<int> reusable_;  ///< in use, and to be kept
};

}  // namespace qmconfd
