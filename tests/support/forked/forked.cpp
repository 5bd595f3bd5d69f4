#include "forked/forked.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace test {
namespace {

/// A line "3: -> POSIX  ADVISORY  WRITE <pid> ...".
bool WaitsForALock(pid_t process) {
  std::ifstream locks{"/proc/locks"};
  for (std::string line; std::getline(locks, line);) {
    if (line.find("->") != std::string::npos && line.find(" " + std::to_string(process) + " ") != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace

pid_t StartChild(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child < 0) std::abort();
  if (child != 0) return child;
  ::_exit(body());
}

int WaitFor(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) != child) {
    if (errno != EINTR) std::abort();
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool WaitUntilItWaitsForALock(pid_t process) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{20};
  while (!WaitsForALock(process)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

}  // namespace test
