// The manager without free descriptors.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <array>
#include <set>

#include "common/paths.h"
#include "common/unix_socket.h"
#include "control_client.h"
#include "support/descriptors/descriptors.h"
#include "support/element/child_process.h"
#include "temp_dir/temp_dir.h"

namespace mgr::test {
namespace {

using nlohmann::json;
using std::chrono::seconds;
using ::test::ChildProcess;
using ::test::ComesToRest;
using ::test::Eventually;
using ::test::LimitDescriptors;
using ::test::LinesWith;
using ::test::UnlimitDescriptors;

class Descriptors : public testing::TestWithParam<std::string> {
 protected:
  Descriptors() {
    ::setenv(common::kRunDirVariable, (dir_.path() + "/run").c_str(), 1);
    ::setenv(common::kStateDirVariable, (dir_.path() + "/state").c_str(), 1);
    manager_.emplace(std::vector<std::string>{MANAGER, "--dataplane", "memory", "--assume-interfaces"},
                     ChildProcess::Environment{}, dir_.path() + "/manager");
    EXPECT_TRUE(Eventually([&] { return Answers(); }, seconds{60}));
  }
  void SetUp() override {
    if (::test::kSanitized) GTEST_SKIP() << ::test::kSanitizedReason;
  }
  [[nodiscard]] static bool Answers() {
    return AskManager("show status", json::object(), [](const json&) {}).ok();
  }
  [[nodiscard]] std::vector<common::UniqueFd> Connections(int count) const {
    std::vector<common::UniqueFd> all;
    for (int i = 0; i < count; ++i) {
      auto connected = common::ConnectUnix(common::RunDir() + "/" + GetParam(), SOCK_STREAM);
      EXPECT_TRUE(connected.ok()) << connected.error().Text();
      if (connected) all.push_back(std::move(connected).value());
    }
    return all;
  }

  ::test::TempDir dir_;
  std::optional<ChildProcess> manager_;
};

TEST_P(Descriptors, NoneFreeNeitherSpinsNorFillsTheLog) {
  LimitDescriptors(manager_->pid(), 0);
  const auto waiting = Connections(5);
  std::set<int> turned_away;
  const auto look = [&] {
    for (const common::UniqueFd& fd : waiting) {
      std::array<char, 256> last_word{};
      if (::recv(fd.get(), last_word.data(), last_word.size(), MSG_DONTWAIT) == 0) turned_away.insert(fd.get());
    }
    return turned_away.size() >= 4;  // one may have got the place of the question before
  };
  EXPECT_TRUE(Eventually(look, seconds{10})) << turned_away.size();
  EXPECT_TRUE(ComesToRest(manager_->pid()));
  EXPECT_LE(LinesWith(manager_->Log(), "Too many open files"), 2U);
  UnlimitDescriptors(manager_->pid());
  EXPECT_TRUE(Eventually([&] { return Answers(); }, seconds{60}));
}

INSTANTIATE_TEST_SUITE_P(Limits, Descriptors, testing::Values("mgr.sock", "mgr-ctl.sock"),
                         [](const auto& row) { return row.param == "mgr.sock" ? "Clients" : "Operators"; });

}  // namespace
}  // namespace mgr::test
