#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

#include "common/unique_fd.h"

namespace test {
namespace {

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream{path}.rdbuf();
  return text.str();
}

common::UniqueFd OpenLog(const std::string& path) {
  return common::UniqueFd{::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)};
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> Merge(const ChildProcess::Environment& changes) {
  std::vector<std::string> all;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!changes.contains(text.substr(0, text.find('=')))) all.push_back(text);
  }
  for (const auto& [name, value] : changes) all.push_back(name + "=" + value);
  return all;
}

/// In the child, between fork and exec: async-signal-safe calls only.
[[noreturn]] void Become(char* const* command, char* const* environment, int out, int err, pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::dup2(out, STDOUT_FILENO);
  ::dup2(err, STDERR_FILENO);
  ::execve(command[0], command, environment);
  ::_exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, const Environment& environment,
                           std::string log_prefix)
    : log_prefix_{std::move(log_prefix)} {
  std::vector<std::string> words = command;
  std::vector<std::string> variables = Merge(environment);
  const std::vector<char*> argv = Pointers(words);
  const std::vector<char*> envp = Pointers(variables);
  const common::UniqueFd out = OpenLog(log_prefix_ + ".out");
  const common::UniqueFd err = OpenLog(log_prefix_ + ".err");
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) Become(argv.data(), envp.data(), out.get(), err.get(), parent);
  if (pid_ < 0) status_ = 127;
}

ChildProcess::~ChildProcess() {
  Signal(SIGKILL);
  while (!status_ && !Reap(0)) {
  }
}

bool ChildProcess::Reap(int options) {
  if (status_) return true;
  int status = 0;
  const pid_t reaped = ::waitpid(pid_, &status, options);
  if (reaped == pid_) status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (reaped < 0 && errno != EINTR) status_ = 127;
  return status_.has_value();
}

bool ChildProcess::Running() { return !Reap(WNOHANG); }

bool ChildProcess::Stopped() {
  // "PID (name) STATE ...", see proc(5); the name may hold anything.
  const std::string line = ReadFile("/proc/" + std::to_string(pid_) + "/stat");
  const size_t end = line.rfind(") ");
  return end != std::string::npos && line[end + 2] == 'T';
}

void ChildProcess::Signal(int signal) {
  if (Running()) ::kill(pid_, signal);
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
  Eventually([&] { return !Running(); }, limit);
  return status_;
}

std::string ChildProcess::Output() const { return ReadFile(log_prefix_ + ".out"); }
std::string ChildProcess::Log() const { return ReadFile(log_prefix_ + ".err"); }

Finished Run(const std::vector<std::string>& command, const ChildProcess::Environment& environment,
             const std::string& log_prefix) {
  ::unlink((log_prefix + ".out").c_str());
  ::unlink((log_prefix + ".err").c_str());
  ChildProcess child{command, environment, log_prefix};
  const std::optional<int> status = child.Wait(std::chrono::minutes{1});
  return {status.value_or(-1), child.Output(), child.Log()};
}

void PauseBetweenQuestions() { std::this_thread::sleep_for(std::chrono::milliseconds{1}); }

}  // namespace test
