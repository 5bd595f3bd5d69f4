#include "element.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "common/paths.h"
#include "common/unix_socket.h"

namespace test {
namespace {

/// Paths of the build, from CMake.
constexpr std::array kExecutables{ELEMENT_CDBD, ELEMENT_MANAGER, ELEMENT_DAEMON};
constexpr std::array kNames{"cdbd", "ip-spoofing-mgr", "ip-spoofing-app"};
constexpr size_t kLogTail = 4000;

std::string MakeRoot() {
  std::string name = testing::TempDir() + "element.XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) ADD_FAILURE() << "mkdtemp " << name;
  std::filesystem::create_directory(name + "/run");
  std::filesystem::create_directory(name + "/state");
  return name;
}

bool Listens(const std::string& path) { return common::ConnectUnix(path, SOCK_STREAM).ok(); }

}  // namespace

std::string_view Name(Part part) { return kNames[static_cast<size_t>(part)]; }

Element::Element() : root_{MakeRoot()} {}

Element::~Element() {
  if (testing::Test::HasFailure()) {
    for (const Part part : kAllParts) {
      const std::string log = Log(part);
      std::printf("---- %s%s\n%s\n", std::string{Name(part)}.c_str(), Running(part) ? "" : " (not running)",
                  log.substr(log.size() > kLogTail ? log.size() - kLogTail : 0).c_str());
    }
  }
  for (auto& process : processes_) process.reset();
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

ChildProcess::Environment Element::Environment() const {
  return {{common::kRunDirVariable, RunDir()}, {common::kStateDirVariable, StateDir()}};
}

void Element::ProbeRequests(const std::string& log) {
  probe_["LD_PRELOAD"] = ELEMENT_REQUEST_PROBE;
  probe_["REQUEST_PROBE_LOG"] = log;
  probe_["ASAN_OPTIONS"] = "verify_asan_link_order=0";
}

void Element::StopDaemonAt(int step) { probe_["REQUEST_PROBE_STOP_AT"] = std::to_string(step); }
void Element::FailWalk(int number) { probe_["REQUEST_PROBE_FAIL_WALK"] = std::to_string(number); }

void Element::Start(Part part, const std::vector<std::string>& options) {
  if (Running(part)) return;
  std::vector<std::string> command{kExecutables[Index(part)]};
  if (part == Part::kManager) command.insert(command.end(), {"--dataplane", "memory", "--assume-interfaces"});
  command.insert(command.end(), options.begin(), options.end());
  ChildProcess::Environment environment = Environment();
  if (part == Part::kDaemon) environment.insert(probe_.begin(), probe_.end());
  processes_[Index(part)] = std::make_unique<ChildProcess>(command, environment, File(Name(part)));
}

void Element::StartAll() {
  for (const Part part : kAllParts) Start(part);
  EXPECT_TRUE(WaitForSocket(Part::kCdbd));
  EXPECT_TRUE(WaitForSocket(Part::kManager));
}

bool Element::Running(Part part) const { return Process(part) != nullptr && Process(part)->Running(); }

int Element::Stop(Part part) {
  if (Process(part) != nullptr) Process(part)->Signal(SIGTERM);
  return WaitForEnd(part);
}

int Element::WaitForEnd(Part part) {
  if (Process(part) == nullptr) return -1;
  const std::optional<int> status = Process(part)->Wait(kLimit);
  EXPECT_TRUE(status.has_value()) << Name(part) << " does not end";
  return status.value_or(-1);
}

void Element::Kill(Part part) {
  if (Process(part) == nullptr) return;
  Process(part)->Signal(SIGKILL);
  EXPECT_TRUE(Process(part)->Wait(kLimit).has_value());
}

void Element::Pause(Part part) { Process(part)->Signal(SIGSTOP); }
void Element::Resume(Part part) { Process(part)->Signal(SIGCONT); }

std::string Element::Log(Part part) const { return Process(part) != nullptr ? Process(part)->Log() : ""; }

bool Element::WaitForPause(Part part) const {
  return Eventually([&] { return Process(part)->Stopped(); }, kLimit);
}

bool Element::WaitForLog(Part part, std::string_view text) const {
  return Eventually([&] { return Log(part).find(text) != std::string::npos; }, kLimit);
}

bool Element::WaitForSocket(Part part) const {
  const std::string path = part == Part::kCdbd ? NetconfSocket() : RunDir() + "/mgr-ctl.sock";
  return Eventually([&] { return Listens(path) || !Running(part); }, kLimit) && Running(part);
}

std::string Element::CliPath() { return ELEMENT_CLI; }

Finished Element::Cli(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{ELEMENT_CLI};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return Run(command, Environment(), File("cli"));
}

Finished Element::Ctl(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{ELEMENT_CTL};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return Run(command, Environment(), File("ctl"));
}

}  // namespace test
