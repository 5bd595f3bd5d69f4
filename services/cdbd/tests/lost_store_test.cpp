// A database that existed and is gone or empty: a real server refuses to start, instead of serving an empty
// configuration that would open every port.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "cdbd_process.h"

namespace cdbd::test {
namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr size_t kPage = 4096;

std::string ReadFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream{path, std::ios::binary}.rdbuf();
  return text.str();
}

/// Every file of the database with its content; the locks, which every start touches, only by name.
std::map<std::string, std::string> Files(const std::string& state_dir) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator{state_dir}) {
    const bool is_lock = entry.path().filename() == "lock.mdb" || entry.path().filename() == "server.lock";
    if (entry.is_regular_file() && !is_lock) files[entry.path().string()] = ReadFile(entry.path());
  }
  return files;
}

void Zero(const fs::path& path, size_t at, size_t size) {
  std::fstream file{path, std::ios::in | std::ios::out | std::ios::binary};
  file.seekp(static_cast<std::streamoff>(at));
  file << std::string(size, '\0');
}

/// Starts the server, which ends with status 1 and one line: that line.
std::string Refusal(CdbdProcess& server, const std::vector<std::string>& options = {}) {
  const size_t before = server.Log().size();
  server.SetExtraOptions(options);
  EXPECT_EQ(server.RunToEnd(), 1);
  server.SetExtraOptions({});
  std::string line = server.Log().substr(before);
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
  EXPECT_THAT(line, StartsWith("cdbd: open configuration store " + server.StateDir() + "/cdb: "));
  return line;
}

struct LostCase {
  std::string name;
  std::function<void(const fs::path& state)> lose;
  std::string words;
};
void PrintTo(const LostCase& row, std::ostream* out) { *out << row.name; }

class LostStore : public testing::TestWithParam<LostCase> {};

TEST_P(LostStore, IsRefusedUntilANewOneIsAskedFor) {
  CdbdProcess server;
  server.Start();
  ASSERT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth0"}))));
  ASSERT_EQ(server.Stop(), 0);
  GetParam().lose(server.StateDir());
  const auto before = Files(server.StateDir());

  for (int start = 0; start < 2; ++start) {
    const std::string line = Refusal(server);
    EXPECT_THAT(line, HasSubstr(GetParam().words));
    EXPECT_THAT(line, HasSubstr("--new-database"));
    EXPECT_EQ(Files(server.StateDir()), before);
  }

  const fs::path data = server.StateDir() + "/cdb/data.mdb";
  if (fs::exists(data) && fs::file_size(data) > 0) fs::remove(data);  // as the line says
  server.SetExtraOptions({"--new-database"});
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), "");
  ASSERT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth1"}))));
  ASSERT_EQ(server.Stop(), 0);
  server.SetExtraOptions({});
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), Interfaces({"eth1"}));
}

INSTANTIATE_TEST_SUITE_P(
    Start, LostStore,
    testing::Values(
        LostCase{"Empty", [](const fs::path& state) { fs::resize_file(state / "cdb/data.mdb", 0); },
                 "data.mdb is empty"},
        LostCase{"Removed", [](const fs::path& state) { fs::remove(state / "cdb/data.mdb"); }, "data.mdb is gone"},
        LostCase{"DirectoryRemoved", [](const fs::path& state) { fs::remove_all(state / "cdb"); }, "data.mdb is gone"},
        LostCase{"EmptyWithoutItsIdentity",
                 [](const fs::path& state) {
                   fs::resize_file(state / "cdb/data.mdb", 0);
                   fs::remove(state / "cdb.identity");
                 },
                 "data.mdb is empty"},
        LostCase{"RemovedWithItsIdentity",
                 [](const fs::path& state) {
                   fs::remove(state / "cdb/data.mdb");
                   fs::remove(state / "cdb.identity");
                 },
                 "data.mdb is gone"},
        LostCase{"FirstPageLost", [](const fs::path& state) { Zero(state / "cdb/data.mdb", 0, kPage); },
                 "data.mdb is damaged"},
        LostCase{"SecondPageLost", [](const fs::path& state) { Zero(state / "cdb/data.mdb", kPage, kPage); },
                 "data.mdb is damaged"},
        LostCase{"CutToItsFirstPage", [](const fs::path& state) { fs::resize_file(state / "cdb/data.mdb", kPage); },
                 "data.mdb is damaged"}),
    [](const auto& row) { return row.param.name; });

TEST(Start, AnotherDatabaseIsRefused) {
  CdbdProcess other;
  other.Start();
  ASSERT_EQ(other.Stop(), 0);
  CdbdProcess server;
  server.Start();
  ASSERT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth0"}))));
  ASSERT_EQ(server.Stop(), 0);
  const auto overwrite = fs::copy_options::overwrite_existing;
  fs::copy_file(other.StateDir() + "/cdb/data.mdb", server.StateDir() + "/cdb/data.mdb", overwrite);
  const auto before = Files(server.StateDir());
  const std::string line = Refusal(server);
  EXPECT_THAT(line, HasSubstr("is not the database that this directory held"));
  EXPECT_THAT(line, EndsWith("remove " + server.StateDir() + "/cdb.identity\n"));
  EXPECT_EQ(Files(server.StateDir()), before);
  fs::remove(server.StateDir() + "/cdb.identity");
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), "");
}

TEST(Start, NewDatabaseKeepsOneThatExists) {
  CdbdProcess server;
  server.Start();
  ASSERT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth0"}))));
  ASSERT_EQ(server.Stop(), 0);
  const auto before = Files(server.StateDir());
  EXPECT_THAT(Refusal(server, {"--new-database"}), HasSubstr("data.mdb exists"));
  EXPECT_EQ(Files(server.StateDir()), before);
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), Interfaces({"eth0"}));
}

TEST(Start, OlderDatabaseGetsItsIdentityFile) {
  CdbdProcess server;
  server.Start();
  ASSERT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth0"}))));
  ASSERT_EQ(server.Stop(), 0);
  const std::string identity = ReadFile(server.StateDir() + "/cdb.identity");
  EXPECT_THAT(identity, StartsWith("cdb-store "));
  fs::remove(server.StateDir() + "/cdb.identity");
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), Interfaces({"eth0"}));
  EXPECT_EQ(ReadFile(server.StateDir() + "/cdb.identity"), identity);
}

}  // namespace
}  // namespace cdbd::test
