#pragma once

#include <memory>
#include <string>
#include <vector>

#include "confd_cdb.h"

/// What the common suite of read behaviour runs against: the client library over a store, or the scripted fake. Each
/// executable defines MakeCdb() for its own; both hold the anti-ip-spoofing model.
namespace read_behaviour {

struct PathValue {
  std::string path;   ///< "/config/..."; everything above is made too
  std::string value;  ///< of a leaf with a value
};

class CdbUnderTest {
 public:
  virtual ~CdbUnderTest() = default;
  /// Fills both datastores.
  virtual void Load(const std::vector<PathValue>& before_commit, const std::vector<PathValue>& running) = 0;
  /// A started session's socket.
  virtual int OpenSession(cdb_db_type db) = 0;
  virtual void CloseSession(int sock) = 0;
};

std::unique_ptr<CdbUnderTest> MakeCdb();

}  // namespace read_behaviour
