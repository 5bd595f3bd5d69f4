#include "engine/engine.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <functional>

#include "support.h"

namespace mgr::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr auto kNone = AllowAll::kNone;
constexpr auto kIpv4 = AllowAll::kIpv4;
constexpr auto kIpv6 = AllowAll::kIpv6;
constexpr auto kAll = AllowAll::kAll;

/// One batch on a settled start: what is made at once, and what after the hold.
struct BatchCase {
  std::string name;
  std::vector<Request> before;
  std::vector<Request> batch;
  std::vector<std::string> at_once;
  std::vector<std::string> after_hold;
};

class OneBatch : public testing::TestWithParam<BatchCase> {};

TEST_P(OneBatch, WidensAtOnceAndNarrowsAfterTheHold) {
  const BatchCase& test = GetParam();
  Bench bench;
  bench.Batch(test.before);
  bench.Wait(milliseconds{100});
  bench.plane.calls.clear();
  bench.Batch(test.batch);
  EXPECT_THAT(bench.plane.calls, ElementsAreArray(test.at_once));
  bench.plane.calls.clear();
  bench.Wait(milliseconds{19});
  EXPECT_THAT(bench.plane.calls, IsEmpty()) << "before the hold is over";
  EXPECT_EQ(bench.engine.Settled(), test.after_hold.empty() ? 2U : 1U);
  bench.Wait(milliseconds{1});
  EXPECT_THAT(bench.plane.calls, ElementsAreArray(test.after_hold));
  EXPECT_EQ(bench.engine.Settled(), 2U);
}

INSTANTIATE_TEST_SUITE_P(
    , OneBatch,
    testing::Values(
        BatchCase{"Empty", {}, {}, {}, {}},
        BatchCase{
            "AnEntryIsPutAtOnce", {Enable("eth1")}, {Put("eth1", 100, "10.0.0.1")}, {"put eth1/100/10.0.0.1"}, {}},
        BatchCase{"AnEntryIsRemovedLater",
                  {Enable("eth1"), Put("eth1", 100, "10.0.0.1")},
                  {Remove("eth1", 100, "10.0.0.1")},
                  {},
                  {"remove eth1/100/10.0.0.1"}},
        BatchCase{"AnAbsentEntryIsNotRemoved", {Enable("eth1")}, {Remove("eth1", 100, "10.0.0.1")}, {}, {}},
        BatchCase{"ANewPortIsKnownWithItsEntriesAndEnabledAfterThem",
                  {},
                  {Enable("eth1"), Put("eth1", 0, "10.0.0.1")},
                  {"put eth1/0/10.0.0.1, port eth1 off none"},
                  {"port eth1 on none"}},
        BatchCase{"ADisableIsMadeAtOnceAndThePortForgottenLater",
                  {Enable("eth1")},
                  {Disable("eth1")},
                  {"port eth1 off none"},
                  {"drop eth1"}},
        BatchCase{"APortWithEntriesStaysKnownWhenItIsDisabled",
                  {Enable("eth1"), Put("eth1", 0, "10.0.0.1")},
                  {Disable("eth1")},
                  {"port eth1 off none"},
                  {}},
        BatchCase{"TheLastEntryOfADisabledPortTakesThePortWithIt",
                  {Put("eth1", 0, "10.0.0.1")},
                  {Remove("eth1", 0, "10.0.0.1")},
                  {},
                  {"remove eth1/0/10.0.0.1, drop eth1"}},
        BatchCase{"AWholeInterfaceGoes",
                  {Enable("eth1"), Mode("eth1", kAll), Put("eth1", 0, "10.0.0.1")},
                  {Mode("eth1", kNone), Disable("eth1"), Remove("eth1", 0, "10.0.0.1")},
                  {"port eth1 off all"},
                  {"remove eth1/0/10.0.0.1, drop eth1"}},
        BatchCase{"AWiderModeAtOnce", {Enable("eth1")}, {Mode("eth1", kIpv4)}, {"port eth1 on ipv4-all"}, {}},
        BatchCase{"ANarrowerModeLater",
                  {Enable("eth1"), Mode("eth1", kAll)},
                  {Mode("eth1", kIpv6)},
                  {},
                  {"port eth1 on ipv6-all"}},
        BatchCase{"AnotherModePassesBothBetween",
                  {Enable("eth1"), Mode("eth1", kIpv4)},
                  {Mode("eth1", kIpv6)},
                  {"port eth1 on ipv4-and-ipv6-all"},
                  {"port eth1 on ipv6-all"}},
        BatchCase{"BothSwitchesAreEverything",
                  {Enable("eth1"), Mode("eth1", kIpv4)},
                  {Mode("eth1", kAll)},
                  {"port eth1 on all"},
                  {}},
        BatchCase{"AModeReplacedByAListCutsNobody",
                  {Enable("eth1"), Mode("eth1", kIpv4)},
                  {Mode("eth1", kNone), Put("eth1", 0, "10.0.0.1")},
                  {"put eth1/0/10.0.0.1"},
                  {"port eth1 on none"}},
        BatchCase{"AMacThatGoesIsWider",
                  {Enable("eth1"), Put("eth1", 0, "10.0.0.1", 7)},
                  {Put("eth1", 0, "10.0.0.1")},
                  {"put eth1/0/10.0.0.1"},
                  {}},
        BatchCase{"AMacThatComesIsNarrower",
                  {Enable("eth1"), Put("eth1", 0, "10.0.0.1")},
                  {Put("eth1", 0, "10.0.0.1", 7)},
                  {},
                  {"put eth1/0/10.0.0.1 mac 7"}},
        BatchCase{"AnotherMacAtOnce",
                  {Enable("eth1"), Put("eth1", 0, "10.0.0.1", 7)},
                  {Put("eth1", 0, "10.0.0.1", 8)},
                  {"put eth1/0/10.0.0.1 mac 8"},
                  {}},
        BatchCase{"TheLastRequestPerObjectWins",
                  {Enable("eth1"), Put("eth1", 0, "10.0.0.1")},
                  {Remove("eth1", 0, "10.0.0.1"), Disable("eth1"), Mode("eth1", kAll), Put("eth1", 0, "10.0.0.1"),
                   Enable("eth1"), Mode("eth1", kNone), Put("eth1", 5, "10.0.0.5"), Remove("eth1", 5, "10.0.0.5")},
                  {},
                  {}},
        BatchCase{"TheSameAddressOnTwoVlansAndPortsIsTwoObjects",
                  {Enable("eth1"), Enable("eth2"), Put("eth1", 1, "10.0.0.1"), Put("eth1", 2, "10.0.0.1"),
                   Put("eth2", 1, "10.0.0.1")},
                  {Remove("eth1", 1, "10.0.0.1")},
                  {},
                  {"remove eth1/1/10.0.0.1"}},
        BatchCase{"NothingNewMakesNothing",
                  {Enable("eth1"), Put("eth1", 0, "10.0.0.1", 7), Mode("eth1", kIpv6)},
                  {Enable("eth1"), Put("eth1", 0, "10.0.0.1", 7), Mode("eth1", kIpv6)},
                  {},
                  {}}),
    [](const auto& test) { return test.param.name; });

