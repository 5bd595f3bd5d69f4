// A server that dies, or whose disk fails, at any write while it creates a database or carries one over.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "cdb_store/schema_builder.h"
#include "cdb_store/store_writer.h"
#include "cdb_store_testing/tree.h"
#include "forked/forked.h"
#include "temp_dir/temp_dir.h"

namespace {

enum class Fault { kKilledBefore, kKilledAfter, kFails, kWritesHalf };

int writes_until_fault = -1;  ///< negative: none
Fault fault = Fault::kFails;

/// Counts one write or sync; true when it is the one that fails.
bool IsFaulty() { return writes_until_fault >= 0 && writes_until_fault-- == 0; }

template <class Call>
ssize_t WithFault(size_t size, Call call) {
  if (!IsFaulty()) return call(size);
  switch (fault) {
    case Fault::kKilledBefore:
      break;
    case Fault::kKilledAfter:
      call(size);
      break;
    case Fault::kFails:
      errno = EIO;
      return -1;
    case Fault::kWritesHalf:
      call(size / 2);
      break;
  }
  raise(SIGKILL);
  return -1;
}

}  // namespace

// The database library's calls end here instead of in libc.
extern "C" {
ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
  return WithFault(size, [&](size_t n) { return syscall(SYS_pwrite64, fd, data, n, at); });
}
ssize_t writev(int fd, const iovec* parts, int count) {
  return WithFault(static_cast<size_t>(count), [&](size_t n) { return syscall(SYS_writev, fd, parts, n); });
}
ssize_t write(int fd, const void* data, size_t size) {
  return WithFault(size, [&](size_t n) { return syscall(SYS_write, fd, data, n); });
}
int fdatasync(int fd) {
  return static_cast<int>(WithFault(1, [&](size_t n) { return n == 0 ? 0 : syscall(SYS_fdatasync, fd); }));
}
int fsync(int fd) {
  return static_cast<int>(WithFault(1, [&](size_t n) { return n == 0 ? 0 : syscall(SYS_fsync, fd); }));
}
int unlink(const char* path) {
  return static_cast<int>(WithFault(1, [&](size_t n) { return n == 0 ? 0 : syscall(SYS_unlink, path); }));
}
int rename(const char* from, const char* to) {
  return static_cast<int>(WithFault(1, [&](size_t n) { return n == 0 ? 0 : syscall(SYS_rename, from, to); }));
}
}

