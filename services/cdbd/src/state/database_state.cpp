#include "state/database_state.h"

#include "cdb_store/instance_key.h"
#include "commit/journal.h"
#include "netconf/xml.h"

namespace cdbd {
namespace {

constexpr const char* kMonitorNs = "urn:ip-spoofing:cdb-monitor";

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

const char* OperationName(CommitSummary::Operation operation) {
  switch (operation) {
    case CommitSummary::Operation::kCreated:
      return "created";
    case CommitSummary::Operation::kModified:
      return "modified";
    case CommitSummary::Operation::kDeleted:
      return "deleted";
  }
  return "";
}

void WriteCommit(const Core& core, const JournalEntry& entry, std::string* out) {
  out->append("<commit>");
  Leaf("transaction", std::to_string(entry.txid), out);
  Leaf("time", DateAndTime(entry.time), out);
  Leaf("user", entry.user, out);
  Leaf("session", std::to_string(entry.session), out);
  Leaf("created", std::to_string(entry.summary.created), out);
  Leaf("modified", std::to_string(entry.summary.modified), out);
  Leaf("deleted", std::to_string(entry.summary.deleted), out);
  for (const CommitSummary::Change& change : entry.summary.changes) {
    const auto record = cdb_store::ParseRecordKey(change.record_key);
    // Keys of another data model mean nothing any more.
    if (entry.fingerprint != core.fingerprint || !record || record->node >= core.model.schema().size()) continue;
    const cdb_store::Node& node = core.model.schema().node(record->node);
    out->append("<change>");
    Leaf("path", cdb_store::InstanceText(core.model.schema(), node, record->keys), out);
    Leaf("operation", OperationName(change.operation), out);
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
