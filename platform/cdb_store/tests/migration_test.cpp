// A store whose data model has changed between two starts of the server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "cdb_store/path.h"
#include "cdb_store/schema_builder.h"
#include "cdb_store/store_writer.h"
#include "cdb_store_testing/models.h"
#include "cdb_store_testing/tree.h"
#include "temp_dir/temp_dir.h"

namespace cdb_store {
namespace {

using testing::PathValue;

/// What differs between two versions of a small model.
struct Version {
  bool more_before = false;  ///< nodes in front, so that every number moves
  bool has_note = true;
  ValueType size_type = ValueType::kInt32;
  std::vector<EnumName> colours = {{"red", 1}, {"blue", 2}};
  NodeKind box_kind = NodeKind::kContainer;
  std::vector<std::string> keys = {"id", "part"};
  bool operational = false;
};

Schema Build(const Version& version) {
  SchemaBuilder builder;
  const uint16_t ns = builder.AddNamespace({1, "p", "m", "urn:m"});
  if (version.more_before) {
    const NodeId front = builder.Add(kRootId, ns, {.kind = NodeKind::kList, .name = "front", .keys = {"k"}});
    builder.Add(front, ns, {.name = "k", .type = ValueType::kUint8});
  }
  const NodeId box = builder.Add(kRootId, ns, {.kind = version.box_kind, .name = "box"});
  if (version.more_before) builder.Add(box, ns, {.name = "first", .type = ValueType::kString});
  builder.Add(box, ns, {.name = "size", .type = version.size_type});
  builder.Add(box, ns, {.name = "colour", .type = ValueType::kEnum, .enums = version.colours});
  if (version.has_note) builder.Add(box, ns, {.name = "note", .type = ValueType::kString});
  const NodeId item = builder.Add(box, ns, {.kind = NodeKind::kList, .name = "item", .keys = version.keys});
  builder.Add(item, ns, {.name = "id", .type = ValueType::kString});
  builder.Add(item, ns, {.name = "part", .type = ValueType::kInt8});
  if (version.more_before) builder.Add(item, ns, {.name = "extra", .type = ValueType::kEmpty});
  builder.Add(item, ns, {.name = "weight", .type = ValueType::kUint16});
  builder.Add(item, ns, {.kind = NodeKind::kLeafList, .name = "tag", .type = ValueType::kString});
  if (version.operational) {
    builder.Add(box, ns, {.name = "load", .config = false, .type = ValueType::kInt8});
  }
  return builder.Build().value();
}

const std::vector<PathValue> kTree = {{"/p:box/size", "7"},
                                      {"/p:box/colour", "blue"},
                                      {"/p:box/item{a 1}/weight", "3"},
                                      {"/p:box/item{a 1}/tag{t}", ""},
                                      {"/p:box/item{a 2}", ""}};

struct MigrationCase {
  const char* name;
  Version version;
  std::vector<PathValue> tree;
  const char* problem;  ///< null: carried over
};

class Migration : public ::testing::TestWithParam<MigrationCase> {};

TEST_P(Migration, CarriesTheRowsOverOrLeavesThem) {
  const test::TempDir dir;
  std::vector<std::string> before;
  Txid txid;
  {
    auto store = StoreWriter::Open({.path = dir.path(), .durable = false}, Build({}), "server").value();
    testing::CommitTree(*store, {{"/p:box/size", "1"}});
    txid = testing::CommitTree(*store, GetParam().tree);
    before = testing::Dump(store->Take().value()->Running());
  }
  {
    auto opened = StoreWriter::Open({.path = dir.path(), .durable = false}, Build(GetParam().version), "server");
    ASSERT_EQ(opened.ok(), GetParam().problem == nullptr) << (opened.ok() ? "" : opened.error().Text());
    if (!opened.ok()) {
      EXPECT_EQ(opened.error().reason, GetParam().problem);
    } else {
      StoreWriter& store = *opened.value();
      const auto snapshot = store.Take().value();
      EXPECT_EQ(testing::Dump(snapshot->Running()), before);
      EXPECT_EQ(store.txid(), txid) << "the configuration is the same";
      const bool moved = store.migrated();
      EXPECT_EQ(moved, store.schema().Fingerprint() != Build({}).Fingerprint());
      if (moved) {
        EXPECT_EQ(testing::Dump(snapshot->PreCommit()), before);
        EXPECT_EQ(snapshot->diff_of(), 0U);
      }
      const Node& item = *store.schema().FindPath("/p:box/item");
      EXPECT_EQ(snapshot->Running().Count(item, "").value(), GetParam().tree.size() > 2 ? 2U : 0U);
      testing::CommitTree(store, {{"/p:box/size", "9"}});
      EXPECT_EQ(testing::Dump(store.Take().value()->PreCommit()), before);
      return;
    }
  }
  auto store = StoreWriter::Open({.path = dir.path(), .durable = false}, Build({}), "server").value();
  EXPECT_EQ(testing::Dump(store->Take().value()->Running()), before) << "left as it was";
}

#define GONE(path) "holds " path ", which the data model no longer has or stores in another way; nothing was changed"

INSTANTIATE_TEST_SUITE_P(
    All, Migration,
    ::testing::Values(
        MigrationCase{"Same", {}, kTree, nullptr}, MigrationCase{"NodesAdded", {.more_before = true}, kTree, nullptr},
        MigrationCase{"OperationalNodeAdded", {.operational = true}, kTree, nullptr},
        MigrationCase{"UnusedNodeRemoved", {.has_note = false}, kTree, nullptr},
        MigrationCase{"UsedNodeRemoved", {.has_note = false}, {{"/p:box/note", "x"}}, GONE("/p:box/note")},
        MigrationCase{"TypeChanged", {.size_type = ValueType::kInt64}, kTree, GONE("/p:box/size")},
        MigrationCase{"EnumerationGrew", {.colours = {{"red", 1}, {"green", 3}, {"blue", 2}}}, kTree, nullptr},
        MigrationCase{"UnusedNameRemoved", {.colours = {{"blue", 2}}}, kTree, nullptr},
        MigrationCase{"UsedNameRemoved", {.colours = {{"red", 1}}}, kTree, GONE("/p:box/colour")},
        MigrationCase{"NameReplaced", {.colours = {{"red", 1}, {"green", 2}}}, kTree, GONE("/p:box/colour")},
        MigrationCase{"EnumerationRenumbered", {.colours = {{"red", 2}, {"blue", 1}}}, kTree, GONE("/p:box/colour")},
        MigrationCase{"ContainerGotPresence", {.box_kind = NodeKind::kPresenceContainer}, kTree, GONE("/p:box/size")},
        MigrationCase{"KeysReordered", {.keys = {"part", "id"}}, kTree, GONE("/p:box/item{a 1}")}),
    [](const auto& row) { return row.param.name; });

/// A store that the first version of the software wrote.
void WriteInFirstFormat(const std::string& path, bool with_identity = true) {
  const auto env = Environment::OpenForWriting({.path = path}).value();
  auto txn = env->BeginWrite().value();
  const auto put = [&](std::string_view key, std::string_view value) {
    MDB_val key_val = ToVal(key);
    MDB_val data = ToVal(value);
    ASSERT_EQ(mdb_put(txn.get(), env->meta, &key_val, &data, 0), 0);
  };
  MDB_val key = ToVal("identity");
  MDB_val data{};
  ASSERT_EQ(mdb_get(txn.get(), env->meta, &key, &data), 0);
  put("identity", std::string(FromVal(data).substr(0, with_identity ? 20 : 19)));
  put("format", "cdb-store 1");
  put("fingerprint", "8 bytes.");
  ASSERT_EQ(mdb_txn_commit(txn.release()), 0);
}

class FirstFormat : public ::testing::Test {
 protected:
  void SetUp() override {
    auto store = Open().value();
    testing::CommitTree(*store, {{"/p:box/size", "1"}});
    txid_ = testing::CommitTree(*store, kTree);
    before_ = testing::Dump(store->Take().value()->Running());
  }
  common::Result<std::unique_ptr<StoreWriter>> Open() {
    return StoreWriter::Open({.path = dir_.path(), .durable = false}, Build({}), "server");
  }

