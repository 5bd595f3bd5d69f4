#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/paths.h"
#include "common/unique_fd.h"
#include "forked/forked.h"
#include "qmmw.h"
#include "temp_dir/temp_dir.h"

namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;
namespace fs = std::filesystem;

class Fault : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv(common::kRunDirVariable, (folder_ / "run").c_str(), 1);
    ::unsetenv("JOURNAL_STREAM");
  }
  void TearDown() override { ::unsetenv(common::kRunDirVariable); }
  /// The records of the fault file, in order; each line must be one whole JSON object.
  static std::vector<json> Records() {
    std::vector<json> records;
    std::ifstream file{common::FaultFilePath()};
    for (std::string line; std::getline(file, line);) records.push_back(json::parse(line));
    return records;
  }
  const test::TempDir directory_;
  const fs::path folder_ = directory_.path();
};

TEST_F(Fault, IsOneLineOnStandardErrorAndOneRecordInTheFile) {
  qmmw_t* mw = qmmw_init("ip-spoofing-app");
  testing::internal::CaptureStderr();
  qmmw_gen_fault(1, "main", "src/app/main.cpp", 30, "could not connect");
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              ContainsRegex("^[0-9T:.-]+Z ip-spoofing-app\\[[0-9]+\\] FATAL FAULT in main "
                            "\\(src/app/main.cpp:30\\): could not connect\n$"));
  const auto records = Records();
  ASSERT_EQ(records.size(), 1u);
  json record = records[0];
  EXPECT_THAT(record["time"].get<std::string>(),
              ContainsRegex("^20[0-9][0-9]-[01][0-9]-[0-3][0-9]T[0-9:]{8}\\.[0-9]{6}Z$"));
  record.erase("time");
  EXPECT_EQ(record, json({{"severity", 1},
                          {"process", "ip-spoofing-app"},
                          {"pid", ::getpid()},
                          {"function", "main"},
                          {"file", "src/app/main.cpp"},
                          {"line", 30},
                          {"message", "could not connect"}}));
  qmmw_finish(&mw);
}

TEST_F(Fault, ANonFatalOneWithoutAnyTextIsRecordedToo) {
  testing::internal::CaptureStderr();
  qmmw_gen_fault(0, nullptr, nullptr, 0, nullptr);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), ContainsRegex("\\] fault in  \\(:0\\): \n$"));
  const auto records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]["severity"], 0);
  EXPECT_EQ(records[0]["message"], "");
}

TEST_F(Fault, StaysOneLineWhateverTheMessageHolds) {
  testing::internal::CaptureStderr();
  const std::string message = "two\nlines \"quoted\" \xff";
  qmmw_gen_fault(0, "f", "file", 1, message.c_str());
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_THAT(text, HasSubstr("two lines \"quoted\" \xff\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
  const auto records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]["message"], "two\nlines \"quoted\" \xef\xbf\xbd");
}

TEST_F(Fault, OneBeforeInitNamesTheExecutable) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, in which no other test has registered a name
  EXPECT_EXIT(
      {
        qmmw_gen_fault(0, "f", "file", 1, "m");
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "Z qmmidware_test\\[[0-9]+\\] fault in f \\(file:1\\): m\n$");
  GTEST_FLAG_SET(death_test_style, "fast");
}

