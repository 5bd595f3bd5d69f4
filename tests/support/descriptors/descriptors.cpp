#include "support/descriptors/descriptors.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

namespace test {
namespace {

void SetLimit(pid_t pid, size_t descriptors) {
  rlimit limit{.rlim_cur = descriptors, .rlim_max = 1024};
  ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &limit, nullptr), 0);
}

/// Processor time in clock ticks: fields 14 and 15 of /proc/PID/stat.
unsigned long Ticks(pid_t pid) {
  std::ifstream file{"/proc/" + std::to_string(pid) + "/stat"};
  std::string text;
  std::getline(file, text);
  std::istringstream fields{text.substr(text.rfind(')') + 1)};
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  unsigned long user = 0, system = 0;
  fields >> user >> system;
  return user + system;
}

}  // namespace

void LimitDescriptors(pid_t pid, size_t spare) {
  std::set<size_t> open;
  for (const auto& entry : std::filesystem::directory_iterator{"/proc/" + std::to_string(pid) + "/fd"}) {
    open.insert(static_cast<size_t>(std::stoul(entry.path().filename().string())));
  }
  size_t limit = 0;  // below it none is free; those above it stay open
  for (size_t left = spare; left > 0 || open.contains(limit); ++limit) left -= open.contains(limit) ? 0 : 1;
  SetLimit(pid, limit);
}

void UnlimitDescriptors(pid_t pid) { SetLimit(pid, 1024); }

bool ComesToRest(pid_t pid) {
  for (int i = 0; i < 33; ++i) {
    const unsigned long before = Ticks(pid);
    std::this_thread::sleep_for(std::chrono::milliseconds{300});
    if (Ticks(pid) == before) return true;
  }
  return false;
}

size_t LinesWith(const std::string& text, const std::string& part) {
  std::istringstream lines{text};
  size_t count = 0;
  for (std::string line; std::getline(lines, line);) count += line.find(part) != std::string::npos ? 1 : 0;
  return count;
}

}  // namespace test
