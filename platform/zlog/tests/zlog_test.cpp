#include "zlog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "forked/forked.h"
#include "temp_dir/temp_dir.h"

namespace {

using testing::ElementsAre;
namespace fs = std::filesystem;

constexpr const char* kHead =
    "[global]\ndefault format = \"%c %V %m%n\"\n[levels]\nLOG_DETAIL = 10\nLOG_INFO = 11\nLOG_ERROR = 12\n"
    "[formats]\nplace = \"%F|%U|%L|%m%n\"\n[rules]\n";

class Zlog : public testing::Test {
 protected:
  void SetUp() override { ::setenv("ZLOG_TEST_DIR", folder_.c_str(), 1); }
  void TearDown() override { zlog_fini(); }
  int Init(const std::string& rules) {
    std::ofstream{folder_ / "zlog.conf"} << kHead << rules;
    return zlog_init((folder_ / "zlog.conf").c_str());
  }
  [[nodiscard]] std::string Read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream{folder_ / name}.rdbuf();
    return text.str();
  }
  /// What the folder holds, but for the configuration.
  [[nodiscard]] std::map<std::string, std::string> Files() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator{folder_}) {
      const std::string name = entry.path().filename();
      if (name != "zlog.conf") files[name] = Read(name);
    }
    return files;
  }
  static void Log(zlog_category_t* category, int level, const std::string& text) {
    zlog(category, "src/file.cpp", 12, "Function", 8, 42, level, "%s", text.c_str());
  }
  const test::TempDir directory_;
  const fs::path folder_ = directory_.path();
};

TEST_F(Zlog, BeforeInitThereIsNoCategoryAndNothingIsEnabled) {
  EXPECT_EQ(zlog_get_category("app"), nullptr);
  EXPECT_EQ(zlog_level_enabled(nullptr, 11), 0);
  Log(nullptr, 11, "nowhere");
}

TEST_F(Zlog, ACategoryIsTheSameEveryTime) {
  ASSERT_EQ(Init("*.* >stderr\n"), 0);
  EXPECT_EQ(zlog_get_category("app"), zlog_get_category("app"));
  EXPECT_NE(zlog_get_category("app"), zlog_get_category("other"));
  EXPECT_EQ(zlog_get_category(""), nullptr);
  EXPECT_EQ(zlog_get_category(nullptr), nullptr);
}

TEST_F(Zlog, EachLevelIsEnabledWhereSomeRuleWritesIt) {
  ASSERT_EQ(Init("app.LOG_INFO \"%E(ZLOG_TEST_DIR)/a\"\nquiet.=LOG_ERROR \"%E(ZLOG_TEST_DIR)/a\"\n"), 0);
  const auto enabled = [](const char* name) {
    std::vector<int> levels;
    for (const int level : {-1, 0, 9, 10, 11, 12, 13, 255, 256}) {
      if (zlog_level_enabled(zlog_get_category(name), level) != 0) levels.push_back(level);
    }
    return levels;
  };
  EXPECT_THAT(enabled("app"), ElementsAre(11, 12, 13, 255));
  EXPECT_THAT(enabled("quiet"), ElementsAre(12));
  EXPECT_THAT(enabled("unknown"), ElementsAre());
}

TEST_F(Zlog, EveryRuleThatFitsWritesTheLineOnce) {
  ASSERT_EQ(Init("app.LOG_INFO \"%E(ZLOG_TEST_DIR)/info\"\n"
                 "*.* \"%E(ZLOG_TEST_DIR)/all\"\n"
                 "!.* \"%E(ZLOG_TEST_DIR)/rest\"\n"),
            0);
  Log(zlog_get_category("app"), 10, "detail");
  Log(zlog_get_category("app"), 12, "error");
  Log(zlog_get_category("other"), 10, "other");
  EXPECT_THAT(Files(), ElementsAre(testing::Pair("all",
                                                 "app LOG_DETAIL detail\napp LOG_ERROR error\n"
                                                 "other LOG_DETAIL other\n"),
                                   testing::Pair("info", "app LOG_ERROR error\n"), testing::Pair("rest", "")));
}

TEST_F(Zlog, ExclamationMarkTakesTheCategoriesWithoutARule) {
  ASSERT_EQ(Init("app.=LOG_ERROR \"%E(ZLOG_TEST_DIR)/app\"\n!.* \"%E(ZLOG_TEST_DIR)/rest\"\n"), 0);
  Log(zlog_get_category("app"), 10, "has a rule, though not for this level");
  Log(zlog_get_category("stray"), 10, "stray");
  EXPECT_EQ(Read("app"), "");
  EXPECT_EQ(Read("rest"), "stray LOG_DETAIL stray\n");
}

TEST_F(Zlog, PlaceTextsAreCountedNotTerminated) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\"; place\n"), 0);
  zlog(zlog_get_category("app"), "file.cppXXX", 8, "FunctionYYY", 8, 7, 11, "%d%%", 5);
  zlog(zlog_get_category("app"), nullptr, 0, nullptr, 0, 8, 11, "no place");
  EXPECT_EQ(Read("a"), "file.cpp|Function|7|5%\n||8|no place\n");
}

