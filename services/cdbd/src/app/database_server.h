#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "cdb_store/environment.h"
#include "common/event_loop.h"
#include "common/result.h"
#include "model/model.h"
#include "northbound/session.h"

namespace cdbd {

struct ServerOptions {
  ModelOptions model;
  std::string run_dir;
  std::string state_dir;
  size_t map_size = cdb_store::kDefaultMapSize;
  bool durable = true;
  bool new_database = false;  ///< begin with an empty one where the former one is gone or empty
  SessionLimits netconf;
  std::chrono::milliseconds subscriber_limit{30000};  ///< for a subscriber to take in a commit
  std::chrono::milliseconds provider_limit{120000};   ///< for a data provider to answer a request
};

/// The whole of cdbd on one loop: the store, NETCONF and the programs' socket. Serves from Start() until destroyed.
class DatabaseServer final {
 public:
  /// Loads the data model, opens the store and listens. On failure nothing that was there before is changed.
  static common::Result<std::unique_ptr<DatabaseServer>> Start(common::EventLoop& loop, const ServerOptions& options);
  ~DatabaseServer();

 private:
  struct Parts;
  explicit DatabaseServer(std::unique_ptr<Parts> parts);
  std::unique_ptr<Parts> parts_;
};

}  // namespace cdbd
