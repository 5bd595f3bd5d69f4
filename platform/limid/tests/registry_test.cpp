#include "registry.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "forked/forked.h"
#include "temp_dir/temp_dir.h"

namespace limid_impl {
namespace {

namespace fs = std::filesystem;

constexpr size_t kRecord = 24;

class RegistryFile : public testing::Test {
 protected:
  [[nodiscard]] fs::path File() const { return folder_ / "names"; }
  [[nodiscard]] std::string Bytes() const {
    std::ostringstream text;
    text << std::ifstream{File()}.rdbuf();
    return text.str();
  }
  void SetBytes(const std::string& bytes) const { std::ofstream{File(), std::ios::trunc} << bytes; }
  [[nodiscard]] std::unique_ptr<Registry> MustOpen() const {
    auto opened = Registry::Open(folder_);
    EXPECT_TRUE(opened) << opened.error().Text();
    return opened ? std::move(opened).value() : nullptr;
  }
  /// A registry of "a", "b" and "c", closed again.
  void MakeThree() const {
    const auto registry = MustOpen();
    for (const char* name : {"a", "b", "c"}) ASSERT_TRUE(registry->Intern(name));
  }
  const test::TempDir directory_;
  const fs::path folder_ = directory_.path();
};

TEST_F(RegistryFile, NumbersCountFromOneAndOutliveTheProcess) {
  MakeThree();
  const auto registry = MustOpen();
  EXPECT_EQ(registry->Intern("c").value(), 3u);
  EXPECT_EQ(registry->Intern("fifteen-letters").value(), 4u);
  EXPECT_EQ(registry->Name(1).value(), "a");
  EXPECT_EQ(registry->Name(4).value(), "fifteen-letters");
  EXPECT_EQ(registry->Name(0).value(), std::nullopt);
  EXPECT_EQ(registry->Name(5).value(), std::nullopt);
  EXPECT_EQ(Bytes().size(), 5 * kRecord);
}

struct TailCase {
  std::string name;
  std::string tail;  ///< appended to the three records
};
class RegistryTail : public RegistryFile, public testing::WithParamInterface<TailCase> {};

TEST_P(RegistryTail, ThatACrashLeftIsRemovedAndTheNamesBeforeItAreKept) {
  MakeThree();
  const std::string whole = Bytes();
  SetBytes(whole + GetParam().tail);
  const auto registry = MustOpen();
  ASSERT_NE(registry, nullptr);
  EXPECT_EQ(Bytes(), whole);
  EXPECT_EQ(registry->Intern("d").value(), 4u);
  EXPECT_EQ(registry->Intern("b").value(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Tails, RegistryTail,
                         testing::Values(TailCase{"OneByte", "x"}, TailCase{"HalfARecord", "d" + std::string(11, '\0')},
                                         TailCase{"Zeroes", std::string(kRecord, '\0')},
                                         TailCase{"ZeroesOfManyRecords", std::string(10 * kRecord + 5, '\0')},
                                         TailCase{"AnythingElse", std::string(2 * kRecord, 'x')}),
                         [](const auto& row) { return row.param.name; });

TEST_F(RegistryFile, DamageBeforeWholeRecordsIsAnErrorAndNothingIsChanged) {
  MakeThree();
  std::string bytes = Bytes();
  bytes[2 * kRecord] = 'x';  // the name of number 2
  SetBytes(bytes);
  const auto opened = Registry::Open(folder_);
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error().Text(), "read " + File().string() + ": record 2 is damaged");
  EXPECT_EQ(Bytes(), bytes);
}

TEST_F(RegistryFile, SoIsDamageThatMovedTheRecordsBehindIt) {
  MakeThree();
  std::string bytes = Bytes();
  bytes.insert(3 * kRecord, kRecord, 'x');  // before number 3
  SetBytes(bytes);
  const auto opened = Registry::Open(folder_);
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error().Text(), "read " + File().string() + ": record 3 is damaged");
}

TEST_F(RegistryFile, WhatAnotherProcessAddedMeanwhileIsSeenBeforeANameIsAdded) {
  const auto one = MustOpen();
  const auto other = MustOpen();  // stands for the other process
  EXPECT_EQ(one->Intern("a").value(), 1u);
  EXPECT_EQ(other->Intern("b").value(), 2u);
  EXPECT_EQ(other->Intern("a").value(), 1u);
  EXPECT_EQ(one->Name(2).value(), "b");
}

TEST_F(RegistryFile, ANameIsAddedUnderTheLock) {
  MakeThree();
  const int fd = ::open(File().c_str(), O_RDWR);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  ASSERT_EQ(::fcntl(fd, F_SETLK, &lock), 0);
  const pid_t child = test::StartChild([&] {
    const auto opened = Registry::Open(folder_);
    return opened && opened.value()->Intern("d").value() == 4 ? 0 : 1;
  });
  EXPECT_TRUE(test::WaitUntilItWaitsForALock(child));
  EXPECT_EQ(Bytes().size(), 4 * kRecord);  // closes a descriptor of the file, and with it ends the lock
  ::close(fd);
  EXPECT_EQ(test::WaitFor(child), 0);
}

TEST_F(RegistryFile, ARecordInAnotherPlaceIsAnError) {
  MakeThree();
  const std::string bytes = Bytes();
  SetBytes(bytes + bytes.substr(kRecord, kRecord));
  const auto opened = Registry::Open(folder_);
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error().Text(), "read " + File().string() + ": record 4 is damaged");
}

TEST_F(RegistryFile, AnotherFileIsNotTouched) {
  for (const std::string text : {"short", "this is somebody's file, and not a registry"}) {
    SetBytes(text);
    const auto opened = Registry::Open(folder_);
    ASSERT_FALSE(opened);
    EXPECT_EQ(opened.error().Text(), "open " + File().string() + ": not a registry of interface names");
    EXPECT_EQ(Bytes(), text);
  }
}

TEST_F(RegistryFile, AHeaderCutByAKillIsWrittenAgain) {
  SetBytes("limid na");
  EXPECT_EQ(MustOpen()->Intern("a").value(), 1u);
  EXPECT_EQ(MustOpen()->Intern("b").value(), 2u);
}

}  // namespace
}  // namespace limid_impl
