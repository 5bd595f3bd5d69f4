#include "guard/guard.h"

#include <gmock/gmock.h>

#include "support.h"

namespace mgr::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Finds what it is told to find, one deviation in each step of a comparison.
class FlawedDataplane final : public Dataplane {
 public:
  [[nodiscard]] std::string_view Name() const override { return "flawed"; }
  [[nodiscard]] size_t Capacity() const override { return 1; }
  common::Result<Snapshot> TakeOver() override { return Snapshot{}; }
  std::vector<Failure> Apply(const Changes&) override { return {}; }
  common::Status RemoveEverything() override { return common::Ok(); }
  CheckStep Check() override {
    if (next_ >= found.size()) {
      next_ = 0;
      return {};
    }
    return {.complete = false, .found = {found[next_++]}};
  }
  [[nodiscard]] const std::map<PortId, std::string>& Unguarded() const override { return unguarded; }

  std::vector<Deviation> found;
  std::map<PortId, std::string> unguarded;

 private:
  size_t next_ = 0;
};

class GuardTest : public testing::Test {
 protected:
  GuardTest() {
    Port& port = *table_.PortOf(LimidOf("eth1"));
    port.wanted_enabled = true;
    port.ifindex = 101;
    port.installed = port.WantedConfig();
    guard_.OnEvent([this](const Guard::Event& event) {
      events_.push_back(event.what + (event.error.empty() ? "" : " | " + event.error));
    });
  }
  void Check() {
    bool done = false;
    guard_.Check([&done] { done = true; });
    for (int i = 0; i < 100 && !done; ++i) loop_->RunOnce(milliseconds{100});
    ASSERT_TRUE(done);
  }

  std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  FakeNames names_;
  Table table_{names_};
  FlawedDataplane plane_;
  Guard guard_{*loop_, table_, plane_, std::chrono::hours{1}};
  std::vector<std::string> events_;
};

TEST_F(GuardTest, IsIntactOnlyAfterAComparison) {
  EXPECT_FALSE(guard_.Intact());
  Check();
  EXPECT_TRUE(guard_.Intact());
  EXPECT_EQ(guard_.repairs(), 0U);
  EXPECT_THAT(guard_.Problems(), IsEmpty());
}

TEST_F(GuardTest, CountsWhatWasPutBackAndStaysIntact) {
  plane_.found = {{"table a: deleted", ""}, {"port eth1: detached", ""}};
  Check();
  EXPECT_TRUE(guard_.Intact());
  EXPECT_EQ(guard_.repairs(), 2U);
  EXPECT_THAT(events_, ElementsAre("table a: deleted, put back", "port eth1: detached, put back"));
  EXPECT_EQ(guard_.last_events().size(), 2U);
}

TEST_F(GuardTest, IsNotIntactUntilAFailedRepairWorks) {
  plane_.found = {{"table a: deleted", "no memory"}};
  Check();
  Check();
  EXPECT_FALSE(guard_.Intact());
  EXPECT_THAT(guard_.Problems(), ElementsAre("table a: deleted: no memory"));
  EXPECT_THAT(events_, ElementsAre("table a: deleted | no memory")) << "told once";
  plane_.found = {{"table a: deleted", ""}};
  Check();
  EXPECT_TRUE(guard_.Intact());
  EXPECT_EQ(guard_.repairs(), 1U);
}

TEST_F(GuardTest, ReportsAPortThatIsNotGuarded) {
  Check();
  EXPECT_EQ(ReasonOf(*table_.FindByName("eth1")), "");
  plane_.unguarded = {{table_.FindByName("eth1")->id, "program x stands before"}};
  Check();
  EXPECT_FALSE(guard_.Intact());
  EXPECT_EQ(guard_.UnguardedPorts(), 1U);
  EXPECT_EQ(ReasonOf(*table_.FindByName("eth1")), "program x stands before");
  EXPECT_THAT(guard_.Problems(), ElementsAre("port eth1: program x stands before"));
  plane_.unguarded.clear();
  Check();
  EXPECT_TRUE(guard_.Intact());
  EXPECT_EQ(ReasonOf(*table_.FindByName("eth1")), "");
  EXPECT_THAT(events_, ElementsAre("port eth1 | program x stands before", "port eth1 is guarded again"));
}

TEST_F(GuardTest, IsNotIntactWhileAPortIsRefused) {
  table_.FindByName("eth1")->failure = "no room";
  Check();
  EXPECT_THAT(guard_.Problems(), ElementsAre("port eth1: no room"));
  table_.FindByName("eth1")->wanted_enabled = false;
  EXPECT_TRUE(guard_.Intact()) << "a port that is not enabled needs no guard";
}

TEST_F(GuardTest, KeepsTheLastEventsOnly) {
  for (int i = 0; i < 40; ++i) plane_.found.push_back({"table " + std::to_string(i), ""});
  Check();
  EXPECT_EQ(guard_.repairs(), 40U);
  EXPECT_EQ(guard_.last_events().size(), 16U);
  EXPECT_EQ(guard_.last_events().back().what, "table 39, put back");
}

}  // namespace
}  // namespace mgr::test
