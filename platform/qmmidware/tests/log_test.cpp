#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "common/paths.h"
#include "forked/forked.h"
#include "qmmw.h"
#include "temp_dir/temp_dir.h"

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream{path}.rdbuf();
  return text.str();
}

void Log(qmmw_log_t* log, const char* format, ...) {
  va_list args;
  va_start(args, format);
  qmmw_vlog(log, format, args);
  va_end(args);
}

void LogDebug(qmmw_log_t* log, const char* format, ...) {
  va_list args;
  va_start(args, format);
  qmmw_vlog_debug(log, format, args);
  va_end(args);
}

void Trace(int level, const char* text) {
  zlog(qmmw_trace_register_category("ip-spoofing-app"), "f", 1, "u", 1, 1, level, "%s", text);
}

/// zlog is set up once per process, so every case runs in a child; the child's output is compared.
class LogSetUp : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv(common::kStateDirVariable, folder_.c_str(), 1);
    ::unsetenv("ZLOG_CONF_PATH");
  }
  void TearDown() override { ::unsetenv(common::kStateDirVariable); }
  void WriteConfig(const std::string& name, const std::string& rules) const {
    std::ofstream{folder_ / name} << "[global]\ndefault format = \"" << name << " %c %V %m%n\"\n"
                                  << "[levels]\nLOG_DETAIL = 10\nLOG_INFO = 11\n[rules]\n"
                                  << rules;
  }
  /// Runs `body` with a handle in a child; standard output and error land in the files "out" and "err".
  int InChild(const std::function<int(qmmw_t*)>& body) const {
    return test::InChild([&] {
      if (std::freopen((folder_ / "out").c_str(), "w", stdout) == nullptr) return 99;
      if (std::freopen((folder_ / "err").c_str(), "w", stderr) == nullptr) return 99;
      qmmw_t* mw = qmmw_init("log-test");
      const int result = body(mw);
      qmmw_finish(&mw);
      return result;
    });
  }
  [[nodiscard]] std::string Out() const { return ReadFile(folder_ / "out"); }
  [[nodiscard]] std::string Err() const { return ReadFile(folder_ / "err"); }

  const test::TempDir directory_;
  const fs::path folder_ = directory_.path();
};

TEST_F(LogSetUp, TheEnvironmentsFileComesFirst) {
  WriteConfig("zlog.conf", "*.* >stdout\n");
  WriteConfig("named.conf", "*.* >stdout\n");
  ::setenv("ZLOG_CONF_PATH", (folder_ / "named.conf").c_str(), 1);
  EXPECT_EQ(InChild([](qmmw_t* mw) {
              if (qmmw_trace_init(mw, "ip-spoofing-app") == nullptr) return 1;
              Trace(11, "hello");
              return 0;
            }),
            0);
  ::unsetenv("ZLOG_CONF_PATH");
  EXPECT_EQ(Out(), "named.conf ip-spoofing-app LOG_INFO hello\n");
}

TEST_F(LogSetUp, ThenTheStateDirectorysAndTheCategoryNeedsNoTraceInitBefore) {
  WriteConfig("zlog.conf", "*.* >stdout\n");
  EXPECT_EQ(InChild([](qmmw_t*) {
              Trace(10, "hello");
              return qmmw_trace_register_category("a") == qmmw_trace_register_category("a") ? 0 : 1;
            }),
            0);
  EXPECT_EQ(Out(), "zlog.conf ip-spoofing-app LOG_DETAIL hello\n");
}

TEST_F(LogSetUp, WithoutAFileThePackagedRulesHold) {
  if (fs::exists("/etc/ip-spoofing/zlog.conf")) GTEST_SKIP() << "this machine has a configuration installed";
  EXPECT_EQ(InChild([](qmmw_t* mw) {
              if (qmmw_trace_init(mw, "ip-spoofing-app") == nullptr) return 1;
              if (zlog_level_enabled(qmmw_trace_register_category("ip-spoofing-app"), 10) != 0) return 2;
              Trace(10, "detail");
              Trace(11, "info");
              Trace(12, "error");
              return 0;
            }),
            0);
  EXPECT_EQ(Out(), "") << "standard output belongs to the program";
  EXPECT_THAT(Err(), testing::ContainsRegex("^[^\n]* LOG_INFO   ip-spoofing-app\\[[0-9]+\\] u \\(f:1\\) info\n"
                                            "[^\n]* LOG_ERROR  ip-spoofing-app\\[[0-9]+\\] u \\(f:1\\) error\n$"));
}

// Which rules are wrong, and what is said of them, differs between the implementations of zlog; a file that is missing
// is an error to all.
TEST_F(LogSetUp, AMissingFileFailsTraceInit) {
  EXPECT_EQ(InChild([this](qmmw_t* mw) {
              ::setenv("ZLOG_CONF_PATH", (folder_ / "missing.conf").c_str(), 1);
              if (qmmw_trace_init(mw, "ip-spoofing-app") != nullptr) return 1;
              Trace(11, "info");
              return 0;
            }),
            0);
  EXPECT_THAT(Err(), testing::EndsWith(" info\n")) << "the packaged rules hold";
}

TEST_F(LogSetUp, ProcessLogLinesCarryTheTwoNumbersAndDebugIsALevelOfItsOwn) {
  WriteConfig("zlog.conf", "IP_SPOOFING.INFO >stdout\nIP_SPOOFING.=DEBUG >stderr\n");
  EXPECT_EQ(InChild([](qmmw_t* mw) {
              qmmw_log_t* log = qmmw_log_init(mw, 38, 23, "IP_SPOOFING");
              if (log == nullptr) return 1;
              Log(log, "%d %s", 5, "things");
              LogDebug(log, "%s", "small things");
              qmmw_log_finish(&log);
              if (log != nullptr) return 2;
              Log(log, "%s", "after the end");
              qmmw_log_finish(&log);
              return 0;
            }),
            0);
  EXPECT_EQ(Out(), "zlog.conf IP_SPOOFING INFO 38.23 5 things\n");
  EXPECT_EQ(Err(), "zlog.conf IP_SPOOFING DEBUG 38.23 small things\n");
}

TEST_F(LogSetUp, MissingArgumentsFail) {
  EXPECT_EQ(InChild([](qmmw_t* mw) {
              if (qmmw_log_init(nullptr, 1, 2, "A") != nullptr) return 1;
              if (qmmw_log_init(mw, 1, 2, nullptr) != nullptr) return 2;
              if (qmmw_trace_init(nullptr, "a") != nullptr) return 3;
              if (qmmw_trace_init(mw, nullptr) != nullptr) return 4;
              if (qmmw_trace_register_category(nullptr) != nullptr) return 5;
              qmmw_log_finish(nullptr);
              return 0;
            }),
            0);
}

}  // namespace
