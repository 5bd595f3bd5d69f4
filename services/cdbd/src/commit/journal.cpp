#include "commit/journal.h"

#include <algorithm>

#include "cdb_store/diff.h"
#include "common/byte_io.h"

namespace cdbd {
namespace {

using Operation = CommitSummary::Operation;
using Microseconds = std::chrono::microseconds;

Operation OperationOf(const cdb_store::OwnedChange& change) {
  if (!change.old_row) return Operation::kCreated;
  return change.new_row ? Operation::kModified : Operation::kDeleted;
}

std::string Pack(const JournalEntry& entry) {
  common::ByteWriter out;
  out.Put(entry.txid);
  out.Put(static_cast<int64_t>(std::chrono::duration_cast<Microseconds>(entry.time.time_since_epoch()).count()));
  out.PutString(entry.user);
  out.Put(entry.session);
  out.Put(entry.fingerprint);
  out.Put(entry.summary.created);
  out.Put(entry.summary.modified);
  out.Put(entry.summary.deleted);
  for (const CommitSummary::Change& change : entry.summary.changes) {
    out.Put(static_cast<uint8_t>(change.operation));
    out.PutString(change.record_key);
  }
  return out.Take();
}

std::optional<JournalEntry> Unpack(std::string_view bytes) {
  common::ByteReader in{bytes};
  JournalEntry entry;
  entry.txid = in.Get<uint64_t>();
  entry.time = std::chrono::system_clock::time_point{Microseconds{in.Get<int64_t>()}};
  entry.user = in.GetString();
  entry.session = in.Get<uint32_t>();
  entry.fingerprint = in.Get<uint64_t>();
  entry.summary.created = in.Get<uint32_t>();
  entry.summary.modified = in.Get<uint32_t>();
  entry.summary.deleted = in.Get<uint32_t>();
  while (in.ok() && !in.AtEnd()) {
    const auto operation = in.Get<uint8_t>();
    if (operation > static_cast<uint8_t>(Operation::kDeleted)) return std::nullopt;
    entry.summary.changes.push_back({static_cast<Operation>(operation), std::string{in.GetString()}});
  }
  return in.ok() ? std::optional{std::move(entry)} : std::nullopt;
}

}  // namespace

CommitSummary CommitSummary::Of(const cdb_store::WriteTxn& txn) {
  CommitSummary summary;
  size_t bytes = 0;
  for (const cdb_store::OwnedChange& change : txn.Changes()) {
    const Operation operation = OperationOf(change);
    ++(operation == Operation::kCreated    ? summary.created
       : operation == Operation::kModified ? summary.modified
                                           : summary.deleted);
    bytes += change.key.size();
    if (summary.changes.size() < kMaxChanges && bytes <= kMaxChangeBytes)
      summary.changes.push_back({operation, change.key});
  }
  return summary;
}

namespace journal {

common::Status Note(const JournalEntry& entry, cdb_store::WriteTxn* txn) {
  return txn->PutLog(entry.txid % kKept, Pack(entry));
}

std::vector<JournalEntry> Read(const cdb_store::StoreWriter& store) {
  std::vector<JournalEntry> entries;
  for (const uint64_t id : store.LogIds()) {
    const auto bytes = store.GetLog(id);
    auto entry = bytes ? Unpack(*bytes) : std::nullopt;
    if (entry) entries.push_back(*std::move(entry));
  }
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.txid > b.txid; });
  return entries;
}

}  // namespace journal
}  // namespace cdbd
