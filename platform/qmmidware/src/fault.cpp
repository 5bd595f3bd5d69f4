#include <execinfo.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "common/append_file.h"
#include "common/paths.h"
#include "process.h"
#include "qmmw.h"

namespace middleware {
namespace {

constexpr int kMaxFrames = 64;
constexpr size_t kMaxFaultFile = size_t{1} << 20;  // then it goes on in a new one; the last full one is kept as .0

std::mutex name_mutex;
std::string& RegisteredName() {
  static auto* name = new std::string;  // outlives the exit handlers, in which faults may still be raised
  return *name;
}

struct Fault {
  int severity;
  std::string process;
  std::string function;
  std::string file;
  int line;
  std::string message;
  std::string time;

  [[nodiscard]] bool fatal() const { return severity == 1; }
};

/// RFC 3339, UTC, microseconds.
std::string Now() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(since_epoch).count();
  const auto seconds = static_cast<time_t>(micros / 1'000'000);
  tm utc{};
  ::gmtime_r(&seconds, &utc);
  std::array<char, 32> text{};
  const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text.data() + length, text.size() - length, ".%06dZ", static_cast<int>(micros % 1'000'000));
  return text.data();
}

void WriteAll(int fd, const std::string& text) {
  const ssize_t written = ::write(fd, text.data(), text.size());
  static_cast<void>(written);  // a fault has nowhere else to go
}

/// Whether standard error is the journal's stream: its device and inode are in the variable that the supervisor sets.
bool StandardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat info {};
  if (stream == nullptr || ::fstat(STDERR_FILENO, &info) != 0) return false;
  return std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino) == stream;
}

bool SendToJournal(const Fault& fault) {
  return ::sd_journal_send("MESSAGE=%s", fault.message.c_str(), "PRIORITY=%d", fault.fatal() ? LOG_CRIT : LOG_WARNING,
                           "SYSLOG_IDENTIFIER=%s", fault.process.c_str(), "CODE_FUNC=%s", fault.function.c_str(),
                           "CODE_FILE=%s", fault.file.c_str(), "CODE_LINE=%d", fault.line, "FAULT_SEVERITY=%d",
                           fault.severity, "FAULT_TIME=%s", fault.time.c_str(), nullptr) == 0;
}

std::string OneLine(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) c = ' ';
  }
  return text;
}

void WriteToStandardError(const Fault& fault) {
  std::string line = fault.time + " " + fault.process + "[" + std::to_string(::getpid()) + "] ";
  line += fault.fatal() ? "FATAL FAULT in " : "fault in ";
  line += fault.function + " (" + fault.file + ":" + std::to_string(fault.line) + "): " + fault.message;
  WriteAll(STDERR_FILENO, OneLine(std::move(line)) + "\n");
}

std::string JsonLine(const Fault& fault) {
  nlohmann::ordered_json record;
  record["time"] = fault.time;
  record["severity"] = fault.severity;
  record["process"] = fault.process;
  record["pid"] = ::getpid();
  record["function"] = fault.function;
  record["file"] = fault.file;
  record["line"] = fault.line;
  record["message"] = fault.message;
  return record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

/// One write(2), so that records of several processes never mix.
common::Status AppendToFaultFile(const Fault& fault) {
  if (const auto made = common::EnsureDir(common::RunDir()); !made) return made.error();
  common::AppendFile::Limits limits;
  limits.mode = 0640;
  limits.max_size = kMaxFaultFile;
  limits.max_archives = 1;
  return common::AppendFile{limits}.Write(common::FaultFilePath(), JsonLine(fault));
}

std::string OrEmpty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

std::string ProcessName() {
  const std::lock_guard lock{name_mutex};
  return RegisteredName().empty() ? program_invocation_short_name : RegisteredName();
}

void SetProcessName(const std::string& name) {
  const std::lock_guard lock{name_mutex};
  RegisteredName() = name;
}

}  // namespace middleware

void qmmw_print_backtrace(void) {
  std::array<void*, middleware::kMaxFrames> frames{};
  const int count = ::backtrace(frames.data(), middleware::kMaxFrames);
  middleware::WriteAll(STDERR_FILENO,
                       "backtrace of " + middleware::ProcessName() + "[" + std::to_string(::getpid()) + "]:\n");
  ::backtrace_symbols_fd(frames.data() + 1, count - 1, STDERR_FILENO);  // without this function's own frame
}

void qmmw_gen_fault(int severity, const char* function, const char* file, int line, const char* message) {
  const middleware::Fault fault{severity,
                                middleware::ProcessName(),
                                middleware::OrEmpty(function),
                                middleware::OrEmpty(file),
                                line,
                                middleware::OrEmpty(message),
                                middleware::Now()};
  if (!middleware::StandardErrorIsJournal() || !middleware::SendToJournal(fault))
    middleware::WriteToStandardError(fault);
  if (const auto appended = middleware::AppendToFaultFile(fault); !appended) {
    static std::atomic<bool> reported{false};
    if (!reported.exchange(true)) {
      middleware::WriteAll(STDERR_FILENO, "faults are not recorded: " + appended.error().Text() + "\n");
    }
  }
}