TEST(Hold, EndsWithTheNextBatch) {
  Bench bench;
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  EXPECT_EQ(bench.engine.Settled(), 0U);
  bench.Batch({Put("eth1", 0, "10.0.0.2")});
  EXPECT_EQ(bench.engine.Settled(), 2U);
  EXPECT_THAT(bench.plane.calls,
              ElementsAre("put eth1/0/10.0.0.1, port eth1 off none", "put eth1/0/10.0.0.2", "port eth1 on none"));
}

TEST(Hold, TheNextBatchOverridesWhatIsHeld) {
  Bench bench;
  bench.Batch({Enable("eth1"), Mode("eth1", kIpv4), Put("eth1", 0, "10.0.0.1"), Put("eth1", 0, "10.0.0.2")});
  bench.Wait(milliseconds{20});
  bench.plane.calls.clear();
  bench.Batch({Mode("eth1", kNone), Remove("eth1", 0, "10.0.0.1"), Remove("eth1", 0, "10.0.0.2")});
  bench.Batch({Put("eth1", 0, "10.0.0.1"), Mode("eth1", kIpv4)});
  EXPECT_THAT(bench.plane.calls, ElementsAre("remove eth1/0/10.0.0.2"));
  bench.Wait(milliseconds{1000});
  EXPECT_THAT(bench.plane.calls, ElementsAre("remove eth1/0/10.0.0.2"));
}

