// Interfaces of a network namespace of the test's own.
#include "interfaces/link_watcher.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "netns/netns.h"

namespace mgr {
namespace {

using testing::Contains;
using testing::IsSupersetOf;
using testing::Not;

class LinkWatcherTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = netns::Enter(netns::As::kRoot)) GTEST_SKIP() << *reason;
    auto watcher = LinkWatcher::Open(*loop_, [this](const std::vector<std::string>& names) {
      changed_.insert(changed_.end(), names.begin(), names.end());
    });
    ASSERT_TRUE(watcher);
    watcher_ = std::move(watcher).value();
  }

  /// Waits until every one of the names was told, and gives everything that was.
  std::vector<std::string> Told(const std::vector<std::string>& names) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{5};
    const auto all = [&] {
      return std::all_of(names.begin(), names.end(), [&](const auto& name) {
        return std::find(changed_.begin(), changed_.end(), name) != changed_.end();
      });
    };
    while (!all() && std::chrono::steady_clock::now() < deadline) loop_->RunOnce(std::chrono::milliseconds{10});
    return std::exchange(changed_, {});
  }

  std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  std::vector<std::string> changed_;
  std::unique_ptr<LinkWatcher> watcher_;
};

TEST_F(LinkWatcherTest, TellsOfInterfacesThatAppearVanishAreRenamedAndMadeAnew) {
  EXPECT_NE(watcher_->IndexOf("lo"), 0U);
  EXPECT_EQ(watcher_->IndexOf("port1"), 0U);
  EXPECT_EQ(watcher_->IndexOf(""), 0U);

  netns::MustRun("ip link add port1 type veth peer name station1");
  EXPECT_THAT(Told({"port1", "station1"}), IsSupersetOf({"port1", "station1"}));
  const uint32_t first = watcher_->IndexOf("port1");
  EXPECT_NE(first, 0U);

  netns::MustRun("ip link set port1 up; ip link set port1 mtu 1400");
  for (int i = 0; i < 20; ++i) loop_->RunOnce(std::chrono::milliseconds{5});
  EXPECT_THAT(changed_, Not(Contains("port1"))) << "the same interface with other properties";

  netns::MustRun("ip link set port1 down; ip link set port1 name port2");
  EXPECT_THAT(Told({"port1", "port2"}), IsSupersetOf({"port1", "port2"}));
  EXPECT_EQ(watcher_->IndexOf("port1"), 0U);
  EXPECT_EQ(watcher_->IndexOf("port2"), first);

  netns::MustRun("ip link del port2");
  EXPECT_THAT(Told({"port2", "station1"}), IsSupersetOf({"port2", "station1"}));
  EXPECT_EQ(watcher_->IndexOf("port2"), 0U);

  netns::MustRun(
      "ip link add port2 type veth peer name station2; ip link del port2; "
      "ip link add port2 type veth peer name station2");
  Told({"port2"});
  for (int i = 0; i < 20; ++i) loop_->RunOnce(std::chrono::milliseconds{5});
  EXPECT_NE(watcher_->IndexOf("port2"), 0U);
  EXPECT_NE(watcher_->IndexOf("port2"), first);
}

TEST_F(LinkWatcherTest, TellsAlternativeNamesFromMainOnes) {
  netns::MustRun(
      "ip link add port1 type veth peer name station1; ip link property add dev port1 altname uplink; "
      "ip link set port1 up; ip link set station1 up");
  EXPECT_THAT(Told({"port1", "uplink"}), IsSupersetOf({"port1", "uplink"}));
  EXPECT_EQ(watcher_->IndexOf("uplink"), 0U);
  EXPECT_EQ(watcher_->MainNameOf("uplink"), "port1");
  EXPECT_EQ(watcher_->MainNameOf("port1"), "");

  netns::MustRun("ip link set port1 down; ip link set port1 name port2; ip link set port2 up");
  EXPECT_THAT(Told({"port1", "port2", "uplink"}), IsSupersetOf({"port1", "port2", "uplink"}));
  EXPECT_EQ(watcher_->MainNameOf("uplink"), "port2");

  netns::MustRun(
      "ip link property del dev port2 altname uplink; ip link property add dev station1 altname uplink altname other");
  EXPECT_THAT(Told({"uplink", "other"}), IsSupersetOf({"uplink", "other"}));
  EXPECT_EQ(watcher_->MainNameOf("uplink"), "station1");

  netns::MustRun("ip link del station1; ip link add uplink type veth peer name station1");
  Told({"uplink", "station1"});
  for (int i = 0; i < 500 && watcher_->IndexOf("uplink") == 0; ++i) loop_->RunOnce(std::chrono::milliseconds{10});
  EXPECT_NE(watcher_->IndexOf("uplink"), 0U);
  EXPECT_EQ(watcher_->MainNameOf("uplink"), "");
  EXPECT_EQ(watcher_->MainNameOf("other"), "");
}

TEST_F(LinkWatcherTest, KnowsAlternativeNamesFromTheStart) {
  netns::MustRun("ip link add port1 type veth peer name station1; ip link property add dev port1 altname uplink");
  const auto second = LinkWatcher::Open(*loop_, [](const std::vector<std::string>&) {});
  ASSERT_TRUE(second);
  EXPECT_EQ(second.value()->MainNameOf("uplink"), "port1");
}

TEST_F(LinkWatcherTest, AnInterfaceMovedAwayIsGone) {
  netns::MustRun("ip link add port1 type veth peer name station1");
  Told({"port1"});
  const netns::OtherNamespace other;
  netns::MustRun("ip link set port1 netns " + std::to_string(other.pid()));
  Told({"port1"});
  EXPECT_EQ(watcher_->IndexOf("port1"), 0U);
  EXPECT_NE(watcher_->IndexOf("station1"), 0U);
}

TEST_F(LinkWatcherTest, MoreChangesThanTheBufferHoldsEndInTheTruth) {
  std::string script;
  for (int i = 0; i < 300; ++i) {
    script += "link add p" + std::to_string(i) + " type veth peer name s" + std::to_string(i) + "\n";
  }
  for (int i = 0; i < 300; i += 2) script += "link del p" + std::to_string(i) + "\n";
  netns::MustRun("printf '" + script + "' | ip -batch -");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{10};
  while ((watcher_->IndexOf("p299") == 0 || watcher_->IndexOf("p298") != 0) &&
         std::chrono::steady_clock::now() < deadline) {
    loop_->RunOnce(std::chrono::milliseconds{10});
  }
  for (int i = 0; i < 300; ++i) EXPECT_EQ(watcher_->IndexOf("p" + std::to_string(i)) != 0, i % 2 == 1) << i;
}

}  // namespace
}  // namespace mgr