  test::TempDir dir_;
  Txid txid_;
  std::vector<std::string> before_;
};

TEST_F(FirstFormat, IsCarriedOver) {
  WriteInFirstFormat(dir_.path());
  const auto early = StoreReader::Open(dir_.path());
  ASSERT_FALSE(early.ok());
  EXPECT_EQ(early.error().reason, "was written by another version (\"cdb-store 1\")");
  {
    const auto store = Open().value();
    EXPECT_TRUE(store->migrated());
    EXPECT_EQ(store->txid(), txid_);
    EXPECT_EQ(testing::Dump(store->Take().value()->Running()), before_);
    EXPECT_EQ(testing::Dump(store->Take().value()->PreCommit()), before_);
  }
  EXPECT_FALSE(Open().value()->migrated());
  const auto env = Environment::OpenForReading(dir_.path()).value();
  const TxnHandle txn = env->BeginRead().value();
  EXPECT_EQ(ReadRecord(txn.get(), env->meta, "fingerprint").value(), std::nullopt);
  EXPECT_EQ(ReadRecord(txn.get(), env->meta, "format").value(), "cdb-store 2");
}

TEST_F(FirstFormat, WithoutAWholeIdentityItIsRefused) {
  WriteInFirstFormat(dir_.path(), false);
  const auto store = Open();
  ASSERT_FALSE(store.ok());
  EXPECT_THAT(store.error().reason,
              ::testing::StartsWith("data.mdb is damaged (what names its state is gone); nothing was changed. "));
}

class ChecksModel : public FirstFormat {
 protected:
  auto Open(const std::string& version, const Version& model = {}) {
    const auto allows = [this](const View& running) -> common::Status {
      asked_.push_back(testing::Dump(running));
      if (refuses_) return common::Error{"", "/p:box/size", "too large"};
      return common::Ok();
    };
    return StoreWriter::Open({.path = dir_.path(), .durable = false}, Build(model), "server", {version, allows});
  }
  using Dumps = std::vector<std::vector<std::string>>;
  Dumps asked_;
  bool refuses_ = false;
};

TEST_F(ChecksModel, TheModelIsAskedOncePerVersion) {
  for (const char* version : {"1", "1", "2", "2", "1"}) ASSERT_TRUE(Open(version).ok());
  ASSERT_TRUE(Open("1", {.more_before = true}).ok());
  EXPECT_EQ(asked_, Dumps(3, before_)) << "1, 2 and 1 again; not when only its numbers moved";
}

TEST_F(ChecksModel, WhatTheModelRefusesIsLeftAsItIs) {
  refuses_ = true;
  const auto refused = Open("2", {.more_before = true});
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().Text(), "open configuration store " + dir_.path() +
                                        ": holds what the data model does not allow: /p:box/size: too large; nothing "
                                        "was changed");
  EXPECT_EQ(asked_, Dumps{before_}) << "asked of what was carried over";
  refuses_ = false;
  const auto store = FirstFormat::Open().value();
  EXPECT_FALSE(store->migrated());
  EXPECT_EQ(testing::Dump(store->Take().value()->Running()), before_);
}

TEST_F(ChecksModel, AnEmptyStoreIsNotAsked) {
  const test::TempDir fresh;
  const auto allows = [](const View&) -> common::Status { return common::Error{"", "/", "asked"}; };
  EXPECT_TRUE(StoreWriter::Open({.path = fresh.path(), .durable = false}, Build({}), "server", {"1", allows}).ok());
}

TEST(MigrationOfAReader, AReaderWithTheOldModelIsTold) {
  const test::TempDir dir;
  const auto open_once = [&](const Version& version) {
    return StoreWriter::Open({.path = dir.path(), .durable = false}, Build(version), "server").ok();
  };
  ASSERT_TRUE(open_once({}));
  const auto reader = StoreReader::Open(dir.path()).value();
  ASSERT_TRUE(reader->Take().ok());
  ASSERT_TRUE(open_once({.more_before = true}));
  const auto snapshot = reader->Take();
  ASSERT_FALSE(snapshot.ok());
  EXPECT_EQ(snapshot.error().reason, "the server has another data model now: connect again");
}

}  // namespace
}  // namespace cdb_store
