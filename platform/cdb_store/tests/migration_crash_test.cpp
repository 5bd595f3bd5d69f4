// A server that dies, or whose disk fails, at any write while it carries a database over.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
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
int fdatasync(int fd) {
  return static_cast<int>(WithFault(1, [&](size_t n) { return n == 0 ? 0 : syscall(SYS_fdatasync, fd); }));
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

/// Carries the store over in a process of its own. Its end, as test::WaitFor() tells it.
int MigrateWithFault(const std::string& path, int after, Fault kind) {
  return test::InChild([&] {
    fault = kind;
    writes_until_fault = after;
    const auto store = StoreWriter::Open({.path = path}, Build(true), "server");
    if (!store.ok()) return 1;
    return writes_until_fault >= 0 ? 0 : 3;
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
    const int status = MigrateWithFault(dir.path(), at, GetParam());
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

std::string FaultName(const ::testing::TestParamInfo<Fault>& row) {
  constexpr const char* kNames[] = {"KilledBefore", "KilledAfter", "Fails", "WritesHalf"};
  return kNames[static_cast<int>(row.param)];
}
INSTANTIATE_TEST_SUITE_P(All, MigrationCrash,
                         ::testing::Values(Fault::kKilledBefore, Fault::kKilledAfter, Fault::kFails,
                                           Fault::kWritesHalf),
                         FaultName);

}  // namespace
}  // namespace cdb_store
