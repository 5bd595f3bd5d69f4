// kill -9 at random moments: every acknowledged commit is there afterwards, and no half commit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <random>
#include <thread>

#include "cdbd_process.h"

namespace cdbd::test {
namespace {

constexpr int kCommits = 200;

/// Commit `n` replaces everything by two interfaces that both name it.
std::string Generation(int n) { return Interfaces({"a" + std::to_string(n), "b" + std::to_string(n)}); }

int GenerationOf(const std::string& config) {
  if (config.empty()) return 0;
  const std::string open = "<interface-name>a";
  const int n = std::atoi(config.c_str() + config.find(open) + open.size());
  return config == Generation(n) ? n : -1;
}

TEST(Crash, LosesNoAcknowledgedCommitAndLeavesNoHalfOne) {
  CdbdProcess server;
  std::mt19937 random{11};
  int acknowledged = 0;
  int kills = 0;
  int next = 1;
  server.Start();
  while (next <= kCommits) {
    auto client = netconf::Client::Connect(server.NetconfSocket(), NetconfClient::kLimit);
    ASSERT_TRUE(client.ok());
    const auto commit = [&] {
      return client.value().Rpc(
          "<edit-config><target><running/></target><default-operation>replace"
          "</default-operation><config>" +
              Generation(next) + "</config></edit-config>",
          NetconfClient::kLimit);
    };
    // Anywhere within one of the next commits, however fast this machine makes them.
    const int undisturbed = 1 + static_cast<int>(random() % 10);
    auto began = std::chrono::steady_clock::now();
    std::jthread killer;
    for (int i = 1; next <= kCommits; ++i) {
      const auto reply = commit();
      if (!reply.ok()) break;
      ASSERT_TRUE(IsOk(reply.value())) << reply.value();
      acknowledged = next++;
      if (i == undisturbed) {
        const auto delay = (std::chrono::steady_clock::now() - began) * (random() % 300) / 100;
        killer = std::jthread{[pid = server.process().pid(), delay] {
          std::this_thread::sleep_for(delay);
          ::kill(pid, SIGKILL);
        }};
      }
      began = std::chrono::steady_clock::now();
    }
    if (killer.joinable()) killer.join();
    server.Kill();
    ++kills;
    server.Start();
    const int found = GenerationOf(server.Connect().GetConfig());
    ASSERT_TRUE(found == acknowledged || found == next) << "found " << found << ", acknowledged " << acknowledged;
    acknowledged = found;
    next = found + 1;
  }
  EXPECT_GT(kills, 8);
}

}  // namespace
}  // namespace cdbd::test
