#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "cdb_store/store_writer.h"
#include "commit/commit_line.h"
#include "commit/delivery.h"
#include "common/event_loop.h"
#include "model/model.h"

namespace cdbd {

class NetconfServer;
class Providers;
class StateReader;

/// Who holds the lock on running.
struct Lock {
  uint32_t session = 0;
  std::chrono::system_clock::time_point since;
};

/// What the operations work on. Everything outlives the requests.
struct Core {
  Core(common::EventLoop& the_loop, const Model& the_model, cdb_store::StoreWriter& the_store)
      : loop{the_loop}, model{the_model}, store{the_store}, fingerprint{the_model.schema().Fingerprint()} {}

  common::EventLoop& loop;
  const Model& model;
  cdb_store::StoreWriter& store;
  const uint64_t fingerprint;  ///< of the model's schema
  CommitLine line;
  std::optional<Lock> lock;
  NetconfServer* netconf = nullptr;
  Delivery* delivery = nullptr;
  Providers* providers = nullptr;
  StateReader* state = nullptr;
};

}  // namespace cdbd
