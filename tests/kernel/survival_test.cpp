#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <optional>

#include "manager_under_test.h"
#include "netns/netns.h"
#include "under_traffic.h"

/// Traffic at full rate, allowed and spoofed frames in turn, while the manager does what managers do. In every case:
/// not one spoofed frame passes, not one allowed frame is lost.
namespace kernel_test {
namespace {

using frames::Ip;

constexpr size_t kCapacity = 24'576;

struct Plane {
  std::string name;
  netns::As as;
};
void PrintTo(const Plane& plane, std::ostream* out) { *out << plane.name; }

class Survival : public testing::TestWithParam<Plane> {
 protected:
  void SetUp() override {
    if (const auto reason = netns::Enter(GetParam().as)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
    manager_.emplace(GetParam().name);
    if (!manager_->Start()) GTEST_SKIP() << "the system does not allow the dataplane " << GetParam().name;
    wire_.emplace("port0");
    ASSERT_TRUE(manager_->Submit(Configuration(0), true));
    ASSERT_TRUE(manager_->WaitForPorts("\"state\": 1")) << manager_->Log();
    traffic_.emplace(*wire_);
  }
  void TearDown() override {
    if (traffic_) traffic_->ExpectAllAndOnlyAllowed();
  }

  std::optional<ManagerUnderTest> manager_;
  std::optional<netns::Wire> wire_;
  std::optional<UnderTraffic> traffic_;
};

TEST_P(Survival, OfBatchesOfAThousandChanges) {
  for (uint32_t generation = 1; generation <= 30; ++generation) {
    std::vector<Request> batch = Others(500, generation);
    for (Request request : Others(500, generation - 1)) {
      request.kind = ip_spoofing_mgr::wire::RequestKind::kRemove;
      batch.push_back(request);
    }
    // The sources of the traffic are asked for again, as a client may.
    for (uint32_t i = 1; i <= 3; ++i) batch.push_back(Put("port0", 0, htonl(0x0A000000 + i)));
    ASSERT_TRUE(manager_->Submit(batch));
  }
}

TEST_P(Survival, OfFullSendsThatReplaceACapacityOfEntries) {
  for (uint32_t generation = 0; generation < 4; ++generation) {
    ASSERT_TRUE(manager_->Submit(Configuration(kCapacity - 3, generation), true));
    const std::string status = manager_->Ctl({"show", "status"});
    EXPECT_NE(status.find("24576 of 24576 entries in force"), std::string::npos) << status;
  }
}

TEST_P(Survival, OfModesThatComeAndGo) {
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(manager_->Submit({PortMode("port0", 2)}));
    ASSERT_TRUE(manager_->Submit({PortMode("port0", 0)}));
    ASSERT_TRUE(manager_->Submit({Put("port0", 0, Ip("10.0.0.2"), UnderTraffic::kStation)}));
    ASSERT_TRUE(manager_->Submit({Put("port0", 0, Ip("10.0.0.2"))}));
  }
}

TEST_P(Survival, OfTenKillsAndRestarts) {
  ASSERT_TRUE(manager_->Submit(Configuration(1000), true));
  for (int i = 0; i < 10; ++i) {
    manager_->Kill();
    traffic_->Flow();
    ASSERT_TRUE(manager_->Start());
    traffic_->Flow();
    ASSERT_TRUE(manager_->Submit(Configuration(1000), true));
  }
}

TEST_P(Survival, OfKillsInTheMiddleOfFullSends) {
  for (uint32_t generation = 0; generation < 8; ++generation) {
    // The answer is not waited for: the kill comes while the batch is applied, or before, or behind it.
    std::thread send{[&] { (void)manager_->Submit(Configuration(kCapacity - 3, generation), true); }};
    WaitForRounds(traffic_->traffic(), 200 * (generation + 1));
    manager_->Kill();
    send.join();
    ASSERT_TRUE(manager_->Start());
  }
}

TEST_P(Survival, OfAnUpgradeToAnotherLayout) {
  ASSERT_TRUE(manager_->Submit(Configuration(1000), true));
  for (const char* capacity : {"30000", "60000", "90000"}) {
    manager_->Kill();
    ASSERT_TRUE(manager_->Start({"--capacity", capacity}));
    traffic_->Flow();
    const std::string status = manager_->Ctl({"show", "status"});
    EXPECT_NE(status.find("1003 of 1003 entries in force"), std::string::npos) << status;
    ASSERT_TRUE(manager_->Submit(Configuration(1000), true));
  }
}

TEST_P(Survival, OfAnOrderlyEnd) {
  EXPECT_EQ(manager_->Stop(), 0);
  traffic_->Flow();
}

INSTANTIATE_TEST_SUITE_P(Planes, Survival,
                         testing::Values(Plane{"tcx", netns::As::kRoot}, Plane{"nft", netns::As::kRoot}),
                         [](const auto& plane) { return plane.param.name; });

}  // namespace
}  // namespace kernel_test
