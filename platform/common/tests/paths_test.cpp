#include "common/paths.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace common {
namespace {

/// A variable of the environment for the life of a test; null unsets it.
class ScopedVariable final {
 public:
  ScopedVariable(const char* name, const char* value) : name_{name} {
    if (const char* old = std::getenv(name); old != nullptr) old_ = old;
    Set(value);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() { Set(old_.empty() ? nullptr : old_.c_str()); }

 private:
  void Set(const char* value) const {
    if (value == nullptr) {
      ::unsetenv(name_);
    } else {
      ::setenv(name_, value, 1);
    }
  }
  const char* name_;
  std::string old_;
};

TEST(Paths, EverySocketLiesInTheRunDirOfTheEnvironment) {
  const ScopedVariable run{kRunDirVariable, "/somewhere/run"};
  EXPECT_EQ(RunDir(), "/somewhere/run");
  EXPECT_EQ(CdbSocketPath(), "/somewhere/run/cdb.sock");
  EXPECT_EQ(NetconfSocketPath(), "/somewhere/run/netconf.sock");
  EXPECT_EQ(MgrSocketPath(), "/somewhere/run/mgr.sock");
  EXPECT_EQ(MgrControlSocketPath(), "/somewhere/run/mgr-ctl.sock");
  EXPECT_EQ(FaultFilePath(), "/somewhere/run/faults.jsonl");
}

TEST(Paths, TheStoreLiesInTheStateDirOfTheEnvironment) {
  const ScopedVariable state{kStateDirVariable, "/somewhere/state"};
  EXPECT_EQ(CdbStorePath(), "/somewhere/state/cdb");
}

TEST(Paths, TheModelsOfTheEnvironmentComeFirst) {
  const ScopedVariable models{kModelsDirVariable, "/somewhere/models"};
  EXPECT_EQ(ModelsDir(), "/somewhere/models");
}

TEST(Paths, TheModelsAreFoundAboveTheExecutable) {
  const ScopedVariable models{kModelsDirVariable, nullptr};
  EXPECT_TRUE(std::filesystem::exists(ModelsDir() + "/anti-ip-spoofing.yang")) << ModelsDir();
}

TEST(Paths, EnsureDirMakesTheParentsAndLeavesAnExistingOneAlone) {
  const std::string base = testing::TempDir() + "paths_test." + std::to_string(::getpid());
  EXPECT_TRUE(EnsureDir(base + "/a/b").ok());
  std::ofstream{base + "/a/b/kept"} << "x";
  EXPECT_TRUE(EnsureDir(base + "/a/b").ok());
  EXPECT_TRUE(std::filesystem::exists(base + "/a/b/kept"));
  const Status file = EnsureDir(base + "/a/b/kept");
  ASSERT_FALSE(file.ok());
  EXPECT_EQ(file.error().object, base + "/a/b/kept");
  std::filesystem::remove_all(base);
}

class PrivateDir : public testing::Test {
 protected:
  PrivateDir() { std::filesystem::create_directory(path_); }
  ~PrivateDir() override { std::filesystem::remove_all(path_); }
  /// What EnsurePrivateDir() says of the directory with this mode; "" if it takes it.
  [[nodiscard]] std::string With(mode_t mode) const {
    EXPECT_EQ(::chmod(path_.c_str(), mode), 0);
    const Status status = EnsurePrivateDir(path_);
    return status ? "" : status.error().Text();
  }
  const std::string path_ = testing::TempDir() + "private_dir." + std::to_string(::getpid());
};

TEST_F(PrivateDir, IsCreatedIfMissing) {
  EXPECT_TRUE(EnsurePrivateDir(path_ + "/a/b").ok());
  struct stat info {};
  ASSERT_EQ(::stat((path_ + "/a/b").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777U, 0750U);
}

TEST_F(PrivateDir, MayBeWritableByItsGroup) {
  EXPECT_EQ(With(0700), "");
  EXPECT_EQ(With(0755), "");
  EXPECT_EQ(With(0770), "");
}

TEST_F(PrivateDir, WritableByEveryoneIsRefused) {
  const std::string refusal = "use directory " + path_ + ": every user may write to it; take that away with chmod o-w";
  EXPECT_EQ(With(0777), refusal);
  EXPECT_EQ(With(01777), refusal);
}

TEST_F(PrivateDir, OfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
  ASSERT_EQ(::chown(path_.c_str(), 4711, 4711), 0);
  EXPECT_EQ(With(0750),
            "use directory " + path_ + ": it belongs to user 4711, not to root or to this process's user 0");
}

TEST_F(PrivateDir, OfRootServesOtherUsers) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ASSERT_EQ(::chown(path_.c_str(), 0, 4711), 0);
  ASSERT_EQ(::chmod(path_.c_str(), 0770), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const bool became = ::setgroups(0, nullptr) == 0 && ::setgid(4711) == 0 && ::setuid(4711) == 0;
    ::_exit(became && EnsurePrivateDir(path_).ok() ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace common
