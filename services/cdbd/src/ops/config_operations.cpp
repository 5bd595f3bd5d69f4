#include <spdlog/spdlog.h>

#include "commit/journal.h"
#include "edit/editor.h"
#include "edit/validator.h"
#include "model/leaf_value.h"
#include "northbound/server.h"
#include "ops/operations.h"
#include "ops/params.h"
#include "read/data_writer.h"
#include "read/get_request.h"

namespace cdbd {
namespace {

using netconf::XmlElement;

/// Records of a commit from which on the difference is folded in right after its delivery.
constexpr size_t kSettleFrom = 1000;

struct EditRequest {
  EditOptions options;
  bool test_only = false;
  std::string comment;
};

/// The author's comment on a commit; the data model says what is one.
std::string CommentOf(const Model& model, Params* params) {
  const XmlElement* element = params->FindAdded("comment");
  if (element == nullptr) return {};
  const lysc_node* leaf = lys_find_path(model.context(), nullptr, "/ietf-netconf:edit-config/cdb-monitor:comment", 0);
  RpcError error{.message = "holds elements"};
  if (leaf == nullptr || element->first_child != nullptr || !CanonicalValue(model, *leaf, element->text, &error))
    params->Invalid("comment", error);
  return std::string{element->text};
}

Selection SelectionOf(const XmlElement* filter) {
  return filter == nullptr ? Selection::Everything() : Selection::Of(*filter);
}

/// Checks what every writer has to; the transaction, or an error in `errors`.
std::optional<cdb_store::WriteTxn> Begin(Core& core, RpcErrors* errors) {
  core.store.ReleaseDeadReaders();
  auto txn = core.store.Begin();
  if (txn) return std::move(txn).value();
  errors->push_back({.message = txn.error().Text()});
  return std::nullopt;
}

struct Prepared {
  cdb_store::WriteTxn txn;
  CommitSummary summary;
};

/// Applies the edit and checks the outcome. Nothing when there is nothing to commit; `errors` may hold what was left
/// out.
std::optional<Prepared> Prepare(Core& core, const EditRequest& request, const XmlElement& config, RpcErrors* errors) {
  auto txn = Begin(core, errors);
  if (!txn) return std::nullopt;
  *errors = Editor{core.model, *txn, request.options}.Apply(config);
  if (!errors->empty() && !request.options.continue_on_error) return std::nullopt;
  CommitSummary summary = CommitSummary::Of(*txn);
  if (summary.empty()) return std::nullopt;
  if (core.model.has_constraints()) {
    RpcErrors broken = Validate(core.model, txn->Running(), &*txn);
    if (!broken.empty()) {
      errors->insert(errors->end(), broken.begin(), broken.end());
      return std::nullopt;
    }
    summary = CommitSummary::Of(*txn);
    if (summary.empty()) return std::nullopt;
  }
  return Prepared{*std::move(txn), std::move(summary)};
}

/// Ends the transaction and notes it in the journal.
common::Result<cdb_store::Txid> Commit(Core& core, const SessionInfo& author, const std::string& comment,
                                       Prepared prepared) {
  JournalEntry entry;
  entry.txid = prepared.txn.NextTxid().number;
  entry.time = std::chrono::system_clock::now();
  entry.user = author.user;
  entry.session = author.id;
  entry.comment = comment;
  entry.fingerprint = core.fingerprint;
  entry.summary = std::move(prepared.summary);
  if (const common::Status noted = journal::Note(std::move(entry), &prepared.txn); !noted) return noted.error();
  // Without anybody subscribed the difference has no reader.
  const bool followed = core.delivery->HasSubscribers();
  return prepared.txn.Commit(followed ? cdb_store::CommitKind::kNormal : cdb_store::CommitKind::kBulk);
}

void Answer(const RpcPtr& rpc, const RpcErrors& errors) { errors.empty() ? rpc->Ok() : rpc->Fail(errors); }

void RunEdit(Core& core, const RpcPtr& rpc, const EditRequest& request, const CommitLine::Done& done) {
  RpcErrors errors;
  const SessionInfo* author = core.netconf->Find(rpc->session());
  if (author == nullptr) return done();  // nobody waits for it any more
  if (core.lock && core.lock->session != rpc->session()) {
    RpcError error{.type = "protocol", .tag = "in-use"};
    error.message = "running is locked by session " + std::to_string(core.lock->session);
    rpc->Fail(std::move(error));
    return done();
  }
  const XmlElement& config = *rpc->operation().Child(netconf::kBaseNs, "config");
  auto prepared = Prepare(core, request, config, &errors);
  if (!prepared || request.test_only) {
    prepared.reset();
    Answer(rpc, errors);
    return done();
  }
  const auto txid = Commit(core, *author, request.comment, *std::move(prepared));
  if (!txid) {
    spdlog::error("commit of session {} (user {}): {}", author->id, author->user, txid.error().Text());
    errors.push_back({.message = txid.error().Text()});
    rpc->Fail(errors);
    return done();
  }
  spdlog::info("transaction {} committed by session {} (user {})", txid.value().number, author->id, author->user);
  core.delivery->Deliver(txid.value(), [&core, rpc, errors, done](const RpcErrors& warnings) {
    RpcErrors all = errors;
    all.insert(all.end(), warnings.begin(), warnings.end());
    Answer(rpc, all);
    if (const common::Status settled = core.store.Settle(kSettleFrom); !settled)
      spdlog::error("{}", settled.error().Text());
    done();
  });
}

}  // namespace

void GetConfig(Core& core, const RpcPtr& rpc) {
  Params params{rpc->operation(), {"source", "filter"}};
  params.RequireOneOf("source", {"running"});
  const XmlElement* filter = params.Filter();
  if (params.error()) return rpc->Fail(*params.error());
  const auto snapshot = core.store.Take();
  if (!snapshot) return rpc->Fail(RpcError{.message = snapshot.error().Text()});
  std::string data{"<data>"};
  DataWriter writer{core.model, snapshot.value()->Running(), nullptr};
  if (const auto written = writer.Write(SelectionOf(filter), &data); !written)
    return rpc->Fail(RpcError{.message = written.error().Text()});
  data += "</data>";
  rpc->Content(data);
}

void Get(Core& core, const RpcPtr& rpc) {
  Params params{rpc->operation(), {"filter"}};
  const XmlElement* filter = params.Filter();
  if (params.error()) return rpc->Fail(*params.error());
  StartGet(core, rpc, SelectionOf(filter));
}

void EditConfig(Core& core, const RpcPtr& rpc) {
  Params params{
      rpc->operation(), {"target", "default-operation", "test-option", "error-option", "config"}, {"comment"}};
  params.RequireOneOf("target", {"running"});
  EditRequest request;
  const std::string_view operation = params.Text("default-operation", "merge");
  const auto default_operation = ParseOperation(operation);
  if (operation == "merge" || operation == "replace" || operation == "none")
    request.options.default_operation = *default_operation;
  else
    params.Invalid("default-operation", operation);
  const std::string_view test = params.Text("test-option", "test-then-set");
  if (test != "test-then-set" && test != "set" && test != "test-only") params.Invalid("test-option", test);
  request.test_only = test == "test-only";
  const std::string_view on_error = params.Text("error-option", "stop-on-error");
  if (on_error != "stop-on-error" && on_error != "continue-on-error" && on_error != "rollback-on-error")
    params.Invalid("error-option", on_error);
  request.options.continue_on_error = on_error == "continue-on-error";
  params.Require("config");
  request.comment = CommentOf(core.model, &params);
  if (params.error()) return rpc->Fail(*params.error());
  core.line.Submit([&core, rpc, request](const CommitLine::Done& done) { RunEdit(core, rpc, request, done); });
}

void ValidateConfig(Core& core, const RpcPtr& rpc) {
  Params params{rpc->operation(), {"source"}};
  const XmlElement* source = params.RequireOneOf("source", {"running", "config"});
  if (params.error()) return rpc->Fail(*params.error());
  RpcErrors errors;
  auto txn = Begin(core, &errors);
  if (txn && source->name->local == "config") {
    EditOptions options;
    options.default_operation = Operation::kReplace;
    errors = Editor{core.model, *txn, options}.Apply(*source);
  }
  if (txn && errors.empty() && core.model.has_constraints()) errors = Validate(core.model, txn->Running(), nullptr);
  Answer(rpc, errors);
}

}  // namespace cdbd
