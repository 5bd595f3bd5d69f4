#include "state/database_state.h"

#include <spdlog/spdlog.h>

#include "cdb_store/instance_key.h"
#include "commit/journal.h"
#include "netconf/xml.h"

namespace cdbd {
namespace {

using netconf::AppendTextElement;

const std::string kXmlns = std::string{" xmlns=\""} + kMonitorNs + "\"";

const char* StateName(Subscriber::State state) {
  switch (state) {
    case Subscriber::State::kIdle:
      return "idle";
    case Subscriber::State::kDelivering:
      return "delivering";
    case Subscriber::State::kDropped:
      return "dropped";
  }
  return "";
}

void WriteSubscriber(const Subscriber& subscriber, std::string* out) {
  netconf::OpenElement element{"subscriber", {}, out};
  AppendTextElement("id", std::to_string(subscriber.id), out);
  AppendTextElement("name", subscriber.name, out);
  AppendTextElement("process", std::to_string(subscriber.pid), out);
  AppendTextElement("state", StateName(subscriber.state), out);
  AppendTextElement("since", DateAndTime(subscriber.since), out);
  AppendTextElement("last-transaction", std::to_string(subscriber.last_txid), out);
  for (const Subscription& subscription : subscriber.subscriptions) {
    netconf::OpenElement inner{"subscription", {}, out};
    AppendTextElement("point", std::to_string(subscription.point), out);
    AppendTextElement("path", subscription.path, out);
    AppendTextElement("priority", std::to_string(subscription.priority), out);
    inner.Close();
  }
  element.Close();
}

void WriteProvider(const Daemon& daemon, std::string* out) {
  netconf::OpenElement element{"provider", {}, out};
  AppendTextElement("id", std::to_string(daemon.id), out);
  AppendTextElement("name", daemon.name, out);
  AppendTextElement("process", std::to_string(daemon.pid), out);
  for (const std::string& callpoint : daemon.callpoints) AppendTextElement("callpoint", callpoint, out);
  element.Close();
}

using Operation = CommitSummary::Operation;

const char* OperationName(Operation operation) {
  switch (operation) {
    case Operation::kCreated:
      return "created";
    case Operation::kModified:
      return "modified";
    case Operation::kDeleted:
      return "deleted";
  }
  return "";
}

Operation OperationOf(const CommitSummary::Leaf& leaf) {
  if (!leaf.old_value) return Operation::kCreated;
  return leaf.new_value ? Operation::kModified : Operation::kDeleted;
}

/// `entry` is the text of the instance that the leaf is in, with these keys.
void WriteLeafChange(const cdb_store::Schema& schema, const std::string& entry, std::string_view keys,
                     const CommitSummary::Leaf& leaf, std::string* out) {
  if (leaf.node >= schema.size()) return;
  const cdb_store::Node& node = schema.node(leaf.node);
  const std::string path = cdb_store::InstanceText(schema, node, keys);
  netconf::OpenElement element{"leaf", {}, out};
  AppendTextElement("name", path.starts_with(entry + "/") ? path.substr(entry.size() + 1) : path, out);
  AppendTextElement("operation", OperationName(OperationOf(leaf)), out);
  if (node.type != cdb_store::ValueType::kEmpty) {
    if (leaf.old_value) AppendTextElement("old-value", leaf.old_value->text, out);
    if (leaf.new_value) AppendTextElement("new-value", leaf.new_value->text, out);
    if (leaf.old_value && leaf.old_value->cut) AppendTextElement("cut", "old-value", out);
    if (leaf.new_value && leaf.new_value->cut) AppendTextElement("cut", "new-value", out);
  }
  element.Close();
}

void WriteCommit(const cdb_store::Schema& schema, uint64_t fingerprint, const JournalEntry& entry, std::string* out) {
  netconf::OpenElement element{"commit", {}, out};
  AppendTextElement("transaction", std::to_string(entry.txid), out);
  AppendTextElement("time", DateAndTime(entry.time), out);
  AppendTextElement("user", entry.user, out);
  AppendTextElement("session", std::to_string(entry.session), out);
  if (!entry.comment.empty()) AppendTextElement("comment", entry.comment, out);
  AppendTextElement("created", std::to_string(entry.summary.created), out);
  AppendTextElement("modified", std::to_string(entry.summary.modified), out);
  AppendTextElement("deleted", std::to_string(entry.summary.deleted), out);
  for (const CommitSummary::Change& change : entry.summary.changes) {
    const auto record = cdb_store::ParseRecordKey(change.record_key);
    // Keys of another data model mean nothing any more.
    if (entry.fingerprint != fingerprint || !record || record->node >= schema.size()) continue;
    const cdb_store::Node& node = schema.node(record->node);
    const std::string path = cdb_store::InstanceText(schema, node, record->keys);
    netconf::OpenElement inner{"change", {}, out};
    AppendTextElement("path", path, out);
    AppendTextElement("operation", OperationName(change.operation), out);
    for (const CommitSummary::Leaf& leaf : change.leaves) WriteLeafChange(schema, path, record->keys, leaf, out);
    if (change.unnamed_leaves > 0) AppendTextElement("unnamed-leaves", std::to_string(change.unnamed_leaves), out);
    inner.Close();
  }
  element.Close();
}

}  // namespace

void AddDatabaseState(const DatabaseParts& parts, StateReader* reader) {
  reader->Add(kMonitorNs, "database", [parts](std::string* out) {
    netconf::OpenElement element{"database", kXmlns, out};
    netconf::OpenElement inner{"transactions", {}, out};
    AppendTextElement("last", std::to_string(parts.store.txid().number), out);
    if (const auto progress = parts.subscriptions.progress()) {
      AppendTextElement("delivering", std::to_string(progress->txid), out);
      AppendTextElement("delivering-since", DateAndTime(progress->since), out);
    }
    AppendTextElement("waiting", std::to_string(parts.line.waiting()), out);
    inner.Close();
    for (const Subscriber* subscriber : parts.subscriptions.Subscribers()) WriteSubscriber(*subscriber, out);
    for (const auto& [id, daemon] : parts.providers.daemons()) WriteProvider(daemon, out);
    element.Close();
  });
  reader->Add(kMonitorNs, "commits", [parts, fingerprint = parts.model.schema().Fingerprint()](std::string* out) {
    const auto entries = journal::Read(parts.store);
    if (!entries) spdlog::error("journal: {}", entries.error().Text());
    if (!entries || entries.value().empty()) return;
    netconf::OpenElement element{"commits", kXmlns, out};
    for (const JournalEntry& entry : entries.value()) WriteCommit(parts.model.schema(), fingerprint, entry, out);
    element.Close();
  });
}

}  // namespace cdbd
