// A store that cannot be read is an error of the operation, never a configuration with less in it.
#include <gtest/gtest.h>

#include "cdb_store_testing/failing_reads.h"
#include "commit/journal.h"
#include "edit/stored_check.h"
#include "store_fixture.h"

namespace cdbd::test {
namespace {

using cdb_store::testing::FailingRead;

constexpr int kManyReads = 1000;
constexpr const char* kConfiguration =
    "<shop xmlns='urn:ip-spoofing:test:unlike'><title>t</title><keyword>k1</keyword>"
    "<goods><name>nut</name><code>1</code><price>0.5</price></goods>"
    "<shelf><row>1</row><side>left</side><box><id>5</id><content>nut</content><mark>7</mark></box></shelf></shop>";

class StoreFailure : public testing::Test {
 protected:
  StoreFailure() { EXPECT_TRUE(fixture.Edit(kConfiguration).empty()); }
  /// Calls `fails` with the first read failing, then with the second, until none does: it says whether it has failed.
  template <class Fails>
  static void ForEachRead(Fails fails) {
    int failing = 1;
    for (; failing < kManyReads; ++failing) {
      const FailingRead read{failing};
      const bool failed = fails();
      if (!FailingRead::HasFailed()) {
        EXPECT_FALSE(failed);
        break;
      }
      EXPECT_TRUE(failed) << "read " << failing;
    }
    EXPECT_GT(failing, 1) << "nothing was read";
  }
  StoreFixture fixture{"unlike"};
};

TEST_F(StoreFailure, IsAnErrorOfReadingTheConfiguration) {
  const auto snapshot = fixture.store->Take();
  ASSERT_TRUE(snapshot.ok());
  for (const std::string filter : {"", "<shop><shelf><row>1</row><side>left</side></shelf></shop>",
                                   "<shop><keyword>k1</keyword><goods/></shop>"}) {
    const auto document = netconf::XmlDocument::Parse("<filter>" + filter + "</filter>");
    ASSERT_TRUE(document.ok());
    const Selection selection = filter.empty() ? Selection::Everything() : Selection::Of(document.value()->root());
    ForEachRead([&] {
      const cdb_store::View running = snapshot.value()->Running();
      std::string out;
      return !WriteConfiguration(*fixture.model, running, selection, &out).ok();
    });
  }
}

TEST_F(StoreFailure, IsAnErrorOfTheCheckAtTheStart) {
  const auto snapshot = fixture.store->Take();
  ASSERT_TRUE(snapshot.ok());
  ForEachRead([&] { return !CheckStored(*fixture.model, snapshot.value()->Running()).ok(); });
}

// What it takes away, or finds there already, is committed as it was or not at all.
TEST_F(StoreFailure, IsAnErrorOfAnEdit) {
  const std::string open =
      "<shop xmlns='urn:ip-spoofing:test:unlike' xmlns:nc='urn:ietf:params:xml:ns:netconf:base:1.0'>";
  for (const std::string edit :
       {"<title nc:operation='remove'/>", "<shelf nc:operation='remove'><row>2</row><side>left</side></shelf>",
        "<goods nc:operation='replace'><name>nut</name><code>1</code><price>0.5</price></goods>"}) {
    const auto document = netconf::XmlDocument::Parse("<config>" + open + edit + "</shop></config>");
    ASSERT_TRUE(document.ok()) << edit;
    ForEachRead([&] {
      auto txn = fixture.store->Begin();
      if (!txn) return true;
      if (!Editor{*fixture.model, txn.value(), {}}.Apply(document.value()->root()).empty()) return true;
      return false;
    });
  }
}

TEST_F(StoreFailure, IsAnErrorOfACommit) {
  const cdb_store::Node& title = *fixture.model->schema().FindPath("/un:shop/title");
  int round = 0;
  ForEachRead([&] {
    auto txn = fixture.store->Begin();
    const auto before = fixture.store->txid();
    if (!txn || !txn.value().SetLeaf(title, {}, std::to_string(++round))) return true;
    const bool failed = !txn.value().Commit().ok();
    EXPECT_EQ(fixture.store->txid() == before, failed);
    return failed;
  });
}

TEST_F(StoreFailure, IsAnErrorOfASummary) {
  auto txn = fixture.store->Begin();
  ASSERT_TRUE(txn.ok());
  ASSERT_TRUE(txn.value().SetLeaf(*fixture.model->schema().FindPath("/un:shop/title"), {}, "new").ok());
  ForEachRead([&] { return !CommitSummary::Of(txn.value()).ok(); });
}

TEST_F(StoreFailure, IsAnErrorOfTheJournal) {
  auto txn = fixture.store->Begin();
  ASSERT_TRUE(txn.ok());
  JournalEntry entry;
  entry.txid = 1;
  ASSERT_TRUE(journal::Note(entry, &txn.value()).ok());
  ASSERT_TRUE(txn.value().Commit().ok());
  ASSERT_EQ(journal::Read(*fixture.store).value().size(), 1U);
  ForEachRead([&] { return !journal::Read(*fixture.store).ok(); });
}

TEST_F(StoreFailure, IsAnErrorOfASnapshot) {
  ForEachRead([&] { return !fixture.store->Take().ok(); });
}

}  // namespace
}  // namespace cdbd::test
