#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "probe.h"
#include "under_traffic.h"

/// The manager as a user of its own with some capabilities and no others, as a service manager starts it.
namespace kernel_test {
namespace {

using frames::Ip;
using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;

struct Privileges {
  std::string name;
  std::vector<std::string> capabilities;
  bool bpffs;            ///< mounted beforehand, and the user's
  std::string plane;     ///< which one is chosen
  std::string not_that;  ///< regular expression of the log: why not a better one
  /// Each plane that cannot be forced, and the regular expression of the only line.
  std::vector<std::pair<std::string, std::string>> refused;
};
void PrintTo(const Privileges& privileges, std::ostream* out) { *out << privileges.name; }

class Privilege : public testing::TestWithParam<Privileges> {
 protected:
  void SetUp() override {
    if (const auto reason = netns::Enter(netns::As::kRoot)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
  }
  std::unique_ptr<ManagerUnderTest> Make(const std::string& plane) {
    auto manager = std::make_unique<ManagerUnderTest>(plane);
    (void)EnablePort("port0");  // makes the directory of the interface ids
    const std::string bpf = manager->run_dir() + "/bpf";
    netns::MustRun("mkdir -p " + bpf);
    if (GetParam().bpffs) netns::MustRun("mount -t bpf bpf " + bpf);
    netns::MustRun("chmod 700 " + bpf + " && chown -R " + ManagerUnderTest::kUser + " " + manager->root());
    manager->BecomeUser(GetParam().capabilities);
    return manager;
  }
};

TEST_P(Privilege, DecidesWhichDataplaneIsChosen) {
  const auto manager = Make("auto");
  ASSERT_TRUE(manager->Start());
  EXPECT_THAT(manager->Log(), HasSubstr("info: dataplane " + GetParam().plane + ": the best one that works here\n"));
  EXPECT_THAT(manager->Log(), ContainsRegex(GetParam().not_that));
  if (GetParam().plane == "memory") return;
  netns::Wire wire{"port0"};
  ASSERT_TRUE(manager->Submit(Configuration(100), true));
  ASSERT_TRUE(manager->WaitForPorts("\"state\": 1")) << manager->Log();
  UnderTraffic traffic{wire};
  for (int i = 0; i < 3; ++i) {
    manager->Kill();
    ASSERT_TRUE(manager->Start());
    traffic.Flow();
    ASSERT_TRUE(manager->Submit(Configuration(100, 1), true));
  }
  traffic.ExpectAllAndOnlyAllowed();
}

TEST_P(Privilege, IsEnoughForCountersAndEvents) {
  if (GetParam().plane != "tcx") GTEST_SKIP() << "reports no drops";
  const auto manager = Make("tcx");
  ASSERT_TRUE(manager->Start());
  netns::Wire wire{"port0"};
  ASSERT_TRUE(manager->Submit({EnablePort("port0"), Put("port0", 0, Ip("10.0.0.1"))}, true));
  ASSERT_TRUE(manager->WaitForPorts("\"state\": 1")) << manager->Log();
  const auto watch = manager->Watch({"watch", "drops", "--json"});
  Probe probe{"port0", wire.station()};
  EXPECT_TRUE(test::Eventually(
      [&] {
        EXPECT_EQ(probe.Passes(From("192.0.2.1")), false);
        return watch->Output().find("192.0.2.1") != std::string::npos;
      },
      std::chrono::seconds{20}));
  EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
  std::map<std::string, uint64_t> frames;
  for (const json& row : json::parse(manager->Ctl({"show", "counters", "--json"})))
    frames[row["reason"]] = row["frames"];
  EXPECT_EQ(frames["entry"], 1U);
  EXPECT_GE(frames["no-entry"], 1U);
  EXPECT_EQ(json::parse(manager->Ctl({"show", "violators", "--json"})).size(), 1U);
}

TEST_P(Privilege, ThatIsMissingForAForcedDataplaneIsOneLine) {
  for (const auto& [plane, line] : GetParam().refused) {
    const auto manager = Make(plane);
    EXPECT_EQ(manager->Run(), 1) << plane;
    const std::string log = manager->Log();
    EXPECT_THAT(log, ContainsRegex("ip-spoofing-mgr: " + line + "\n$"));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  }
}

const std::vector<Privileges> kPrivileges{
    {"BpfNetAdminPerfmonAndAMount", {"bpf", "net_admin", "perfmon"}, true, "tcx", "ready in", {}},
    {"BpfNetAdminPerfmonWithoutAMount",
     {"bpf", "net_admin", "perfmon"},
     false,
     "nft",
     "dataplane tcx cannot work here: mount bpf .*/run/bpf: no permission; mount it there beforehand\n",
     {{"tcx", "mount bpf .*/run/bpf: no permission; mount it there beforehand"}}},
    {"NetAdminAlone",
     {"net_admin"},
     true,
     "nft",
     "dataplane tcx cannot work here: .*Operation not permitted\n",
     {{"tcx", ".*Operation not permitted"}}},
    {"WithoutPerfmon",
     {"bpf", "net_admin"},
     true,
     "nft",
     "dataplane tcx cannot work here: load the filter program .*\n",
     {{"tcx", "load the filter program .*"}}},
    {"None",
     {},
     true,
     "memory",
     "dataplane tcx cannot work here: tcx: no permission: it needs CAP_BPF, CAP_NET_ADMIN and CAP_PERFMON\n.*"
     "dataplane nft cannot work here: subscribe to nf_tables notifications: Operation not permitted\n",
     {{"tcx", "tcx: no permission: it needs CAP_BPF, CAP_NET_ADMIN and CAP_PERFMON"},
      {"nft", "subscribe to nf_tables notifications: Operation not permitted"}}},
};
INSTANTIATE_TEST_SUITE_P(Of, Privilege, testing::ValuesIn(kPrivileges), [](const auto& p) { return p.param.name; });

}  // namespace
}  // namespace kernel_test
