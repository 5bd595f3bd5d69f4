#include "commit/journal.h"

#include <algorithm>

#include "cdb_store/diff.h"
#include "cdb_store/packed_row.h"
#include "cdb_store/value.h"
#include "common/byte_io.h"

namespace cdbd {
namespace {

using Operation = CommitSummary::Operation;
using Microseconds = std::chrono::microseconds;

Operation OperationOf(const cdb_store::OwnedChange& change) {
  if (!change.old_row) return Operation::kCreated;
  return change.new_row ? Operation::kModified : Operation::kDeleted;
}

/// A larger record would get pages of its own: LMDB keeps at least two records in a page of 4096 bytes, and each has 16
/// bytes of its own with the key.
constexpr size_t kMaxRecordBytes = 2000;

/// Where the first layout has the transaction's number, the later ones have their own: none is that large. The first
/// layout had neither the comment nor leaves.
constexpr uint64_t kSecondLayout = UINT64_MAX - 1;

constexpr uint8_t kHasOld = 1;
constexpr uint8_t kHasNew = 2;
constexpr uint8_t kOldIsCut = 4;
constexpr uint8_t kNewIsCut = 8;

void PackLeaf(const CommitSummary::Leaf& leaf, common::ByteWriter* out) {
  const auto flags = [](const std::optional<CommitSummary::Value>& value, uint8_t has, uint8_t cut) {
    return value ? has | (value->cut ? cut : 0) : 0;
  };
  out->Put(static_cast<uint32_t>(leaf.node));
  out->Put(static_cast<uint8_t>(flags(leaf.old_value, kHasOld, kOldIsCut) | flags(leaf.new_value, kHasNew, kNewIsCut)));
  if (leaf.old_value) out->PutString(leaf.old_value->text);
  if (leaf.new_value) out->PutString(leaf.new_value->text);
}

CommitSummary::Leaf UnpackLeaf(common::ByteReader* in) {
  CommitSummary::Leaf leaf;
  leaf.node = static_cast<cdb_store::NodeId>(in->Get<uint32_t>());
  const auto flags = in->Get<uint8_t>();
  if ((flags & kHasOld) != 0) leaf.old_value = {std::string{in->GetString()}, (flags & kOldIsCut) != 0};
  if ((flags & kHasNew) != 0) leaf.new_value = {std::string{in->GetString()}, (flags & kNewIsCut) != 0};
  return leaf;
}

std::string Pack(const JournalEntry& entry) {
  common::ByteWriter out;
  out.Put(kSecondLayout);
  out.Put(entry.txid);
  out.Put(static_cast<int64_t>(std::chrono::duration_cast<Microseconds>(entry.time.time_since_epoch()).count()));
  out.PutString(entry.user);
  out.Put(entry.session);
  out.PutString(entry.comment);
  out.Put(entry.fingerprint);
  out.Put(entry.summary.created);
  out.Put(entry.summary.modified);
  out.Put(entry.summary.deleted);
  for (const CommitSummary::Change& change : entry.summary.changes) {
    out.Put(static_cast<uint8_t>(change.operation));
    out.PutString(change.record_key);
    out.Put(change.unnamed_leaves);
    out.Put(static_cast<uint32_t>(change.leaves.size()));
    for (const CommitSummary::Leaf& leaf : change.leaves) PackLeaf(leaf, &out);
  }
  return out.Take();
}

std::string PackWithinLimit(JournalEntry entry) {
  std::string record = Pack(entry);
  auto change = entry.summary.changes.rbegin();
  while (record.size() > kMaxRecordBytes && change != entry.summary.changes.rend()) {
    if (change->leaves.empty()) {
      ++change;
      continue;
    }
    change->leaves.pop_back();
    ++change->unnamed_leaves;
    record = Pack(entry);
  }
  return record;
}

std::optional<JournalEntry> Unpack(std::string_view bytes) {
  common::ByteReader in{bytes};
  JournalEntry entry;
  entry.txid = in.Get<uint64_t>();
  const bool is_first_layout = entry.txid != kSecondLayout;
  if (!is_first_layout) entry.txid = in.Get<uint64_t>();
  entry.time = std::chrono::system_clock::time_point{Microseconds{in.Get<int64_t>()}};
  entry.user = in.GetString();
  entry.session = in.Get<uint32_t>();
  if (!is_first_layout) entry.comment = in.GetString();
  entry.fingerprint = in.Get<uint64_t>();
  entry.summary.created = in.Get<uint32_t>();
  entry.summary.modified = in.Get<uint32_t>();
  entry.summary.deleted = in.Get<uint32_t>();
  while (in.ok() && !in.AtEnd()) {
    CommitSummary::Change change;
    const auto operation = in.Get<uint8_t>();
    if (operation > static_cast<uint8_t>(Operation::kDeleted)) return std::nullopt;
    change.operation = static_cast<Operation>(operation);
    change.record_key = in.GetString();
    if (!is_first_layout) {
      change.unnamed_leaves = in.Get<uint32_t>();
      for (uint32_t n = in.Get<uint32_t>(); n > 0 && in.ok(); --n) change.leaves.push_back(UnpackLeaf(&in));
    }
    entry.summary.changes.push_back(std::move(change));
  }
  return in.ok() ? std::optional{std::move(entry)} : std::nullopt;
}

/// Cut between two characters.
CommitSummary::Value ValueOf(const cdb_store::Node& leaf, std::string_view stored) {
  CommitSummary::Value value{cdb_store::ValueToText(leaf, stored), false};
  size_t size = CommitSummary::kMaxValueBytes;
  if (value.text.size() <= size) return value;
  while (size > 0 && (static_cast<uint8_t>(value.text[size]) & 0xc0) == 0x80) --size;
  value.text.resize(size);
  value.cut = true;
  return value;
}

/// The leaves of one row that differ, at most `room` of them named.
void AddLeaves(const cdb_store::Schema& schema, const cdb_store::Change& change, size_t room,
               CommitSummary::Change* named) {
  cdb_store::PackedRowReader old_row{change.old_row.value_or(std::string_view{})};
  cdb_store::PackedRowReader new_row{change.new_row.value_or(std::string_view{})};
  auto before = old_row.Next();
  auto after = new_row.Next();
  while (before || after) {
    const cdb_store::NodeId id = !after || (before && before->id < after->id) ? before->id : after->id;
    std::optional<std::string_view> old_stored;
    std::optional<std::string_view> new_stored;
    if (before && before->id == id) {
      old_stored = before->value;
      before = old_row.Next();
    }
    if (after && after->id == id) {
      new_stored = after->value;
      after = new_row.Next();
    }
    if (old_stored == new_stored) continue;
    if (named->leaves.size() == room) {
      ++named->unnamed_leaves;
      continue;
    }
    CommitSummary::Leaf& leaf = named->leaves.emplace_back();
    leaf.node = id;
    if (old_stored) leaf.old_value = ValueOf(schema.node(id), *old_stored);
    if (new_stored) leaf.new_value = ValueOf(schema.node(id), *new_stored);
  }
}

}  // namespace

common::Result<CommitSummary> CommitSummary::Of(const cdb_store::WriteTxn& txn) {
  CommitSummary summary;
  size_t bytes = 0;
  size_t leaves = 0;
  const auto changed = txn.Changes();
  if (!changed) return changed.error();
  for (const cdb_store::OwnedChange& change : changed.value()) {
    const Operation operation = OperationOf(change);
    ++(operation == Operation::kCreated    ? summary.created
       : operation == Operation::kModified ? summary.modified
                                           : summary.deleted);
    bytes += change.key.size();
    if (summary.changes.size() == kMaxChanges || bytes > kMaxChangeBytes) continue;
    Change& named = summary.changes.emplace_back();
    named.operation = operation;
    named.record_key = change.key;
    AddLeaves(txn.Running().schema(), change.view(), kMaxLeaves - leaves, &named);
    leaves += named.leaves.size();
  }
  return summary;
}

namespace journal {

common::Status Note(JournalEntry entry, cdb_store::WriteTxn* txn) {
  const uint64_t id = entry.txid % kKept;
  return txn->PutLog(id, PackWithinLimit(std::move(entry)));
}

common::Result<std::vector<JournalEntry>> Read(const cdb_store::StoreWriter& store) {
  std::vector<JournalEntry> entries;
  const auto log = store.ReadLog();
  if (!log) return log.error();
  for (const cdb_store::LogRecord& record : log.value()) {
    auto entry = Unpack(record.record);
    if (entry) entries.push_back(*std::move(entry));
  }
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.txid > b.txid; });
  return entries;
}

}  // namespace journal
}  // namespace cdbd
