#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include "probe.h"
#include "under_traffic.h"

/// A manager that runs another dataplane than the one before it, whose filters are still in force.
namespace kernel_test {
namespace {

using frames::Ip;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kLeftOver = "still filtered by an earlier manager's";

class OtherPlane : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = netns::Enter(netns::As::kRoot)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
  }
  /// Runs `plane` on the wire, with a configuration, and kills it.
  void LeaveBehind(const std::string& plane) {
    manager_.UseDataplane(plane);
    if (!manager_.Start()) GTEST_SKIP() << "the system does not allow the dataplane " << plane;
    wire_.emplace("port0");
    ASSERT_TRUE(manager_.Submit(Configuration(100), true));
    ASSERT_TRUE(manager_.WaitForPorts("\"state\": 1")) << manager_.Log();
    manager_.Kill();
  }
  /// The whole configuration of the next time: another hundred entries, and 10.9.9.9.
  [[nodiscard]] bool SubmitNext() {
    std::vector<Request> configuration = Configuration(100, 1);
    configuration.push_back(Put("port0", 0, Ip("10.9.9.9")));
    return manager_.Submit(configuration, true);
  }
  [[nodiscard]] std::string Bpf() const { return manager_.run_dir() + "/bpf"; }
  /// But for the files of the kernel.
  [[nodiscard]] std::vector<std::string> Pins() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator{Bpf()})
      if (entry.path().extension() != ".debug") names.push_back(entry.path().filename());
    return names;
  }
  void ExpectNextAlone() {
    Probe probe{"port0", wire_->station()};
    EXPECT_EQ(probe.Passes(From("10.9.9.9")), true);
    EXPECT_EQ(probe.Passes(From("11.0.0.1", 1)), false) << "of the configuration before";
  }

  ManagerUnderTest manager_{""};
  std::optional<netns::Wire> wire_;
};

struct Change {
  std::string from, to;
  std::string place;  ///< regular expression behind the directory of the run
};
void PrintTo(const Change& change, std::ostream* out) { *out << change.from << " to " << change.to; }

class Changed : public OtherPlane, public testing::WithParamInterface<Change> {
 protected:
  /// Kills it as well: what is in force must not depend on it.
  void ExpectNothingOfBefore() {
    EXPECT_EQ(Pins().empty(), GetParam().to == "nft");
    manager_.Kill();
    const size_t before = manager_.Log().size();
    ASSERT_TRUE(manager_.Start());
    EXPECT_THAT(manager_.Log().substr(before), Not(HasSubstr(kLeftOver)));
    ExpectNextAlone();
  }
};

TEST_P(Changed, IsInForceBeforeTheFiltersOfTheOtherEnd) {
  ASSERT_NO_FATAL_FAILURE(LeaveBehind(GetParam().from));
  if (IsSkipped()) return;
  UnderTraffic traffic{*wire_};
  manager_.UseDataplane(GetParam().to);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(manager_.Start());
    EXPECT_THAT(manager_.Log(), testing::ContainsRegex("warning: 1 port " + std::string{kLeftOver} + " " +
                                                       GetParam().from + " beside this dataplane, " + GetParam().place +
                                                       ": until a client has sent its complete configuration\n"));
    // A part of the configuration opens or closes nothing.
    ASSERT_TRUE(manager_.Submit({EnablePort("port0"), Put("port0", 0, Ip("10.9.9.8"))}));
    traffic.Flow();
    if (i < 2) manager_.Kill();
  }
  ASSERT_TRUE(SubmitNext());
  EXPECT_THAT(manager_.Ctl({"show", "status"}), HasSubstr("104 of 104 entries in force"));
  EXPECT_THAT(manager_.Log(),
              EndsWith("the complete configuration is in force, and nothing of earlier managers any more\n"));
  traffic.ExpectAllAndOnlyAllowed();
  ExpectNextAlone();
  ExpectNothingOfBefore();
}
INSTANTIATE_TEST_SUITE_P(Dataplane, Changed,
                         testing::Values(Change{"tcx", "nft", "pinned in [^ ]*/bpf"},
                                         Change{"nft", "tcx", "table netdev ip_spoofing_[0-9a-f]*_v[0-9]*_49152"}),
                         [](const auto& change) { return "From" + change.param.from + "To" + change.param.to; });