TEST_F(Zlog, ALongMessageIsWholeAndOneBeyondTheBufferIsCut) {
  std::ofstream{folder_ / "zlog.conf"} << "[global]\nbuffer max = 4K\ndefault format = \"%m%n\"\n[rules]\n"
                                          "*.* \"%E(ZLOG_TEST_DIR)/a\"\n";
  ASSERT_EQ(zlog_init((folder_ / "zlog.conf").c_str()), 0);
  Log(zlog_get_category("app"), 20, std::string(4000, 'x'));
  Log(zlog_get_category("app"), 20, std::string(5000, 'y'));
  EXPECT_EQ(Read("a"), std::string(4000, 'x') + "\n" + std::string(4095, 'y') + "\n");
}

TEST_F(Zlog, AFileIsMadeWithTheModeOfTheConfiguration) {
  std::ofstream{folder_ / "zlog.conf"} << "[global]\nfile perms = 640\n[rules]\n*.* \"%E(ZLOG_TEST_DIR)/a\"\n";
  ASSERT_EQ(zlog_init((folder_ / "zlog.conf").c_str()), 0);
  EXPECT_EQ(fs::status(folder_ / "a").permissions(), fs::perms{0640});
}

TEST_F(Zlog, TheFileNameMayDependOnTheCategory) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/%c.log\"\n"), 0);
  for (const char* name : {"one", "two", "one"}) Log(zlog_get_category(name), 11, "x");
  EXPECT_THAT(Files(), ElementsAre(testing::Pair("one.log", "one LOG_INFO x\none LOG_INFO x\n"),
                                   testing::Pair("two.log", "two LOG_INFO x\n")));
}

TEST_F(Zlog, RotatesBeforeTheLineThatWouldNotFitAndKeepsTheNewestFirst) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\", 40 * 2\n"), 0);
  for (int i = 0; i < 9; ++i) Log(zlog_get_category("app"), 11, std::to_string(i));  // 15 bytes each
  EXPECT_THAT(Files(), ElementsAre(testing::Pair("a", "app LOG_INFO 8\n"),
                                   testing::Pair("a.0", "app LOG_INFO 6\napp LOG_INFO 7\n"),
                                   testing::Pair("a.1", "app LOG_INFO 4\napp LOG_INFO 5\n")));
}

TEST_F(Zlog, RotatesToASequenceWhoseHighestIsTheNewest) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\", 20 * 2 ~ \"%E(ZLOG_TEST_DIR)/old.#s.log\"\n"), 0);
  for (int i = 0; i < 5; ++i) Log(zlog_get_category("app"), 11, std::to_string(i));
  EXPECT_THAT(Files(),
              ElementsAre(testing::Pair("a", "app LOG_INFO 4\n"), testing::Pair("old.2.log", "app LOG_INFO 2\n"),
                          testing::Pair("old.3.log", "app LOG_INFO 3\n")));
}

TEST_F(Zlog, WithoutACountEveryRotatedFileIsKept) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\", 20\n"), 0);
  for (int i = 0; i < 12; ++i) Log(zlog_get_category("app"), 11, std::to_string(i % 10));
  EXPECT_EQ(Files().size(), 12u);
  EXPECT_EQ(Read("a.10"), "app LOG_INFO 0\n");
}

TEST_F(Zlog, ALineLongerThanTheLimitHasAFileOfItsOwn) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\", 10 * 5\n"), 0);
  Log(zlog_get_category("app"), 11, "first");
  Log(zlog_get_category("app"), 11, "second");
  EXPECT_THAT(Files(),
              ElementsAre(testing::Pair("a", "app LOG_INFO second\n"), testing::Pair("a.0", "app LOG_INFO first\n")));
}

TEST_F(Zlog, AFileThatSomebodyMovedAwayIsMadeAnew) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\"\n"), 0);
  Log(zlog_get_category("app"), 11, "1");
  fs::rename(folder_ / "a", folder_ / "moved");
  Log(zlog_get_category("app"), 11, "2");
  EXPECT_THAT(Files(), ElementsAre(testing::Pair("a", "app LOG_INFO 2\n"), testing::Pair("moved", "app LOG_INFO 1\n")));
}