TEST(Hold, WhatIsNarrowedAgainWaitsForItsOwnHold) {
  Bench bench;
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  bench.plane.calls.clear();
  bench.Batch({Remove("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{15});
  bench.Batch({Remove("eth1", 0, "10.0.0.1")});
  bench.Wait(milliseconds{19});
  EXPECT_THAT(bench.plane.calls, IsEmpty());
  bench.Wait(milliseconds{1});
  EXPECT_THAT(bench.plane.calls, ElementsAre("remove eth1/0/10.0.0.1"));
}

TEST(Hold, OfZeroNarrowsInTheSameCall) {
  Bench bench{1000, milliseconds{0}};
  bench.Batch({Enable("eth1"), Put("eth1", 0, "10.0.0.1")});
  EXPECT_THAT(bench.plane.calls, ElementsAre("put eth1/0/10.0.0.1, port eth1 off none", "port eth1 on none"));
  EXPECT_EQ(bench.engine.Settled(), 1U);
}

TEST(Full, ReplacesWhatItDoesNotNameAfterTheNewIsInPlace) {
  Bench bench;
  bench.Batch({Enable("eth1"), Mode("eth1", kAll), Put("eth1", 0, "10.0.0.1"), Put("eth1", 0, "10.0.0.2"),
               Enable("eth2"), Put("eth2", 5, "10.0.0.1", 7), Put("eth2", 5000, "10.0.0.1"), Put("eth4", 0, "::1")});
  bench.Wait(milliseconds{20});
  bench.plane.calls.clear();
  bench.Full({Enable("eth1"), Put("eth1", 0, "10.0.0.2"), Enable("eth3"), Put("eth3", 0, "10.0.0.3")});
  EXPECT_THAT(bench.plane.calls, ElementsAre("put eth3/0/10.0.0.3, port eth2 off none, port eth3 off none"));
  bench.plane.calls.clear();
  bench.Wait(milliseconds{20});
  ASSERT_EQ(bench.plane.calls.size(), 1U);
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.2", "eth3 on none", "eth3/0/10.0.0.3"));
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1/0/10.0.0.2 state 1 flag 0", "eth3/0/10.0.0.3 state 1 flag 0"));
  EXPECT_EQ(bench.table.ports().size(), 2U);
}

TEST(Full, EmptyLeavesNothing) {
  Bench bench;
  bench.Batch({Enable("eth1"), Mode("eth1", kAll), Put("eth1", 0, "10.0.0.1"), Put("eth2", 4095, "10.0.0.1")});
  bench.Wait(milliseconds{20});
  bench.Full({});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), IsEmpty());
  EXPECT_THAT(bench.Rows(), IsEmpty());
  EXPECT_TRUE(bench.table.ports().empty());
  EXPECT_TRUE(bench.table.entries().empty());
}

TEST(Full, TheSameAgainTouchesNothing) {
  const std::vector<Request> all{Enable("eth1"), Put("eth1", 0, "10.0.0.1", 7), Mode("eth1", kIpv6), Enable("eth2")};
  Bench bench;
  bench.Full(all);
  bench.Wait(milliseconds{20});
  bench.plane.calls.clear();
  bench.Full(all);
  bench.Wait(milliseconds{100});
  EXPECT_THAT(bench.plane.calls, IsEmpty());
  EXPECT_EQ(bench.engine.Settled(), 2U);
}

TEST(Full, RequestsInsideItUndoEachOtherInOrder) {
  Bench bench;
  bench.Full({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), Remove("eth1", 0, "10.0.0.1"), Put("eth1", 0, "10.0.0.2")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.InForce(), ElementsAre("eth1 on none", "eth1/0/10.0.0.2"));
}

TEST(TakenOver, StaysUntilAClientSaysOtherwise) {
  Bench bench;
  bench.plane.left_behind.ports = {{.id = 7, .name = "eth1", .ifindex = 101, .enabled = true, .mode = kIpv4},
                                   {.id = 9, .name = "eth2", .ifindex = 55, .enabled = true}};
  bench.plane.left_behind.entries = {{{7, 0, htonl(0x0A000001)}, {}}, {{9, 3, htonl(0x0A000002)}, {0, 0, 0, 0, 0, 7}}};
  bench.plane.memory.Apply({.puts = bench.plane.left_behind.entries,
                            .ports = bench.plane.left_behind.ports,
                            .removes = {},
                            .drop_ports = {}});
  ASSERT_TRUE(bench.engine.TakeOver());
  EXPECT_THAT(bench.plane.calls, ElementsAre("port eth2 on none")) << "only the stale interface index changes";
  EXPECT_THAT(bench.Rows(), ElementsAre("eth1 ipv4-all state 1 flag 0", "eth1/0/10.0.0.1 state 1 flag 0",
                                        "eth2/3/10.0.0.2 mac 7 state 1 flag 0"));
  bench.plane.calls.clear();
  bench.Full({Enable("eth1"), Put("eth1", 0, "10.0.0.1"), Enable("eth3")});
  bench.Wait(milliseconds{20});
  EXPECT_THAT(bench.plane.calls,
              ElementsAre("port eth3 off none, port eth2 off none",
                          "port eth3 on none, port eth1 on none, remove eth2/3/10.0.0.2, drop eth2"));
}

TEST(UnknownPort, IsForgottenAfterRequestsThatWantNothing) {
  const std::vector<std::vector<Request>> batches{
      {Remove("eth1", 0, "10.0.0.1")}, {Disable("eth1")}, {Mode("eth1", kNone)}};
  for (const std::vector<Request>& batch : batches) {
    Bench bench;
    bench.Batch(batch);
    bench.Wait(milliseconds{100});
    EXPECT_TRUE(bench.table.ports().empty());
    EXPECT_THAT(bench.plane.calls, IsEmpty());
  }
}

}  // namespace
}  // namespace mgr::test
