#include "cdb_store/environment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "cdb_store/schema_builder.h"
#include "cdb_store/store_writer.h"
#include "cdb_store_testing/models.h"
#include "cdb_store_testing/tree.h"
#include "forked/forked.h"
#include "temp_dir/temp_dir.h"

namespace cdb_store {
namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class EnvironmentTest : public ::testing::Test {
 protected:
  auto Open(Schema schema = testing::BoxSchema()) {
    return StoreWriter::Open({.path = dir_.path(), .durable = false}, std::move(schema), "server");
  }
  void MakeStore() {
    auto store = Open();
    ASSERT_TRUE(store.ok());
    testing::CommitTree(*store.value(), {{"/tb:box/name", "one"}});
  }
  /// Opening fails with `reason`, for a server and for a client, and the file stays as it is.
  void ExpectRefused(const std::string& reason) {
    const std::string before = ReadFile(data_);
    const auto store = Open();
    ASSERT_FALSE(store.ok());
    EXPECT_EQ(
        store.error().Text(),
        "open configuration store " + dir_.path() + ": " + reason +
            "; nothing was changed. To begin with an empty configuration on purpose, move data.mdb away and start "
            "once with --new-database");
    const auto reader = StoreReader::Open(dir_.path());
    ASSERT_FALSE(reader.ok());
    EXPECT_EQ(reader.error().Text(), "open configuration store " + dir_.path() + ": " + reason);
    EXPECT_EQ(ReadFile(data_), before);
  }

  test::TempDir dir_;
  const std::string data_ = dir_.path() + "/data.mdb";
};

TEST_F(EnvironmentTest, ASecondServerIsRefused) {
  const auto first = Open();
  ASSERT_TRUE(first.ok());
  EXPECT_EQ(test::InChild([&] {
              const auto second = Open();
              return !second.ok() && second.error().reason == "another server is using it" ? 0 : 1;
            }),
            0);
}

TEST_F(EnvironmentTest, AForeignFileIsRefused) {
  WriteFile(data_, std::string(20000, 'x'));
  ExpectRefused("data.mdb is damaged or not a database");
}

TEST_F(EnvironmentTest, AShortForeignFileIsRefused) {
  WriteFile(data_, "hello");
  ExpectRefused("data.mdb is damaged or not a database");
}

TEST_F(EnvironmentTest, ACutOffFileIsRefused) {
  MakeStore();
  std::filesystem::resize_file(data_, std::filesystem::file_size(data_) - 4096);
  ExpectRefused("data.mdb is damaged (shorter than it says)");
}

TEST_F(EnvironmentTest, AnotherProgramsDatabaseIsRefused) {
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi dbi = 0;
  ASSERT_EQ(mdb_env_create(&env), 0);
  ASSERT_EQ(mdb_env_open(env, dir_.path().c_str(), 0, 0600), 0);
  ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
  ASSERT_EQ(mdb_dbi_open(txn, nullptr, 0, &dbi), 0);
  MDB_val key = ToVal("their");
  MDB_val data = ToVal("data");
  ASSERT_EQ(mdb_put(txn, dbi, &key, &data, 0), 0);
  ASSERT_EQ(mdb_txn_commit(txn), 0);
  mdb_env_close(env);
  ExpectRefused("data.mdb holds something else, or nothing");
}

TEST_F(EnvironmentTest, AnotherFormatIsRefused) {
  {
    const auto env = Environment::Create({.path = dir_.path()});
    ASSERT_TRUE(env.ok());
    auto txn = env.value()->BeginWrite();
    MDB_val key = ToVal("format");
    MDB_val data = ToVal("cdb-store 99");
    ASSERT_EQ(mdb_put(txn.value().get(), env.value()->meta, &key, &data, 0), 0);
    ASSERT_EQ(mdb_txn_commit(txn.value().release()), 0);
  }
  ExpectRefused("was written by another version (\"cdb-store 99\")");
}

TEST_F(EnvironmentTest, AnotherDataModelIsRefused) {
  MakeStore();
  const std::string before = ReadFile(data_);
  const auto store = Open(testing::AntiSpoofingSchema());
  ASSERT_FALSE(store.ok());
  EXPECT_EQ(
      store.error().Text(),
      "open configuration store " + dir_.path() +
          ": holds /tb:box/name, which the data model no longer has or stores in another way; nothing was changed");
  EXPECT_EQ(ReadFile(data_), before);
}

TEST_F(EnvironmentTest, AReaderNeedsAStore) {
  const auto reader = StoreReader::Open(dir_.path());
  ASSERT_FALSE(reader.ok());
  EXPECT_EQ(reader.error().Text(), "open configuration store " + dir_.path() + ": No such file or directory");
}

TEST_F(EnvironmentTest, AMissingDirectoryIsNamed) {
  const auto store = StoreWriter::Open({.path = dir_.path() + "/none"}, testing::BoxSchema(), "server");
  ASSERT_FALSE(store.ok());
  EXPECT_EQ(store.error().Text(), "open " + dir_.path() + "/none/server.lock: No such file or directory");
}

TEST_F(EnvironmentTest, ADeadReadersSlotIsReleased) {
  MakeStore();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = test::StartChild([&] {
    auto reader = StoreReader::Open(dir_.path());
    const auto snapshot = reader.ok() ? reader.value()->Take() : common::Error{};
    const char byte = snapshot.ok() ? 'y' : 'n';
    if (write(ready[1], &byte, 1) != 1) return 1;
    return pause();
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y');
  const auto store = Open();
  ASSERT_TRUE(store.ok());
  EXPECT_EQ(store.value()->ReleaseDeadReaders(), 0);
  ASSERT_EQ(kill(child, SIGKILL), 0);
  ASSERT_EQ(test::WaitFor(child), -SIGKILL);
  EXPECT_EQ(store.value()->ReleaseDeadReaders(), 1);
  close(ready[0]);
  close(ready[1]);
}

TEST_F(EnvironmentTest, AFullStoreFailsTheCommitAndKeepsTheRest) {
  auto store =
      StoreWriter::Open({.path = dir_.path(), .map_size = 256 * 1024, .durable = false}, testing::BoxSchema(), "s");
  ASSERT_TRUE(store.ok());
  testing::CommitTree(*store.value(), {{"/tb:box/name", "one"}});
  const Node& name = *store.value()->schema().FindPath("/tb:box/name");
  auto txn = store.value()->Begin();
  common::Status status = common::Ok();
  for (int i = 0; i < 4 && status; ++i) status = txn.value().SetLeaf(name, "", std::string(100000 + 50000 * i, 'x'));
  if (status) {
    const auto committed = txn.value().Commit();
    ASSERT_FALSE(committed.ok());
    status = committed.error();
  } else {
    const WriteTxn dropped = std::move(txn).value();
  }
  EXPECT_NE(status.error().Text().find("MDB_MAP_FULL"), std::string::npos) << status.error().Text();
  testing::CommitTree(*store.value(), {{"/tb:box/name", "two"}});
  EXPECT_EQ(testing::Dump(store.value()->Take().value()->Running()), std::vector<std::string>{"/tb:box/name = two"});
}

}  // namespace
}  // namespace cdb_store
