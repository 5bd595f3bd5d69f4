#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "cdb_store/path.h"
#include "cdb_store/store_reader.h"
#include "cdb_store/store_writer.h"
#include "cdb_store_testing/models.h"
#include "cdb_store_testing/tree.h"
#include "temp_dir/temp_dir.h"

namespace cdb_store {
namespace {

using testing::CommitTree;
using testing::Dump;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::Put;
using testing::Remove;

class StoreTest : public ::testing::Test {
 protected:
  StoreTest() {
    store_ = StoreWriter::Open({.path = dir_.path(), .durable = false}, testing::BoxSchema(), "server").value();
  }

  /// One commit made by `edit`.
  template <class Edit>
  Txid Commit(Edit edit, CommitKind kind = CommitKind::kNormal) {
    auto txn = store_->Begin();
    edit(txn.value());
    return txn.value().Commit(kind).value();
  }

  std::vector<std::string> Running() { return Dump(store_->Take().value()->Running()); }
  std::vector<std::string> PreCommit() { return Dump(store_->Take().value()->PreCommit()); }

  /// "+" created, "-" deleted, "~" changed, "#" for a count record.
  std::vector<std::string> Diff() {
    const auto snapshot = store_->Take().value();
    const Schema& schema = store_->schema();
    std::vector<std::string> lines;
    const DiffView diff = snapshot->Diff();
    DiffCursor cursor(diff);
    for (auto change = cursor.Seek("").value(); change; change = cursor.Next().value()) {
      const RecordKey record = ParseRecordKey(change->key).value();
      const char* what = !change->old_row ? "+" : !change->new_row ? "-" : "~";
      lines.push_back((record.is_count ? "#" : "") + std::string(what) +
                      InstanceText(schema, schema.node(record.node), record.keys));
    }
    return lines;
  }

  uint32_t Count(const std::string& list) {
    const auto snapshot = store_->Take().value();
    const Located at = LocatePath(store_->schema(), list).value();
    return snapshot->Running().Count(*at.node, at.keys).value();
  }