TEST_F(Fault, RecordsOfSeveralProcessesNeverMix) {
  constexpr int kProcesses = 4;
  constexpr int kFaults = 100;
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    children.push_back(test::StartChild([&] {
      ::close(STDERR_FILENO);
      for (int i = 0; i < kFaults; ++i) qmmw_gen_fault(0, "f", "file", process, std::string(2000, 'x').c_str());
      return 0;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(test::WaitFor(child), 0);
  std::map<int, int> count_of_process;
  for (const json& record : Records()) {
    ++count_of_process[record["line"]];
    EXPECT_EQ(record["message"].get<std::string>().size(), 2000u);
  }
  EXPECT_THAT(count_of_process, testing::ElementsAre(testing::Pair(0, kFaults), testing::Pair(1, kFaults),
                                                     testing::Pair(2, kFaults), testing::Pair(3, kFaults)));
}

TEST_F(Fault, TheFileIsBoundedAndTheLastFullOneKept) {
  testing::internal::CaptureStderr();
  const std::string message(100'000, 'x');
  for (int i = 0; i < 35; ++i) qmmw_gen_fault(0, "f", "file", i, message.c_str());
  testing::internal::GetCapturedStderr();
  const auto now = Records();
  ASSERT_FALSE(now.empty());
  EXPECT_EQ(now.back()["line"], 34);
  EXPECT_LE(fs::file_size(common::FaultFilePath()), 1u << 20);
  std::ifstream previous{common::FaultFilePath() + ".0"};
  std::string line, last;
  while (std::getline(previous, line)) last = line;
  ASSERT_FALSE(last.empty());
  EXPECT_EQ(json::parse(last)["line"].get<int>() + 1, now.front()["line"].get<int>()) << "nothing is lost between them";
  EXPECT_EQ(std::distance(fs::directory_iterator{common::RunDir()}, fs::directory_iterator{}), 2);
}

TEST_F(Fault, AFileThatCannotBeWrittenIsReportedOnceAndTheFaultStillShown) {
  ::setenv(common::kRunDirVariable, "/proc/none", 1);
  EXPECT_EXIT(
      {
        qmmw_gen_fault(0, "f", "file", 1, "first");
        qmmw_gen_fault(0, "f", "file", 2, "second");
        std::_Exit(0);
      },
      testing::ExitedWithCode(0),
      "first\nfaults are not recorded: create directory /proc/none: [^\n]*\n[^\n]*second\n$");
}

TEST_F(Fault, ABacktraceNamesTheProcessAndItsFrames) {
  qmmw_t* mw = qmmw_init("backtrace-test");
  testing::internal::CaptureStderr();
  qmmw_print_backtrace();
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_THAT(text, testing::StartsWith("backtrace of backtrace-test[" + std::to_string(::getpid()) + "]:\n"));
  EXPECT_THAT(text, HasSubstr("qmmidware_test"));
  EXPECT_THAT(text, HasSubstr("libc.so"));
  qmmw_finish(&mw);
}

/// One datagram of the journal's protocol: "NAME=value" lines (none of ours holds a newline).
std::map<std::string, std::string> JournalFields(int socket) {
  std::array<char, 8192> datagram{};
  const ssize_t length = ::recv(socket, datagram.data(), datagram.size(), MSG_DONTWAIT);
  std::map<std::string, std::string> fields;
  std::istringstream lines{std::string(datagram.data(), length > 0 ? static_cast<size_t>(length) : 0)};
  for (std::string line; std::getline(lines, line);) {
    const size_t equals = line.find('=');
    if (equals != std::string::npos) fields[line.substr(0, equals)] = line.substr(equals + 1);
  }
  return fields;
}

/// In a mount namespace of its own, where /run is empty but for a socket that stands for the journal's.
int RaiseFaultWithJournal(const std::string& faults) {
  if (::unshare(CLONE_NEWNS) != 0) return 77;
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 77;
  if (::mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0) return 77;
  fs::create_directories("/run/systemd/journal");
  const common::UniqueFd journal{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string{"/run/systemd/journal/socket"}.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::bind(journal.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 2;

  const fs::path captured = fs::path{faults} / "stderr";
  if (std::freopen(captured.c_str(), "w", stderr) == nullptr) return 3;
  struct stat info {};
  ::fstat(STDERR_FILENO, &info);
  ::setenv("JOURNAL_STREAM", (std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino)).c_str(), 1);
  qmmw_t* mw = qmmw_init("journal-test");
  qmmw_gen_fault(1, "main", "src/main.cpp", 7, "gone wrong");
  qmmw_finish(&mw);
  if (fs::file_size(captured) != 0) return 4;  // the journal has it, once
  const auto fields = JournalFields(journal.get());
  const auto is = [&](const char* name, const char* value) {
    const auto it = fields.find(name);
    return it != fields.end() && it->second == value;
  };
  const bool whole = is("MESSAGE", "gone wrong") && is("PRIORITY", "2") && is("SYSLOG_IDENTIFIER", "journal-test") &&
                     is("CODE_FUNC", "main") && is("CODE_FILE", "src/main.cpp") && is("CODE_LINE", "7") &&
                     is("FAULT_SEVERITY", "1") && fields.contains("FAULT_TIME");
  if (!whole) return 5;

  // Standard error that is not the journal's: a person or another program reads it.
  ::setenv("JOURNAL_STREAM", "1:1", 1);
  qmmw_gen_fault(0, "main", "src/main.cpp", 8, "on standard error");
  return fs::file_size(captured) > 0 && JournalFields(journal.get()).empty() ? 0 : 6;
}

TEST_F(Fault, GoesToTheJournalWhenStandardErrorIsTheJournal) {
  const int result = test::InChild([&] { return RaiseFaultWithJournal(folder_); });
  if (result == 77) GTEST_SKIP() << "no privilege for a mount namespace";
  EXPECT_EQ(result, 0);
  EXPECT_EQ(Records().size(), 2u);
}

}  // namespace