namespace cdb_store {
namespace {

constexpr int kItems = 400;  // several pages

Schema Build(bool grown) {
  SchemaBuilder builder;
  const uint16_t ns = builder.AddNamespace({1, "p", "m", "urn:m"});
  if (grown) builder.Add(kRootId, ns, {.name = "front", .type = ValueType::kString});
  const NodeId item = builder.Add(kRootId, ns, {.kind = NodeKind::kList, .name = "item", .keys = {"id"}});
  builder.Add(item, ns, {.name = "id", .type = ValueType::kInt32});
  if (grown) builder.Add(item, ns, {.name = "extra", .type = ValueType::kEmpty});
  builder.Add(item, ns, {.name = "weight", .type = ValueType::kString});
  return builder.Build().value();
}

/// Opens the store in a process of its own. Its end, as test::WaitFor() tells it; 0: the fault did not come.
int OpenWithFault(const StoreOptions& options, bool grown, int after, Fault kind) {
  return test::InChild([&] {
    fault = kind;
    writes_until_fault = after;
    const auto store = StoreWriter::Open(options, Build(grown), "server");
    const bool came = writes_until_fault < 0;
    writes_until_fault = -1;
    if (!store.ok()) return 1;
    return came ? 3 : 0;
  });
}

class MigrationCrash : public ::testing::TestWithParam<Fault> {
 protected:
  /// A new store of the old model, and what is in it.
  std::vector<std::string> Fill(const std::string& path) {
    const auto store = StoreWriter::Open({.path = path, .durable = false}, Build(false), "server").value();
    std::vector<testing::PathValue> tree;
    for (int i = 0; i < kItems; ++i) {
      tree.push_back({"/p:item{" + std::to_string(i) + "}/weight", "some text that takes room"});
    }
    testing::CommitTree(*store, tree);
    return testing::Dump(store->Take().value()->Running());
  }
};

TEST_P(MigrationCrash, LeavesTheOldOrTheNewAtEveryWrite) {
  int old_stores = 0;
  int ended_at = -1;
  for (int at = 0; at < 1000; ++at) {
    const test::TempDir dir;
    const std::vector<std::string> before = Fill(dir.path());
    const int status = OpenWithFault({.path = dir.path()}, true, at, GetParam());
    if (status == 0) {
      ended_at = at;
      break;
    }
    ASSERT_EQ(status, GetParam() == Fault::kFails ? 1 : -SIGKILL) << "write " << at;
    {
      const auto reader = StoreReader::Open(dir.path());
      ASSERT_TRUE(reader.ok()) << "write " << at << ": " << reader.error().Text();
      const auto snapshot = reader.value()->Take();
      ASSERT_TRUE(snapshot.ok()) << "write " << at << ": " << snapshot.error().Text();
      EXPECT_EQ(testing::Dump(snapshot.value()->Running()), before) << "write " << at;
      const bool old_model = snapshot.value()->schema().Fingerprint() == Build(false).Fingerprint();
      EXPECT_TRUE(old_model || snapshot.value()->schema().Fingerprint() == Build(true).Fingerprint());
      old_stores += old_model ? 1 : 0;
    }
    const auto again = StoreWriter::Open({.path = dir.path(), .durable = false}, Build(true), "server");
    ASSERT_TRUE(again.ok()) << "write " << at << ": " << again.error().Text();
    EXPECT_EQ(testing::Dump(again.value()->Take().value()->Running()), before) << "write " << at;
    EXPECT_EQ(testing::Dump(again.value()->Take().value()->PreCommit()), before) << "write " << at;
  }
  EXPECT_GE(ended_at, 3) << "the pages, their sync and the page that makes them valid";
  EXPECT_GE(old_stores, ended_at - 2) << "only the last write makes it new";
}

class CreationCrash : public ::testing::TestWithParam<Fault> {};

TEST_P(CreationCrash, NextStartSucceedsAfterAnyWrite) {
  int ended_at = -1;
  for (int at = 0; at < 1000 && ended_at < 0; ++at) {
    const test::TempDir dir;
    const int status = OpenWithFault({.path = dir.path()}, false, at, GetParam());
    if (status == 0) ended_at = at;
    const auto store = StoreWriter::Open({.path = dir.path(), .durable = false}, Build(false), "server");
    ASSERT_TRUE(store.ok()) << "write " << at << ": " << store.error().Text();
    EXPECT_EQ(testing::Dump(store.value()->Take().value()->Running()), std::vector<std::string>{});
  }
  EXPECT_GE(ended_at, 10) << "both header pages, the tables, the move and the identity, each with its sync";
}

TEST_P(CreationCrash, ReplacingALostStoreCanBeRepeated) {
  int ended_at = -1;
  for (int at = 0; at < 1000 && ended_at < 0; ++at) {
    const test::TempDir dir;
    ASSERT_TRUE(StoreWriter::Open({.path = dir.path(), .durable = false}, Build(false), "server").ok());
    std::filesystem::resize_file(dir.path() + "/data.mdb", 0);
    const int status = OpenWithFault({.path = dir.path(), .new_database = true}, false, at, GetParam());
    if (status == 0) ended_at = at;
    const bool is_there = std::filesystem::file_size(dir.path() + "/data.mdb") > 0;
    const auto store =
        StoreWriter::Open({.path = dir.path(), .durable = false, .new_database = !is_there}, Build(false), "server");
    ASSERT_TRUE(store.ok()) << "write " << at << ": " << store.error().Text();
  }
  EXPECT_GE(ended_at, 10);
}

std::string FaultName(const ::testing::TestParamInfo<Fault>& row) {
  constexpr const char* kNames[] = {"KilledBefore", "KilledAfter", "Fails", "WritesHalf"};
  return kNames[static_cast<int>(row.param)];
}
const auto kFaults = ::testing::Values(Fault::kKilledBefore, Fault::kKilledAfter, Fault::kFails, Fault::kWritesHalf);
INSTANTIATE_TEST_SUITE_P(All, MigrationCrash, kFaults, FaultName);
INSTANTIATE_TEST_SUITE_P(All, CreationCrash, kFaults, FaultName);

}  // namespace
}  // namespace cdb_store
