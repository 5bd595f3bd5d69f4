#include "ops/edit_operations.h"

#include <spdlog/spdlog.h>

#include "edit/validator.h"
#include "model/leaf_value.h"
#include "ops/params.h"

namespace cdbd {
namespace {

using netconf::XmlElement;

/// Records of a commit from which on the difference is folded in right after its delivery.
constexpr size_t kSettleFrom = 1000;

/// The author's comment on a commit. The data model says which texts are allowed.
std::string CommentOf(const Model& model, Params* params) {
  const XmlElement* element = params->FindAdded("comment");
  if (element == nullptr) return {};
  const lysc_node* leaf = lys_find_path(model.context(), nullptr, "/ietf-netconf:edit-config/cdb-monitor:comment", 0);
  DataError error{.message = "holds elements"};
  if (leaf == nullptr || element->first_child != nullptr || !CanonicalValue(model, *leaf, element->text, &error))
    params->Invalid("comment", error);
  return std::string{element->text};
}

void Answer(const RpcPtr& rpc, const DataErrors& errors) {
  errors.empty() ? rpc->Ok() : rpc->Fail(ToRpcErrors(errors));
}

}  // namespace

void EditOperations::AddTo(Operations* operations) {
  operations->Add(netconf::kBaseNs, "edit-config", [this](const RpcPtr& rpc) { EditConfig(rpc); });
  operations->Add(netconf::kBaseNs, "validate", [this](const RpcPtr& rpc) { Validate(rpc); });
}

void EditOperations::EditConfig(const RpcPtr& rpc) {
  Params params{
      rpc->operation(), {"target", "default-operation", "test-option", "error-option", "config"}, {"comment"}};
  params.RequireOneOf("target", {"running"});
  Edit edit;
  const std::string_view operation = params.Text("default-operation", "merge");
  const auto default_operation = ParseOperation(operation);
  if (operation == "merge" || operation == "replace" || operation == "none")
    edit.options.default_operation = *default_operation;
  else
    params.Invalid("default-operation", operation);
  const std::string_view test = params.Text("test-option", "test-then-set");
  if (test != "test-then-set" && test != "set" && test != "test-only") params.Invalid("test-option", test);
  edit.test_only = test == "test-only";
  const std::string_view on_error = params.Text("error-option", "stop-on-error");
  if (on_error != "stop-on-error" && on_error != "continue-on-error" && on_error != "rollback-on-error")
    params.Invalid("error-option", on_error);
  edit.options.continue_on_error = on_error == "continue-on-error";
  params.Require("config");
  edit.comment = CommentOf(targets_.model, &params);
  if (params.error()) return rpc->Fail(*params.error());
  targets_.line.Submit([this, rpc, edit](const CommitLine::Done& done) { Run(rpc, edit, done); });
}

void EditOperations::Validate(const RpcPtr& rpc) {
  Params params{rpc->operation(), {"source"}};
  const XmlElement* source = params.RequireOneOf("source", {"running", "config"});
  if (params.error()) return rpc->Fail(*params.error());
  DataErrors errors;
  auto txn = Begin(&errors);
  if (txn && source->name->local == "config") {
    EditOptions options;
    options.default_operation = Operation::kReplace;
    errors = Editor{targets_.model, *txn, options}.Apply(*source);
  }
  if (txn && errors.empty() && targets_.model.has_constraints())
    errors = cdbd::Validate(targets_.model, txn->Running(), nullptr);
  Answer(rpc, errors);
}

void EditOperations::Run(const RpcPtr& rpc, const Edit& edit, const CommitLine::Done& done) {
  DataErrors errors;
  const SessionInfo* author = targets_.netconf.Find(rpc->session());
  if (author == nullptr) return done();  // the client has gone
  if (targets_.lock.IsHeldByAnother(rpc->session())) {
    RpcError error{.type = "protocol", .tag = "in-use"};
    error.message = "running is locked by session " + std::to_string(targets_.lock.holder()->session);
    rpc->Fail(std::move(error));
    return done();
  }
  const XmlElement& config = *rpc->operation().Child(netconf::kBaseNs, "config");
  auto prepared = Prepare(edit, config, &errors);
  if (!prepared || edit.test_only) {
    prepared.reset();
    Answer(rpc, errors);
    return done();
  }
  const auto txid = Commit(*author, edit.comment, *std::move(prepared));
  if (!txid) {
    spdlog::error("commit of session {} (user {}): {}", author->id, author->user, txid.error().Text());
    errors.push_back({.message = txid.error().Text()});
    Answer(rpc, errors);
    return done();
  }
  spdlog::info("transaction {} committed by session {} (user {})", txid.value().number, author->id, author->user);
  targets_.delivery.Deliver(txid.value(), [this, rpc, errors, done](const DataErrors& warnings) {
    DataErrors all = errors;
    all.insert(all.end(), warnings.begin(), warnings.end());
    Answer(rpc, all);
    if (const common::Status settled = targets_.store.Settle(kSettleFrom); !settled)
      spdlog::error("{}", settled.error().Text());
    done();
  });
}

// Checks what every writer has to.
std::optional<cdb_store::WriteTxn> EditOperations::Begin(DataErrors* errors) {
  targets_.store.ReleaseDeadReaders();
  auto txn = targets_.store.Begin();
  if (txn) return std::move(txn).value();
  errors->push_back({.message = txn.error().Text()});
  return std::nullopt;
}

// Applies the edit and checks the outcome. Nothing if there is nothing to commit; `errors` may hold what was left out.
std::optional<EditOperations::Prepared> EditOperations::Prepare(const Edit& edit, const XmlElement& config,
                                                                DataErrors* errors) {
  auto txn = Begin(errors);
  if (!txn) return std::nullopt;
  *errors = Editor{targets_.model, *txn, edit.options}.Apply(config);
  if (!errors->empty() && !edit.options.continue_on_error) return std::nullopt;
  const auto summarise = [&](CommitSummary* out) {
    auto made = CommitSummary::Of(*txn);
    if (!made) {
      errors->push_back({.message = made.error().Text()});
      return false;
    }
    *out = std::move(made).value();
    return !out->empty();
  };
  CommitSummary summary;
  if (!summarise(&summary)) return std::nullopt;
  if (targets_.model.has_constraints()) {
    DataErrors broken = cdbd::Validate(targets_.model, txn->Running(), &*txn);
    if (!broken.empty()) {
      errors->insert(errors->end(), broken.begin(), broken.end());
      return std::nullopt;
    }
    if (!summarise(&summary)) return std::nullopt;
  }
  return Prepared{*std::move(txn), std::move(summary)};
}

// Ends the transaction and notes it in the journal.
common::Result<cdb_store::Txid> EditOperations::Commit(const SessionInfo& author, const std::string& comment,
                                                       Prepared prepared) {
  JournalEntry entry;
  entry.txid = prepared.txn.NextTxid().number;
  entry.time = std::chrono::system_clock::now();
  entry.user = author.user;
  entry.session = author.id;
  entry.comment = comment;
  entry.fingerprint = fingerprint_;
  entry.summary = std::move(prepared.summary);
  if (const common::Status noted = journal::Note(std::move(entry), &prepared.txn); !noted) return noted.error();
  // Without subscribers nothing reads the difference.
  const bool followed = targets_.delivery.HasSubscribers();
  return prepared.txn.Commit(followed ? cdb_store::CommitKind::kNormal : cdb_store::CommitKind::kBulk);
}

}  // namespace cdbd