TEST_F(OtherPlane, IsEndedByAUserWhoOwnsThePins) {
  netns::MustRun("mkdir -p " + Bpf() + " && mount -t bpf bpf " + Bpf());
  (void)EnablePort("port0");  // makes the directory of the interface ids
  netns::MustRun("chmod 700 " + Bpf() + " && chown -R " + ManagerUnderTest::kUser + " " + manager_.root());
  manager_.BecomeUser({"bpf", "net_admin", "perfmon"});
  ASSERT_NO_FATAL_FAILURE(LeaveBehind("auto"));
  if (IsSkipped()) return;
  manager_.BecomeUser({"net_admin"});
  ASSERT_TRUE(manager_.Start());
  EXPECT_THAT(manager_.Log(),
              testing::AllOf(HasSubstr("dataplane tcx cannot work here"), HasSubstr("dataplane nft: the "),
                             HasSubstr("warning: 1 port " + std::string{kLeftOver} + " tcx")));
  ASSERT_TRUE(SubmitNext());
  ExpectNextAlone();
  EXPECT_THAT(Pins(), testing::IsEmpty());
}

struct OfRoot {
  std::string name;
  std::string mode;  ///< of the directories
  std::string ports;
};
void PrintTo(const OfRoot& pins, std::ostream* out) { *out << pins.name; }
class PinsOfRoot : public OtherPlane, public testing::WithParamInterface<OfRoot> {};

TEST_P(PinsOfRoot, StayBesideTheDataplaneOfAUser) {
  ASSERT_NO_FATAL_FAILURE(LeaveBehind("tcx"));
  if (IsSkipped()) return;
  UnderTraffic traffic{*wire_};
  netns::MustRun("find " + Bpf() + " -type d -exec chmod " + GetParam().mode + " {} +");
  netns::MustRun("find " + manager_.root() + " -not -path '*/bpf*' -exec chown " + ManagerUnderTest::kUser + " {} +");
  manager_.BecomeUser({"net_admin"});
  manager_.UseDataplane("auto");
  ASSERT_TRUE(manager_.Start());
  EXPECT_THAT(manager_.Log(),
              HasSubstr("warning: " + GetParam().ports + " " + kLeftOver + " tcx beside this dataplane, pinned in " +
                        Bpf() + ": it cannot be ended: Permission denied\n"));
  ASSERT_TRUE(SubmitNext());
  Probe probe{"port0", wire_->station()};
  EXPECT_EQ(probe.Passes(From("10.9.9.9")), false) << "not what both let pass";
  traffic.ExpectAllAndOnlyAllowed();
}
INSTANTIATE_TEST_SUITE_P(Found, PinsOfRoot,
                         testing::Values(OfRoot{"Hidden", "700", "an unknown number of ports"},
                                         OfRoot{"Visible", "755", "1 port"}),
                         [](const auto& pins) { return pins.param.name; });

TEST_F(OtherPlane, StaysUnderTheMemoryDataplane) {
  ASSERT_NO_FATAL_FAILURE(LeaveBehind("tcx"));
  if (IsSkipped()) return;
  UnderTraffic traffic{*wire_};
  manager_.UseDataplane("memory");
  ASSERT_TRUE(manager_.Start());
  EXPECT_THAT(manager_.Log(),
              HasSubstr("warning: 1 port " + std::string{kLeftOver} + " tcx beside this dataplane, pinned in " + Bpf() +
                        ": it cannot be ended: the memory dataplane puts nothing in their place\n"));
  ASSERT_TRUE(SubmitNext());
  traffic.Flow();
  manager_.Kill();
  manager_.UseDataplane("tcx");
  ASSERT_TRUE(manager_.Start());
  EXPECT_THAT(manager_.Ctl({"show", "status"}), HasSubstr("103 of 103 entries in force"));
  traffic.ExpectAllAndOnlyAllowed();
}

}  // namespace
}  // namespace kernel_test
