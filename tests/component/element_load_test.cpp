/// The configuration in the database reaches the manager when a daemon starts, whatever else happens around it.
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <chrono>

#include "common/unix_socket.h"
#include "support/element/checks.h"

namespace test {
namespace {

Configuration TwoPorts() {
  Configuration configuration;
  configuration["sp1"].sources = {{{0x0a000001, 0}, ""}, {{0x0a000002, 100}, "02:00:00:00:00:02"}};
  configuration["sp2"].ipv6_all = true;
  return configuration;
}
Configuration OtherPorts() {
  Configuration configuration = TwoPorts();
  configuration.erase("sp2");
  configuration["sp1"].sources.erase({0x0a000001, 0});
  configuration["sp1"].ipv4_all = true;
  configuration["eth0"].sources = {{{0xc0a80101, 0}, ""}};
  return configuration;
}

class RandomLoad : public testing::TestWithParam<int> {};

TEST_P(RandomLoad, TheManagersTableIsTheConfiguration) {
  constexpr int kConfigurations = 40;
  Element element;
  element.StartAll();
  for (int round = 0; round < Rounds(kConfigurations); ++round) {
    const int seed = GetParam() * kConfigurations + round;
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random{static_cast<unsigned>(seed)};
    const Configuration configuration = RandomConfiguration(random, 10, 20);
    element.Kill(Part::kDaemon);
    CommitInPlace(element, configuration);
    element.Start(Part::kDaemon);
    ExpectManagerHolds(element, configuration);
    if (HasFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomLoad, testing::Range(0, 8));

TEST(Load, ALargeListIsComplete) {
  Configuration configuration;
  for (uint32_t i = 0; i < 5000; ++i) configuration["sp" + std::to_string(i % 7)].sources[{0x0a000000 + i, 0}] = "";
  Element element;
  element.StartAll();
  element.Kill(Part::kDaemon);
  CommitInPlace(element, configuration);
  element.Start(Part::kDaemon);
  ExpectManagerHolds(element, configuration);
}

/// Each row starts the three parts one after the other, each as soon as the one before it listens (`kUp`), or all at
/// once (`kAtOnce`).
enum class Pace { kUp, kAtOnce };
struct OrderCase {
  std::vector<Part> order;
  Pace pace;
};
std::string OrderName(const testing::TestParamInfo<OrderCase>& row) {
  std::string name;
  for (const Part part : row.param.order) name += part == Part::kCdbd ? "Cdbd" : part == Part::kManager ? "Mgr" : "App";
  return name + (row.param.pace == Pace::kUp ? "" : "AtOnce");
}
std::vector<OrderCase> AllOrders() {
  std::vector<OrderCase> rows;
  for (const Pace pace : {Pace::kUp, Pace::kAtOnce}) {
    std::vector<Part> order{kAllParts.begin(), kAllParts.end()};
    do {
      rows.push_back({order, pace});
    } while (std::next_permutation(order.begin(), order.end()));
  }
  return rows;
}
class StartOrder : public testing::TestWithParam<OrderCase> {};

TEST_P(StartOrder, EndsWithTheConfigurationInForce) {
  Element element;
  element.Start(Part::kCdbd);
  CommitInPlace(element, TwoPorts());
  EXPECT_EQ(element.Stop(Part::kCdbd), 0);
  for (const Part part : GetParam().order) {
    element.Start(part);
    if (GetParam().pace == Pace::kAtOnce || part == Part::kDaemon) continue;
    ASSERT_TRUE(element.WaitForSocket(part));
  }
  ExpectManagerHolds(element, TwoPorts());
  EXPECT_TRUE(element.Running(Part::kDaemon));
}

INSTANTIATE_TEST_SUITE_P(Orders, StartOrder, testing::ValuesIn(AllOrders()), OrderName);

/// Which parts die, by SIGKILL, and come back.
struct RestartCase {
  std::string name;
  std::vector<Part> killed;
};
class Restart : public testing::TestWithParam<RestartCase> {
 protected:
  /// The database server dies last, for nothing can be committed without it.
  void KillCommitAndRestart(const std::vector<Part>& order, const Configuration& configuration) {
    for (const Part part : order) {
      if (part != Part::kCdbd) element_.Kill(part);
    }
    CommitInPlace(element_, configuration);
    if (std::find(order.begin(), order.end(), Part::kCdbd) != order.end()) element_.Kill(Part::kCdbd);
    for (const Part part : order) element_.Start(part);
    ExpectManagerHolds(element_, configuration);
  }
  Element element_;
};

TEST_P(Restart, LeavesExactlyTheConfigurationThatIsThereAfterwards) {
  element_.StartAll();
  CommitInPlace(element_, TwoPorts());
  ExpectManagerHolds(element_, TwoPorts());
  std::vector<Part> order = GetParam().killed;
  for (const bool reversed : {false, true}) {
    if (reversed) std::reverse(order.begin(), order.end());
    const std::pair<const char*, Configuration> changes[] = {
        {"unchanged", TwoPorts()}, {"changed", OtherPorts()}, {"emptied", {}}, {"filled", TwoPorts()}};
    for (const auto& [what, configuration] : changes) {
      SCOPED_TRACE(std::string{what} + (reversed ? ", restarted in reverse order" : ""));
      KillCommitAndRestart(order, configuration);
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Parts, Restart,
                         testing::Values(RestartCase{"Daemon", {Part::kDaemon}},
                                         RestartCase{"Manager", {Part::kManager}}, RestartCase{"Cdbd", {Part::kCdbd}},
                                         RestartCase{"DaemonAndManager", {Part::kDaemon, Part::kManager}},
                                         RestartCase{"DaemonAndCdbd", {Part::kDaemon, Part::kCdbd}},
                                         RestartCase{"ManagerAndCdbd", {Part::kManager, Part::kCdbd}},
                                         RestartCase{"All", {Part::kDaemon, Part::kManager, Part::kCdbd}}),
                         [](const auto& row) { return row.param.name; });

TEST(Stop, EveryPartEndsWithStatusZeroAndTheDaemonSaysFarewell) {
  Element element;
  element.StartAll();
  CommitInPlace(element, TwoPorts());
  ExpectManagerHolds(element, TwoPorts());
  EXPECT_EQ(element.Stop(Part::kDaemon), 0);
  EXPECT_EQ(element.Process(Part::kDaemon)->Output(), "ip-spoofing-app: Leaving...\n");
  EXPECT_EQ(element.Stop(Part::kManager), 0);
  EXPECT_EQ(element.Stop(Part::kCdbd), 0);
}

TEST(Start, WithoutAManagerTheDaemonEndsWithItsFault) {
  Element element;
  element.Start(Part::kDaemon);
  EXPECT_EQ(element.WaitForEnd(Part::kDaemon), 1);
  EXPECT_THAT(element.Log(Part::kDaemon), testing::HasSubstr("ip-spoofing-app could not connect to ip-spoofing-mgr"));
}

// The socket takes the connection and no manager ever answers: the daemon waits when the signal comes.
TEST(Stop, WhileWaitingForTheManagerIsStatusZero) {
  Element element;
  const auto listener = common::ListenUnix(element.RunDir() + "/mgr.sock", SOCK_STREAM, 0600);
  ASSERT_TRUE(listener.ok()) << listener.error().Text();
  element.Start(Part::kDaemon);
  pollfd connection{.fd = listener.value().get(), .events = POLLIN, .revents = 0};
  ASSERT_EQ(::poll(&connection, 1, std::chrono::milliseconds{Element::kLimit}.count()), 1);
  EXPECT_EQ(element.Stop(Part::kDaemon), 0);
  EXPECT_EQ(element.Process(Part::kDaemon)->Output(), "ip-spoofing-app: Leaving...\n");
  EXPECT_THAT(element.Log(Part::kDaemon), testing::Not(testing::HasSubstr("could not connect")));
}

}  // namespace
}  // namespace test
