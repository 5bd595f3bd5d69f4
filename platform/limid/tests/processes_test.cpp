#include <gmock/gmock.h>
#include <sys/mount.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "common/unique_fd.h"
#include "registry_fixture.h"

namespace {

class Processes : public RegistryTest {
 protected:
  /// Interns the names in a process of its own.
  static std::vector<uint32_t> Numbers(const std::vector<std::string>& names) {
    std::array<int, 2> fds{};
    EXPECT_EQ(::pipe(fds.data()), 0);
    const common::UniqueFd read{fds[0]};
    common::UniqueFd write{fds[1]};
    const pid_t child = StartChild([&] {
      for (const auto& name : names) {
        const uint32_t number = NumberOf(name);
        if (::write(write.get(), &number, sizeof number) != sizeof number) return 1;
      }
      return 0;
    });
    write.reset();
    std::vector<uint32_t> numbers;
    for (uint32_t number = 0; ::read(read.get(), &number, sizeof number) == sizeof number;) numbers.push_back(number);
    EXPECT_EQ(WaitFor(child), 0);
    return numbers;
  }
};

TEST_F(Processes, EveryProcessSeesTheSameIdsInWhateverOrderItAsks) {
  const auto first = Numbers({"eth0", "eth1", "eth2"});
  const auto second = Numbers({"eth2", "eth0", "eth1", "eth3"});
  ASSERT_EQ(first.size(), 3u);
  ASSERT_EQ(second.size(), 4u);
  EXPECT_THAT(std::vector(second.begin(), second.begin() + 3), testing::ElementsAre(first[2], first[0], first[1]));
  EXPECT_EQ(std::set<uint32_t>(second.begin(), second.end()).size(), 4u);
  EXPECT_FALSE(std::count(second.begin(), second.end(), 0u));
}

TEST_F(Processes, AParentAndItsChildInternSideBySide) {
  EXPECT_EQ(InChild([] {
              const uint32_t before = NumberOf("eth0");
              constexpr int kNames = 200;
              const pid_t child = StartChild([&] {
                for (int i = 0; i < kNames; ++i) {
                  if (NumberOf("child" + std::to_string(i)) == 0) return 1;
                }
                return NumberOf("eth0") == before ? 0 : 2;
              });
              std::set<uint32_t> numbers = {before};
              for (int i = 0; i < kNames; ++i) numbers.insert(NumberOf("parent" + std::to_string(i)));
              if (WaitFor(child) != 0) return 3;
              for (int i = 0; i < kNames; ++i) numbers.insert(NumberOf("child" + std::to_string(i)));
              return numbers.size() == 2 * kNames + 1 && !numbers.contains(0) ? 0 : 4;
            }),
            0);
}

TEST_F(Processes, ManyAtOnceAgreeOnOneIdPerName) {
  constexpr int kProcesses = 6;
  constexpr int kNames = 60;
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    children.push_back(StartChild([&, process] {
      std::ofstream out{folder_ / ("ids." + std::to_string(process))};
      for (int i = 0; i < kNames; ++i) {
        const std::string name = "port" + std::to_string((i * 7 + process * 11) % kNames);
        out << name << " " << NumberOf(name) << "\n";
      }
      out.close();
      return 0;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(WaitFor(child), 0);
  std::map<std::string, std::set<uint32_t>> ids_of_name;
  std::set<uint32_t> ids;
  for (int process = 0; process < kProcesses; ++process) {
    std::ifstream in{folder_ / ("ids." + std::to_string(process))};
    std::string name;
    for (uint32_t id = 0; in >> name >> id;) {
      ids_of_name[name].insert(id);
      ids.insert(id);
    }
  }
  EXPECT_EQ(ids_of_name.size(), static_cast<size_t>(kNames));
  for (const auto& [name, of_name] : ids_of_name) EXPECT_EQ(of_name.size(), 1u) << name;
  EXPECT_EQ(ids.size(), static_cast<size_t>(kNames));
  EXPECT_FALSE(ids.contains(0));
}

TEST_F(Processes, AProcessKilledWhileItInternsLeavesAWholeRegistry) {
  std::array<int, 2> fds{};
  ASSERT_EQ(::pipe(fds.data()), 0);
  const common::UniqueFd read{fds[0]};
  common::UniqueFd write{fds[1]};
  const pid_t child = StartChild([&] {
    for (uint32_t i = 0;; ++i) {
      const std::array<uint32_t, 2> record = {i, NumberOf("k" + std::to_string(i))};
      if (::write(write.get(), record.data(), sizeof record) != sizeof record) return 1;
    }
  });
  write.reset();
  std::map<uint32_t, uint32_t> seen;  // what the child was told before it died
  std::array<uint32_t, 2> record{};
  while (::read(read.get(), record.data(), sizeof record) == sizeof record) {
    seen[record[0]] = record[1];
    if (seen.size() == 20) ::kill(child, SIGKILL);
  }
  EXPECT_EQ(WaitFor(child), -SIGKILL);
  std::vector<std::string> names;
  for (const auto& [i, number] : seen) names.push_back("k" + std::to_string(i));
  names.emplace_back("after");
  const auto numbers = Numbers(names);
  ASSERT_EQ(numbers.size(), names.size());
  for (const auto& [i, number] : seen) EXPECT_EQ(numbers[i], number) << i;
  EXPECT_EQ(std::set<uint32_t>(numbers.begin(), numbers.end()).size(), numbers.size());
  EXPECT_NE(numbers.back(), 0u);
}

TEST_F(Processes, ARegistryThatCannotBeOpenedFailsEveryCallWithOneLine) {
  std::ofstream{folder_ / "state"} << "a file, where a directory should be";
  EXPECT_EQ(InChild([&] {
              if (std::freopen((folder_ / "err").c_str(), "w", stderr) == nullptr) return 2;
              limid_t limid{{7, 7}};
              const bool failed = limid_from_intfname(&limid, "eth0") == -1 && Number(limid) == 0 &&
                                  limid_from_intfname(&limid, "eth1") == -1;
              std::fflush(stderr);
              return failed ? 0 : 1;
            }),
            0);
  std::ostringstream text;
  text << std::ifstream{folder_ / "err"}.rdbuf();
  EXPECT_EQ(text.str(),
            "limid registry: create directory " + (folder_ / "state/limid").string() + ": Not a directory\n");
}

TEST_F(Processes, OneThatBecomesUsableLaterIsUsed) {
  std::ofstream{folder_ / "state"} << "in the way";
  EXPECT_EQ(InChild([&] {
              if (NumberOf("eth0") != 0) return 1;
              std::filesystem::remove(folder_ / "state");
              return NumberOf("eth0") != 0 ? 0 : 2;
            }),
            0);
}

}  // namespace