  test::TempDir dir_;
  std::unique_ptr<StoreWriter> store_;
};

TEST_F(StoreTest, KeepsATreeInSchemaAndKeyOrder) {
  CommitTree(*store_, {{"/tb:box/dns{10.0.0.2}", ""},
                       {"/tb:box/dns{9.255.0.1}", ""},
                       {"/tb:box/site{b}/height", "1.5"},
                       {"/tb:box/site{b}/where/floor{-1}", ""},
                       {"/tb:box/site{b}/where/floor{0}/room{7 north}/tag{x}", ""},
                       {"/tb:box/site{a}/tx:owner", "me"},
                       {"/tb:box/login/strict", ""},
                       {"/tb:box/clock/offset", "-3"}});
  EXPECT_THAT(Running(),
              ElementsAre("/tb:box/clock/offset = -3", "/tb:box/login", "/tb:box/login/strict",
                          "/tb:box/dns{9.255.0.1}", "/tb:box/dns{10.0.0.2}", "/tb:box/site{a}",
                          "/tb:box/site{a}/name = a", "/tb:box/site{a}/tx:owner = me", "/tb:box/site{b}",
                          "/tb:box/site{b}/name = b", "/tb:box/site{b}/height = 1.5", "/tb:box/site{b}/where/floor{-1}",
                          "/tb:box/site{b}/where/floor{-1}/level = -1", "/tb:box/site{b}/where/floor{0}",
                          "/tb:box/site{b}/where/floor{0}/level = 0", "/tb:box/site{b}/where/floor{0}/room{7 north}",
                          "/tb:box/site{b}/where/floor{0}/room{7 north}/number = 7",
                          "/tb:box/site{b}/where/floor{0}/room{7 north}/wing = north",
                          "/tb:box/site{b}/where/floor{0}/room{7 north}/tag{x}"));
  EXPECT_EQ(Count("/tb:box/dns"), 2U);
  EXPECT_EQ(Count("/tb:box/site"), 2U);
  EXPECT_EQ(Count("/tb:box/site{b}/where/floor"), 2U);
  EXPECT_EQ(Count("/tb:box/site{a}/where/floor"), 0U);
}

TEST_F(StoreTest, RefusesALeafWithoutItsInstance) {
  auto txn = store_->Begin();
  const Located at = LocatePath(store_->schema(), "/tb:box/site{x}/height").value();
  const auto status = txn.value().SetLeaf(*at.node, at.keys, StoreInt<int64_t>(1));
  ASSERT_FALSE(status.ok());
  EXPECT_EQ(status.error().Text(), "set /tb:box/site{x}/height: the instance above it does not exist");
}

TEST_F(StoreTest, RefusesAnInstanceWithoutTheOneAbove) {
  auto txn = store_->Begin();
  const Located at = LocatePath(store_->schema(), "/tb:box/site{x}/where/floor{1}").value();
  const auto status = txn.value().Create(*at.node, at.keys);
  ASSERT_FALSE(status.ok());
  EXPECT_EQ(status.error().Text(), "create /tb:box/site{x}/where/floor{1}: the instance above it does not exist");
}

TEST_F(StoreTest, WhatChangesNothingKeepsTheIdentity) {
  const Txid first = CommitTree(*store_, {{"/tb:box/name", "one"}});
  EXPECT_EQ(CommitTree(*store_, {{"/tb:box/name", "one"}}), first);
  EXPECT_EQ(Commit([](WriteTxn& txn) {
              Put(txn, "/tb:box/site{x}/height", "1");
              Remove(txn, "/tb:box/site{x}");
            }),
            first);
  EXPECT_EQ(Commit([](WriteTxn&) {}), first);
  EXPECT_EQ(Commit([](WriteTxn& txn) { ASSERT_TRUE(txn.PutLog(1, "one").ok()); }), first);
  EXPECT_THAT(store_->ReadLog().value(), ElementsAre(LogRecord{1, "one"}));
  EXPECT_THAT(Diff(), ElementsAre("+/"));
}

TEST_F(StoreTest, IdentitySurvivesReopening) {
  const Txid first = CommitTree(*store_, {{"/tb:box/name", "one"}});
  store_.reset();
  store_ = StoreWriter::Open({.path = dir_.path()}, testing::BoxSchema(), "server").value();
  EXPECT_EQ(store_->txid(), first);
  EXPECT_NE(first.store, 0U);
  EXPECT_EQ(first.number, 1U);
  EXPECT_FALSE(store_->created());
  EXPECT_THAT(Running(), ElementsAre("/tb:box/name = one"));
}

TEST_F(StoreTest, PreCommitIsTheStateBeforeTheLastCommit) {
  CommitTree(*store_, {{"/tb:box/name", "one"}, {"/tb:box/site{a}", ""}});
  EXPECT_THAT(PreCommit(), IsEmpty());
  const std::vector<std::string> before = Running();
  Commit([](WriteTxn& txn) {
    Put(txn, "/tb:box/name", "two");
    Remove(txn, "/tb:box/site{a}");
  });
  EXPECT_EQ(PreCommit(), before);
  EXPECT_THAT(Running(), ElementsAre("/tb:box/name = two"));
  EXPECT_THAT(Diff(), ElementsAre("~/", "-/tb:box/site{a}", "#-/tb:box/site"));
}

TEST_F(StoreTest, ABulkCommitLeavesNoDifference) {
  CommitTree(*store_, {{"/tb:box/name", "one"}});
  const Txid txid = Commit([](WriteTxn& txn) { Put(txn, "/tb:box/site{a}"); }, CommitKind::kBulk);
  EXPECT_EQ(txid.number, 2U);
  EXPECT_EQ(PreCommit(), Running());
  EXPECT_THAT(Diff(), IsEmpty());
  EXPECT_EQ(store_->Take().value()->diff_of(), 0U);
}

TEST_F(StoreTest, SettleEmptiesOnlyALargeDifference) {
  const Txid txid = CommitTree(*store_, {{"/tb:box/name", "one"}, {"/tb:box/site{a}", ""}});
  ASSERT_TRUE(store_->Settle(100).ok());
  EXPECT_EQ(Diff().size(), 3U);
  EXPECT_EQ(store_->Take().value()->diff_of(), 1U);
  ASSERT_TRUE(store_->Settle(3).ok());
  EXPECT_THAT(Diff(), IsEmpty());
  EXPECT_EQ(PreCommit(), Running());
  EXPECT_EQ(store_->txid(), txid);
  EXPECT_EQ(store_->Take().value()->diff_of(), 0U);
}

TEST_F(StoreTest, AnAbandonedTransactionChangesNothing) {
  CommitTree(*store_, {{"/tb:box/name", "one"}});
  {
    auto txn = store_->Begin();
    Put(txn.value(), "/tb:box/name", "two");
    Remove(txn.value(), "/tb:box");
  }
  EXPECT_THAT(Running(), ElementsAre("/tb:box/name = one"));
  EXPECT_EQ(store_->txid().number, 1U);
}

TEST_F(StoreTest, DeletingAnInstanceTakesEverythingBelowAndNothingElse) {
  CommitTree(*store_, {{"/tb:box/site{a}/where/floor{1}/room{1 east}/tag{t}", ""},
                       {"/tb:box/site{a}/where/floor{1}/room{1 east}/locked/since", "5"},
                       {"/tb:box/site{a}/where/floor{2}", ""},
                       {"/tb:box/site{ab}/where/floor{1}", ""}});
  Commit([](WriteTxn& txn) { Remove(txn, "/tb:box/site{a}"); });
  EXPECT_THAT(Running(), ElementsAre("/tb:box/site{ab}", "/tb:box/site{ab}/name = ab",
                                     "/tb:box/site{ab}/where/floor{1}", "/tb:box/site{ab}/where/floor{1}/level = 1"));
  EXPECT_EQ(Count("/tb:box/site"), 1U);
  EXPECT_EQ(Count("/tb:box/site{ab}/where/floor"), 1U);
  EXPECT_EQ(Count("/tb:box/site{a}/where/floor"), 0U);
}

TEST_F(StoreTest, DeletingAContainerTakesItsLeavesAndLists) {
  CommitTree(*store_, {{"/tb:box/site{a}/where/latitude", "7"},
                       {"/tb:box/site{a}/height", "2"},
                       {"/tb:box/site{a}/where/floor{1}", ""}});
  Commit([](WriteTxn& txn) { Remove(txn, "/tb:box/site{a}/where"); });
  EXPECT_THAT(Running(), ElementsAre("/tb:box/site{a}", "/tb:box/site{a}/name = a", "/tb:box/site{a}/height = 2.0"));
  Commit([](WriteTxn& txn) { Remove(txn, "/tb:box"); });
  EXPECT_THAT(Running(), IsEmpty());
}

TEST_F(StoreTest, LogRecordsLiveBesideTheData) {
  Commit([](WriteTxn& txn) {
    ASSERT_TRUE(txn.PutLog(300, "three").ok());
    ASSERT_TRUE(txn.PutLog(2, "two").ok());
    ASSERT_TRUE(txn.PutLog(300, "3").ok());
  });
  EXPECT_THAT(store_->ReadLog().value(), ElementsAre(LogRecord{2, "two"}, LogRecord{300, "3"}));
}

TEST_F(StoreTest, PositionsFollowKeyOrderInAnyPattern) {
  std::vector<testing::PathValue> tree;
  for (int i = 0; i < 100; ++i) tree.push_back({"/tb:box/weight{" + std::to_string((i * 37) % 100 - 50) + "}", ""});
  CommitTree(*store_, tree);
  const auto snapshot = store_->Take().value();
  const Node& list = *store_->schema().FindPath("/tb:box/weight");
  const View running = snapshot->Running();
  RowCursor rows(running, list, "");
  std::mt19937 random(1);
  for (uint32_t i = 0; i < 2000; ++i) {
    const uint32_t position = i % 3 == 0 ? random() % 105 : i % 105;
    ASSERT_EQ(rows.GoTo(position).value(), position < 100) << position;
    if (position >= 100) continue;
    ASSERT_EQ(LoadInt<int32_t>(OwnKeys(store_->schema(), list, rows.keys())[0]), static_cast<int>(position) - 50);
  }
}

TEST_F(StoreTest, ADamagedCountIsAnErrorAndNotZero) {
  CommitTree(*store_, {{"/tb:box/site{a}", ""}, {"/tb:box/weight{1}", ""}});
  const NodeId list = store_->schema().FindPath("/tb:box/site")->id;
  store_.reset();
  {
    const auto env = Environment::OpenForWriting({.path = dir_.path(), .durable = false}).value();
    TxnHandle txn = env->BeginWrite().value();
    InstanceKey instance;
    MDB_val key = ToVal(instance.Count(list));
    MDB_val data = ToVal("xyz");
    ASSERT_EQ(mdb_put(txn.get(), env->running, &key, &data, 0), 0);
    ASSERT_EQ(mdb_txn_commit(txn.release()), 0);
  }
  const auto reader = StoreReader::Open(dir_.path()).value();
  const auto snapshot = reader->Take().value();
  const View running = snapshot->Running();
  EXPECT_EQ(running.Count(*reader->schema().FindPath("/tb:box/weight"), "").value(), 1U);
  const auto damaged = running.Count(*reader->schema().FindPath("/tb:box/site"), "");
  ASSERT_FALSE(damaged.ok());
  EXPECT_TRUE(damaged.error().IsDamaged());
}

/// Running, the counts and pre_commit agree with a model of paths at every step.
TEST_F(StoreTest, RandomEditsEqualAModel) {
  std::mt19937 random(20261121);
  const auto pick = [&](size_t n) { return random() % n; };
  const auto count_lines = [](const std::vector<std::string>& lines, const std::string& list) {
    return std::ranges::count_if(lines, [&](const std::string& line) {
      return line.starts_with(list + "{") && line.find('/', list.size()) == std::string::npos;
    });
  };
  std::vector<std::vector<std::string>> states = {Running()};
  bool changed = false;
  for (int round = 0; round < 300; ++round) {
    Commit([&](WriteTxn& txn) {
      for (size_t n = 1 + pick(6); n > 0; --n) {
        const std::string site = "/tb:box/site{s" + std::to_string(pick(3)) + "}";
        const std::string floor = site + "/where/floor{" + std::to_string(pick(3)) + "}";
        const std::string room = floor + "/room{" + std::to_string(pick(2)) + " east}";
        const std::string paths[] = {site,
                                     floor,
                                     room,
                                     site + "/where",
                                     room + "/locked",
                                     "/tb:box/site",
                                     floor + "/room",
                                     site + "/where/latitude"};
        if (pick(3) == 0) {
          const std::string gone = paths[pick(std::size(paths))];
          Remove(txn, gone);
          const Located at = LocatePath(store_->schema(), gone).value();
          if (at.all_keys) {
            ASSERT_FALSE(txn.Running().Exists(*at.node, at.keys).value()) << gone;
          }
        } else {
          const std::string value = std::to_string(pick(5));
          Put(txn, site + "/where/latitude", value);
          if (pick(2) == 0) Put(txn, room + "/locked/since", value);
          if (pick(2) == 0) Put(txn, room + "/tag{" + value + "}");
        }
      }
      changed = !txn.Changes().value().empty();
    });
    states.push_back(Running());
    if (changed) {
      ASSERT_EQ(PreCommit(), states[states.size() - 2]) << round;
    }
    for (const char* site : {"s0", "s1", "s2"}) {
      const std::string floors = "/tb:box/site{" + std::string(site) + "}/where/floor";
      ASSERT_EQ(Count(floors), count_lines(states.back(), floors)) << round;
    }
  }
}

}  // namespace
}  // namespace cdb_store
