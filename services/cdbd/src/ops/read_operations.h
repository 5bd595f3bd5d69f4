#pragma once

#include "cdb_store/store_writer.h"
#include "model/model.h"
#include "northbound/server.h"
#include "ops/operations.h"
#include "read/providers.h"
#include "state/state_reader.h"

namespace cdbd {

/// What an answer to <get> is made of. All outlive the requests.
struct ReadSources {
  const Model& model;
  cdb_store::StoreWriter& store;
  const NetconfServer& netconf;  ///< whose sessions ask
  Providers& providers;
  const StateReader& state;
};

/// <get> and <get-config>.
class ReadOperations final {
 public:
  explicit ReadOperations(const ReadSources& sources) : sources_{sources} {}
  void AddTo(Operations* operations);

 private:
  void Get(const RpcPtr& rpc) const;
  void GetConfig(const RpcPtr& rpc) const;

  const ReadSources sources_;
};

}  // namespace cdbd
