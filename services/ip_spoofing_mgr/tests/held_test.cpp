#include <gmock/gmock.h>

#include "engine/engine.h"
#include "support.h"

/// The engine beside filters of an earlier manager that its dataplane cannot read.
namespace mgr::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Held : public testing::Test {
 protected:
  Held() {
    bench_.plane.left_behind.unreadable = {"/run/bpf/v9-1: another layout"};
    bench_.plane.left_behind.held = true;
    EXPECT_TRUE(bench_.engine.TakeOver());
  }
  Bench bench_;
};

TEST_F(Held, NothingIsMadeBeforeTheCompleteConfiguration) {
  bench_.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  EXPECT_EQ(bench_.engine.Settled(), 1U) << "it waits with a reason";
  bench_.engine.InterfacesChanged(std::vector<std::string>{"eth1"}, bench_.now);
  EXPECT_TRUE(bench_.engine.SetMonitor("eth1", true, bench_.now));
  bench_.Wait(milliseconds{5000});
  EXPECT_THAT(bench_.plane.calls, IsEmpty());
  EXPECT_THAT(bench_.Rows(), ElementsAre("eth1/0/10.0.0.1 state 0 flag 1"));
}

TEST_F(Held, IsReleasedWhenTheCompleteConfigurationIsInForce) {
  bench_.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), Put("eth1", 0, "10.0.0.2")});
  bench_.Full({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  EXPECT_THAT(bench_.plane.calls, ElementsAre("put eth1/0/10.0.0.1, port eth1 off none"));
  bench_.Wait(milliseconds{100});
  EXPECT_THAT(bench_.plane.calls,
              ElementsAre("put eth1/0/10.0.0.1, port eth1 off none", "port eth1 on none", "release held"));
  EXPECT_THAT(bench_.Rows(), ElementsAre("eth1/0/10.0.0.1 state 1 flag 0"));
  bench_.Full({Enable("eth1")});
  bench_.Wait(milliseconds{100});
  EXPECT_EQ(bench_.plane.calls.size(), 4U) << "once";
}

TEST_F(Held, IsReleasedAtOnceWhenTheCompleteConfigurationIsEmpty) {
  bench_.Full({});
  EXPECT_THAT(bench_.plane.calls, ElementsAre("release held"));
}

TEST_F(Held, StaysWhileAPortIsRefused) {
  bench_.plane.refused = {"eth1"};
  bench_.Full({Enable("eth1"), Enable("eth2")});
  bench_.Wait(milliseconds{2500});
  for (const std::string& call : bench_.plane.calls) EXPECT_NE(call, "release held");
  bench_.plane.refused.clear();
  bench_.Wait(milliseconds{1500});
  EXPECT_EQ(bench_.plane.calls.back(), "release held");
}

TEST_F(Held, IsTriedAgainWhenItsReleaseFails) {
  bench_.plane.refused = {"release held"};
  bench_.Full({});
  bench_.Wait(milliseconds{2500});
  EXPECT_THAT(bench_.plane.calls, ElementsAre("release held", "release held", "release held"));
  bench_.plane.refused.clear();
  bench_.Wait(milliseconds{5000});
  EXPECT_EQ(bench_.plane.calls.size(), 4U);
  EXPECT_EQ(bench_.engine.Deadline(), std::nullopt);
}

TEST(HeldByAnotherDataplane, EndsWhenTheCompleteConfigurationIsInForce) {
  Bench bench;
  bool refused = true;
  EXPECT_TRUE(bench.engine.TakeOver([&]() -> common::Status {
    bench.plane.calls.emplace_back("end others");
    return refused ? common::Status{common::Error{"remove the pins", "/run/bpf", "some stay"}} : common::Ok();
  }));
  bench.Batch({Enable("eth1")});
  bench.Wait(milliseconds{5000});
  EXPECT_THAT(bench.plane.calls, IsEmpty());
  bench.Full({});
  bench.Wait(milliseconds{100});
  EXPECT_THAT(bench.plane.calls, ElementsAre("release held", "end others"));
  refused = false;
  bench.Wait(milliseconds{5000});
  EXPECT_THAT(bench.plane.calls, ElementsAre("release held", "end others", "release held", "end others"));
  EXPECT_EQ(bench.engine.Deadline(), std::nullopt);
}

}  // namespace
}  // namespace mgr::test
