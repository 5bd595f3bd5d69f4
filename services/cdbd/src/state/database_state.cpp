#include "state/database_state.h"

#include "cdb_store/instance_key.h"
#include "commit/journal.h"
#include "netconf/xml.h"

namespace cdbd {
namespace {

void Leaf(const char* name, std::string_view text, std::string* out) {
  netconf::AppendTextElement(name, {}, text, out);
}

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
  out->append("<subscriber>");
  Leaf("id", std::to_string(subscriber.id), out);
  Leaf("name", subscriber.name, out);
  Leaf("process", std::to_string(subscriber.pid), out);
  Leaf("state", StateName(subscriber.state), out);
  Leaf("since", DateAndTime(subscriber.since), out);
  Leaf("last-transaction", std::to_string(subscriber.last_txid), out);
  for (const Subscription& subscription : subscriber.subscriptions) {
    out->append("<subscription>");
    Leaf("point", std::to_string(subscription.point), out);
    Leaf("path", subscription.path, out);
    Leaf("priority", std::to_string(subscription.priority), out);
    out->append("</subscription>");
  }
  out->append("</subscriber>");
}

void WriteProvider(const Daemon& daemon, std::string* out) {
  out->append("<provider>");
  Leaf("id", std::to_string(daemon.id), out);
  Leaf("name", daemon.name, out);
  Leaf("process", std::to_string(daemon.pid), out);
  for (const std::string& callpoint : daemon.callpoints) Leaf("callpoint", callpoint, out);
  out->append("</provider>");
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
  out->append("<leaf>");
  Leaf("name", path.starts_with(entry + "/") ? path.substr(entry.size() + 1) : path, out);
  Leaf("operation", OperationName(OperationOf(leaf)), out);
  if (node.type != cdb_store::ValueType::kEmpty) {
    if (leaf.old_value) Leaf("old-value", leaf.old_value->text, out);
    if (leaf.new_value) Leaf("new-value", leaf.new_value->text, out);
    if (leaf.old_value && leaf.old_value->cut) Leaf("cut", "old-value", out);
    if (leaf.new_value && leaf.new_value->cut) Leaf("cut", "new-value", out);
  }
  out->append("</leaf>");
}

void WriteCommit(const Core& core, const JournalEntry& entry, std::string* out) {
  out->append("<commit>");
  Leaf("transaction", std::to_string(entry.txid), out);
  Leaf("time", DateAndTime(entry.time), out);
  Leaf("user", entry.user, out);
  Leaf("session", std::to_string(entry.session), out);
  if (!entry.comment.empty()) Leaf("comment", entry.comment, out);
  Leaf("created", std::to_string(entry.summary.created), out);
  Leaf("modified", std::to_string(entry.summary.modified), out);
  Leaf("deleted", std::to_string(entry.summary.deleted), out);
  for (const CommitSummary::Change& change : entry.summary.changes) {
    const auto record = cdb_store::ParseRecordKey(change.record_key);
    // Keys of another data model mean nothing any more.
    if (entry.fingerprint != core.fingerprint || !record || record->node >= core.model.schema().size()) continue;
    const cdb_store::Node& node = core.model.schema().node(record->node);
    const std::string path = cdb_store::InstanceText(core.model.schema(), node, record->keys);
    out->append("<change>");
    Leaf("path", path, out);
    Leaf("operation", OperationName(change.operation), out);
    for (const CommitSummary::Leaf& leaf : change.leaves)
      WriteLeafChange(core.model.schema(), path, record->keys, leaf, out);
    if (change.unnamed_leaves > 0) Leaf("unnamed-leaves", std::to_string(change.unnamed_leaves), out);
    out->append("</change>");
  }
  out->append("</commit>");
}

}  // namespace

void AddDatabaseState(const Core& core, const SubscriptionService& subscriptions, const ProviderService& providers,
                      StateReader* reader) {
  reader->Add(kMonitorNs, "database", [&core, &subscriptions, &providers](std::string* out) {
    out->append("<database xmlns=\"").append(kMonitorNs).append("\"><transactions>");
    Leaf("last", std::to_string(core.store.txid().number), out);
    if (const auto progress = subscriptions.progress()) {
      Leaf("delivering", std::to_string(progress->txid), out);
      Leaf("delivering-since", DateAndTime(progress->since), out);
    }
    Leaf("waiting", std::to_string(core.line.waiting()), out);
    out->append("</transactions>");
    for (const Subscriber* subscriber : subscriptions.Subscribers()) WriteSubscriber(*subscriber, out);
    for (const auto& [id, daemon] : providers.daemons()) WriteProvider(daemon, out);
    out->append("</database>");
  });
  reader->Add(kMonitorNs, "commits", [&core](std::string* out) {
    const std::vector<JournalEntry> entries = journal::Read(core.store);
    if (entries.empty()) return;
    out->append("<commits xmlns=\"").append(kMonitorNs).append("\">");
    for (const JournalEntry& entry : entries) WriteCommit(core, entry, out);
    out->append("</commits>");
  });
}

}  // namespace cdbd