TEST_F(Zlog, ProcessesThatShareARotatedFileLoseNoLine) {
  constexpr int kProcesses = 4;
  constexpr int kLines = 200;
  std::vector<pid_t> children;
  std::ofstream{folder_ / "zlog.conf"} << "[global]\ndefault format = \"%m%n\"\n[rules]\n"
                                          "*.* \"%E(ZLOG_TEST_DIR)/a\", 1K\n";
  for (int process = 0; process < kProcesses; ++process) {
    children.push_back(test::StartChild([&] {
      const bool good = zlog_init((folder_ / "zlog.conf").c_str()) == 0;
      for (int line = 0; line < kLines; ++line) {
        Log(zlog_get_category("app"), 20, std::to_string(process) + ":" + std::to_string(line));
      }
      return good ? 0 : 1;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(test::WaitFor(child), 0);
  std::map<std::string, int> seen;
  for (const auto& [name, text] : Files()) {
    EXPECT_TRUE(name == "a" || text.size() > 1024 - 8) << name << " was rotated though it had room";
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);) ++seen[line];
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(kProcesses * kLines));
  for (const auto& [line, count] : seen) EXPECT_EQ(count, 1) << line;
}

TEST_F(Zlog, AFileThatAnotherProcessIsRotatingIsNotRotatedTwice) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\", 20 * 5\n"), 0);
  Log(zlog_get_category("app"), 11, "0");
  const int folder = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(::flock(folder, LOCK_EX), 0);
  const pid_t child = test::StartChild([&] {
    ::close(folder);  // else the lock would be the child's, too
    Log(zlog_get_category("app"), 11, "1");
    return 0;
  });
  ASSERT_TRUE(test::WaitUntilItWaitsForALock(child));
  fs::rename(folder_ / "a", folder_ / "a.0");  // as the other process does
  ::close(folder);
  EXPECT_EQ(test::WaitFor(child), 0);
  EXPECT_THAT(Files(), ElementsAre(testing::Pair("a", "app LOG_INFO 1\n"), testing::Pair("a.0", "app LOG_INFO 0\n")));
}

TEST_F(Zlog, ThreadsMayLogAtOnce) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\"\n"), 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int line = 0; line < 100; ++line) Log(zlog_get_category("app"), 11, "x");
    });
  }
  for (auto& thread : threads) thread.join();
  std::string expected;
  for (int i = 0; i < 400; ++i) expected += "app LOG_INFO x\n";
  EXPECT_EQ(Read("a"), expected);
}

TEST_F(Zlog, StandardStreamsGetTheirLines) {
  ASSERT_EQ(Init("app.LOG_ERROR >stderr\napp.=LOG_INFO >stdout\n"), 0);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Log(zlog_get_category("app"), 10, "neither");
  Log(zlog_get_category("app"), 11, "out");
  Log(zlog_get_category("app"), 12, "err");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "app LOG_INFO out\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "app LOG_ERROR err\n");
}

TEST_F(Zlog, AfterFiniAKeptCategoryWritesNothingAndWorksAgainAfterTheNextInit) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/a\"\n"), 0);
  zlog_category_t* app = zlog_get_category("app");
  zlog_fini();
  EXPECT_EQ(zlog_level_enabled(app, 11), 0);
  Log(app, 11, "lost");
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/b\"\n"), 0);
  Log(app, 11, "kept");
  EXPECT_THAT(Files(), ElementsAre(testing::Pair("a", ""), testing::Pair("b", "app LOG_INFO kept\n")));
}

TEST_F(Zlog, AWrongFileIsRefusedWithOneLineThatNamesThePlace) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Init("app.WRONG >stderr\n"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "zlog: " + (folder_ / "zlog.conf").string() + ":10: unknown level 'WRONG'\n");
  EXPECT_EQ(zlog_get_category("app"), nullptr);
}

TEST_F(Zlog, ALogFileThatCannotBeOpenedIsRefused) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/none/a\"\n"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "zlog: open " + (folder_ / "none/a").string() + ": No such file or directory\n");
}

TEST_F(Zlog, ASecondInitIsRefused) {
  ASSERT_EQ(Init("*.* >stderr\n"), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Init("*.* >stderr\n"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "zlog: initialised already\n");
}

TEST_F(Zlog, AFailingFileIsReportedOnce) {
  ASSERT_EQ(Init("*.* \"%E(ZLOG_TEST_DIR)/%c/a\"\n"), 0);
  testing::internal::CaptureStderr();
  Log(zlog_get_category("app"), 11, "1");
  Log(zlog_get_category("app"), 11, "2");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "zlog: open " + (folder_ / "app/a").string() + ": No such file or directory\n");
}

TEST_F(Zlog, NullTakesTheFileThatTheEnvironmentNamesElseStandardOutput) {
  std::ofstream{folder_ / "other.conf"} << kHead << "*.* \"%E(ZLOG_TEST_DIR)/a\"\n";
  ::setenv("ZLOG_CONF_PATH", (folder_ / "other.conf").c_str(), 1);
  ASSERT_EQ(zlog_init(nullptr), 0);
  Log(zlog_get_category("app"), 11, "file");
  EXPECT_EQ(Read("a"), "app LOG_INFO file\n");
  zlog_fini();
  ::unsetenv("ZLOG_CONF_PATH");
  ASSERT_EQ(zlog_init(nullptr), 0);
  testing::internal::CaptureStdout();
  Log(zlog_get_category("app"), 40, "standard output");
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::ContainsRegex("^[0-9-]+ [0-9:]+ INFO \\[[0-9]+:src/file.cpp:42\\] standard output\n$"));
}

}  // namespace
