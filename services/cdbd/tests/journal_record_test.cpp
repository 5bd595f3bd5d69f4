// The journal's records: what of a commit is in them, that they stay small, and that older ones are still read.
#include "commit/journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/byte_io.h"
#include "store_fixture.h"

namespace cdbd::test {
namespace {

using testing::ElementsAre;

constexpr std::chrono::system_clock::time_point kTime{std::chrono::microseconds{1'700'000'000'123'456}};
constexpr const char* kOpen =
    "<shop xmlns='urn:ip-spoofing:test:unlike' xmlns:nc='urn:ietf:params:xml:ns:netconf:base:1.0'>";

std::string Text(const std::optional<CommitSummary::Value>& value) {
  return value ? "'" + value->text + "'" + (value->cut ? " cut" : "") : "-";
}

void ExpectHead(const JournalEntry& entry, uint64_t txid, const std::string& comment) {
  EXPECT_EQ(entry.txid, txid);
  EXPECT_EQ(entry.time, kTime);
  EXPECT_EQ(entry.user, "admin");
  EXPECT_EQ(entry.session, 7U);
  EXPECT_EQ(entry.comment, comment);
  EXPECT_EQ(entry.fingerprint, 99U);
}

class JournalRecord : public testing::Test {
 protected:
  /// Makes the edit inside the shop and notes it, with what `entry` says about it.
  void Commit(const std::string& edit, JournalEntry entry = {}) {
    const auto document = netconf::XmlDocument::Parse("<config>" + std::string{kOpen} + edit + "</shop></config>");
    ASSERT_TRUE(document.ok()) << edit;
    auto txn = fixture.store->Begin();
    ASSERT_TRUE(txn.ok());
    ASSERT_TRUE((Editor{*fixture.model, txn.value(), {}}.Apply(document.value()->root()).empty())) << edit;
    entry.txid = txn.value().NextTxid().number;
    entry.summary = CommitSummary::Of(txn.value()).value();
    ASSERT_TRUE(journal::Note(std::move(entry), &txn.value()).ok());
    ASSERT_TRUE(txn.value().Commit().ok());
  }
  /// The changes of the latest entry, a line for each entry and leaf.
  [[nodiscard]] std::vector<std::string> Changes() const {
    std::vector<std::string> lines;
    const cdb_store::Schema& schema = fixture.model->schema();
    const std::vector<JournalEntry> entries = journal::Read(*fixture.store).value();
    for (const CommitSummary::Change& change : entries.at(0).summary.changes) {
      const auto record = cdb_store::ParseRecordKey(change.record_key);
      lines.push_back("+~-"[static_cast<int>(change.operation)] +
                      cdb_store::InstanceText(schema, schema.node(record->node), record->keys));
      for (const CommitSummary::Leaf& leaf : change.leaves)
        lines.push_back("  " + schema.node(leaf.node).name + ": " + Text(leaf.old_value) + " > " +
                        Text(leaf.new_value));
      if (change.unnamed_leaves > 0) lines.push_back("  and " + std::to_string(change.unnamed_leaves));
    }
    return lines;
  }
  static std::string Goods(int code, const std::string& attributes = "") {
    return "<goods" + attributes + "><name>nut" + std::to_string(code) + "</name><code>" + std::to_string(code) +
           "</code><price>0.5</price></goods>";
  }
  StoreFixture fixture{"unlike"};
};

TEST_F(JournalRecord, HasOldAndNewValuesOfWhatChanged) {
  Commit(Goods(1));
  EXPECT_THAT(Changes(), ElementsAre("+/un:shop/goods{nut1}", "  code: - > '1'", "  price: - > '0.5'"));
  Commit("<goods><name>nut1</name><code>1</code><price>1.25</price></goods><title>t</title>");
  EXPECT_THAT(Changes(), ElementsAre("+/", "  title: - > 't'", "~/un:shop/goods{nut1}", "  price: '0.5' > '1.25'"));
  Commit("<title nc:operation='remove'/><shelf><row>1</row><side>left</side><box><id>5</id><lid/></box></shelf>");
  EXPECT_THAT(Changes(), ElementsAre("-/", "  title: 't' > -", "+/un:shop/shelf{1 left}",
                                     "+/un:shop/shelf{1 left}/box{5}", "+/un:shop/shelf{1 left}/box{5}/lid"));
  Commit(Goods(1, " nc:operation='delete'"));
  EXPECT_THAT(Changes(), ElementsAre("-/un:shop/goods{nut1}", "  code: '1' > -", "  price: '1.25' > -"));
}

TEST_F(JournalRecord, CutsLongValuesBetweenCharacters) {
  std::string euros;
  for (int i = 0; i < 22; ++i) euros += "\u20ac";  // 66 bytes
  Commit("<title>" + euros.substr(0, 63) + "x</title>");
  EXPECT_THAT(Changes(), ElementsAre("+/", "  title: - > '" + euros.substr(0, 63) + "x'"));
  Commit("<title>" + euros + "</title>");
  EXPECT_THAT(Changes(),
              ElementsAre("~/", "  title: '" + euros.substr(0, 63) + "x' > '" + euros.substr(0, 63) + "' cut"));
}

TEST_F(JournalRecord, KeepsWhoWhenAndWhy) {
  JournalEntry entry;
  entry.time = kTime;
  entry.user = "admin";
  entry.session = 7;
  entry.comment = "ticket 4711";
  entry.fingerprint = 99;
  Commit(Goods(1), entry);
  const std::vector<JournalEntry> entries = journal::Read(*fixture.store).value();
  ASSERT_EQ(entries.size(), 1U);
  ExpectHead(entries[0], 1, "ticket 4711");
  EXPECT_EQ(entries[0].summary.created, 1U);
}

// A page of its own would be one more page to write with every commit.
TEST_F(JournalRecord, OfTheLargestCommitStaysInThePagesOfItsTable) {
  JournalEntry entry;
  entry.txid = 1;
  entry.user = std::string(32, 'u');
  for (int i = 0; i < 255; ++i) entry.comment += "\U0001F600";  // four bytes each
  const CommitSummary::Value value{std::string(CommitSummary::kMaxValueBytes, 'v'), true};
  const size_t key_bytes = CommitSummary::kMaxChangeBytes / CommitSummary::kMaxChanges;
  entry.summary.changes.resize(CommitSummary::kMaxChanges);
  for (CommitSummary::Change& change : entry.summary.changes) {
    change.record_key = std::string(key_bytes, 'k');
    change.leaves.assign(CommitSummary::kMaxLeaves / CommitSummary::kMaxChanges, {1, value, value});
  }
  auto txn = fixture.store->Begin();
  ASSERT_TRUE(txn.ok());
  ASSERT_TRUE(journal::Note(entry, &txn.value()).ok());
  ASSERT_TRUE(txn.value().Commit().ok());

  const std::vector<JournalEntry> entries = journal::Read(*fixture.store).value();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].user, entry.user);
  EXPECT_EQ(entries[0].comment, entry.comment);
  std::vector<std::string> named;
  for (const CommitSummary::Change& change : entries[0].summary.changes)
    named.push_back(std::to_string(change.record_key.size()) + " " + std::to_string(change.leaves.size()) + " and " +
                    std::to_string(change.unnamed_leaves));
  EXPECT_THAT(named, ElementsAre("64 1 and 3", "64 0 and 4", "64 0 and 4", "64 0 and 4", "64 0 and 4", "64 0 and 4",
                                 "64 0 and 4", "64 0 and 4"));

  fixture.store.reset();
  const auto env = cdb_store::Environment::OpenForReading(fixture.directory);
  ASSERT_TRUE(env.ok());
  const auto reading = env.value()->BeginRead();
  MDB_stat stat{};
  ASSERT_TRUE(reading.ok() && mdb_stat(reading.value().get(), env.value()->log, &stat) == 0);
  EXPECT_EQ(stat.ms_entries, 1U);
  EXPECT_EQ(stat.ms_overflow_pages, 0U);
}

TEST_F(JournalRecord, OfTheFirstLayoutIsRead) {
  Commit(Goods(1));
  const std::string key = journal::Read(*fixture.store).value().at(0).summary.changes.at(0).record_key;
  common::ByteWriter old;
  old.Put(uint64_t{2});
  old.Put(int64_t{1'700'000'000'123'456});
  old.PutString("admin");
  old.Put(uint32_t{7});
  old.Put(uint64_t{99});
  for (const uint32_t count : {3U, 2U, 1U}) old.Put(count);
  old.Put(uint8_t{2});
  old.PutString(key);
  old.Put(uint8_t{1});
  old.PutString(key);
  auto txn = fixture.store->Begin();
  ASSERT_TRUE(txn.ok());
  ASSERT_TRUE(txn.value().PutLog(2, old.data()).ok());
  ASSERT_TRUE(txn.value().PutLog(3, old.data().substr(0, old.data().size() - 1)).ok()) << "damaged";
  ASSERT_TRUE(txn.value().Commit().ok());

  const std::vector<JournalEntry> entries = journal::Read(*fixture.store).value();
  ASSERT_EQ(entries.size(), 2U) << "and the damaged one is passed over";
  ExpectHead(entries[0], 2, "");
  EXPECT_EQ(entries[0].summary.created, 3U);
  EXPECT_EQ(entries[0].summary.modified, 2U);
  EXPECT_EQ(entries[0].summary.deleted, 1U);
  EXPECT_THAT(Changes(), ElementsAre("-/un:shop/goods{nut1}", "~/un:shop/goods{nut1}"));
  EXPECT_EQ(entries[1].txid, 1U);
}

}  // namespace
}  // namespace cdbd::test
