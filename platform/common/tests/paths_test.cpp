#include "common/paths.h"

#include <gtest/gtest.h>
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

}  // namespace
}  // namespace common
