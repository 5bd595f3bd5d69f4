#pragma once

#include "cdb_store/store_writer.h"
#include "commit/commit_line.h"
#include "commit/delivery.h"
#include "commit/journal.h"
#include "commit/running_lock.h"
#include "edit/editor.h"
#include "model/model.h"
#include "northbound/server.h"
#include "ops/operations.h"

namespace cdbd {

/// What an edit works on. All outlive the requests.
struct EditTargets {
  const Model& model;
  cdb_store::StoreWriter& store;
  const RunningLock& lock;
  CommitLine& line;
  Delivery& delivery;
  const NetconfServer& netconf;  ///< whose sessions are the authors
};

/// <edit-config> and <validate>.
class EditOperations final {
 public:
  explicit EditOperations(const EditTargets& targets)
      : targets_{targets}, fingerprint_{targets.model.schema().Fingerprint()} {}
  void AddTo(Operations* operations);

 private:
  struct Edit {
    EditOptions options;
    bool test_only = false;
    std::string comment;
  };
  struct Prepared {
    cdb_store::WriteTxn txn;
    CommitSummary summary;
  };

  void EditConfig(const RpcPtr& rpc);
  void Validate(const RpcPtr& rpc);
  void Run(const RpcPtr& rpc, const Edit& edit, const CommitLine::Done& done);
  std::optional<cdb_store::WriteTxn> Begin(DataErrors* errors);
  std::optional<Prepared> Prepare(const Edit& edit, const netconf::XmlElement& config, DataErrors* errors);
  common::Result<cdb_store::Txid> Commit(const SessionInfo& author, const std::string& comment, Prepared prepared);

  const EditTargets targets_;
  const uint64_t fingerprint_;  ///< of the model's schema
};

}  // namespace cdbd
