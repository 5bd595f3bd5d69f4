#include <bpf/bpf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <optional>

#include "dataplane/nft/layout.h"
#include "dataplane/nft/table.h"
#include "dataplane/tcx/layout.h"
#include "probe.h"
#include "under_traffic.h"

/// A manager that finds what it cannot read: another layout, another form, pins that are something else. It trusts
/// nothing of it, and what is enforced by it stays enforced until the complete configuration is.
namespace kernel_test {
namespace {

using frames::Ip;
namespace fs = std::filesystem;

struct Found {
  std::string name;
  std::string plane;
  /// Makes of what a manager has left what an earlier version might leave. The directory of the pins, or the table.
  std::function<void(const std::string& place)> damage;
  std::string logged;  ///< what the log names, behind the directory
};
void PrintTo(const Found& found, std::ostream* out) { *out << found.name; }

std::string NftLayout() { return "v" + std::to_string(mgr::nft::kLayout); }

/// The directory of the maps below `bpf`.
std::string Maps(const std::string& bpf) {
  for (const auto& entry : fs::directory_iterator{bpf})
    if (entry.path().filename().string().starts_with("v")) return entry.path();
  return "";
}
std::string Link(const std::string& bpf) {
  return fs::directory_iterator { bpf + "/links" } -> path();
}

void Replace(const std::string& path, int object) {
  ASSERT_GE(object, 0);
  ASSERT_EQ(unlink(path.c_str()), 0) << path;
  ASSERT_EQ(bpf_obj_pin(object, path.c_str()), 0) << path;
  close(object);
}
int AnotherMap() { return bpf_map_create(BPF_MAP_TYPE_HASH, "other", 4, 64, 10, nullptr); }
int AProgram() {
  const std::array<bpf_insn, 2> pass = {
      {{.code = BPF_ALU64 | BPF_MOV | BPF_K, .dst_reg = 0, .src_reg = 0, .off = 0, .imm = 0},
       {.code = BPF_JMP | BPF_EXIT, .dst_reg = 0, .src_reg = 0, .off = 0, .imm = 0}}};
  return bpf_prog_load(BPF_PROG_TYPE_SCHED_CLS, "pass", "GPL", pass.data(), pass.size(), nullptr);
}

/// The table of the manager. Not by the command nft, which cannot show its rules.
std::string Table() {
  auto socket = mgr::nft::Socket::Open();
  const auto names = mgr::nft::Table::Names(socket.value());
  return names.ok() && names.value().size() == 1 ? names.value().front() : "";
}

/// The manager's table made into one of another layout, which allows the same to the traffic.
void OtherTable(const std::string& table, const std::string& end) {
  auto socket = mgr::nft::Socket::Open();
  const mgr::nft::Table other{socket.value(), table.substr(0, table.find("_v") + 1) + end};
  netns::MustRun("nft -f - <<END\ntable netdev " + other.name() +
                 " {\n chain port {\n  type filter hook ingress device \"port0\" priority -500\n"
                 "  ip saddr 10.0.0.0/8 accept\n  ip saddr 0.0.0.0/0 drop\n }\n}\nEND\n");
  mgr::nft::Batch batch;
  mgr::nft::Table{socket.value(), table}.Delete(batch);
  ASSERT_EQ(socket.value().Commit(std::move(batch)), 0);
}

class TakeOver : public testing::TestWithParam<Found> {
 protected:
  void SetUp() override {
    if (const auto reason = netns::Enter(netns::As::kRoot)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
    manager_.emplace(GetParam().plane);
    if (!manager_->Start()) GTEST_SKIP() << "the system does not allow the dataplane " << GetParam().plane;
    wire_.emplace("port0");
    ASSERT_TRUE(manager_->Submit(Configuration(100), true));
    ASSERT_TRUE(manager_->WaitForPorts("\"state\": 1")) << manager_->Log();
  }
  [[nodiscard]] std::string Bpf() const { return manager_->run_dir() + "/bpf"; }
  void KillAndDamage() {
    manager_->Kill();
    GetParam().damage(GetParam().plane == "tcx" ? Bpf() : Table());
  }
  /// One directory of maps and one attachment, or one table.
  void ExpectNothingLeftOver() {
    if (GetParam().plane == "nft") {
      EXPECT_THAT(Table(), testing::EndsWith("_" + NftLayout() + "_49152"));
      return;
    }
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator{Bpf()}) names.push_back(entry.path().filename());
    std::erase_if(names, [](const std::string& name) { return name.ends_with(".debug"); });  // of the kernel
    EXPECT_THAT(names, testing::UnorderedElementsAre("links", "v" + std::to_string(PLANE_LAYOUT) + "-49152"));
    EXPECT_EQ(Link(Bpf()), Bpf() + "/links/if-" + std::to_string(wire_->ifindex()));
    EXPECT_EQ(std::distance(fs::directory_iterator{Bpf() + "/links"}, {}), 1);
  }

  std::optional<ManagerUnderTest> manager_;
  std::optional<netns::Wire> wire_;
};

TEST_P(TakeOver, HoldsWhatIsEnforcedUntilTheCompleteConfigurationIs) {
  UnderTraffic traffic{*wire_};
  KillAndDamage();
  ASSERT_FALSE(HasFailure());
  traffic.Flow();
  ASSERT_TRUE(manager_->Start()) << manager_->Log();
  traffic.Flow();
  const std::string log = manager_->Log();
  EXPECT_THAT(log, testing::ContainsRegex("not read and not trusted: .*" + GetParam().logged));
  EXPECT_EQ(log.find("not an attachment") != std::string::npos, GetParam().name == "AttachmentsOfOtherNames") << log;
  // A part of the configuration opens or closes nothing.
  ASSERT_TRUE(manager_->Submit({EnablePort("port0"), Put("port0", 0, Ip("10.9.9.8"))}));
  traffic.Flow();
  std::vector<Request> configuration = Configuration(100, 1);
  configuration.push_back(Put("port0", 0, Ip("10.9.9.9")));
  ASSERT_TRUE(manager_->Submit(configuration, true));
  const auto all_in_force = testing::HasSubstr("104 of 104 entries in force");
  EXPECT_THAT(manager_->Ctl({"show", "status"}), all_in_force);
  traffic.ExpectAllAndOnlyAllowed();
  Probe probe{"port0", wire_->station()};
  EXPECT_EQ(probe.Passes(From("10.9.9.9")), true);
  EXPECT_EQ(probe.Passes(From("10.9.9.8")), false);
  EXPECT_EQ(probe.Passes(From("11.0.0.1", 1)), false) << "of the configuration before";
  ExpectNothingLeftOver();
  manager_->Kill();
  ASSERT_TRUE(manager_->Start()) << manager_->Log();
  EXPECT_THAT(manager_->Ctl({"show", "status"}), all_in_force) << "the new layout is readable";
}

TEST_P(TakeOver, OfAPortThatIsNoneAnyMoreEndsItsFilter) {
  KillAndDamage();
  ASSERT_FALSE(HasFailure());
  ASSERT_TRUE(manager_->Start()) << manager_->Log();
  Probe probe{"port0", wire_->station()};
  EXPECT_EQ(probe.Passes(From("192.0.2.1")), false);
  ASSERT_TRUE(manager_->Submit({EnablePort("port1")}, true));
  EXPECT_EQ(probe.Passes(From("192.0.2.1")), true);
}

TEST_P(TakeOver, OutlivesFurtherKillsUntilThen) {
  UnderTraffic traffic{*wire_};
  KillAndDamage();
  ASSERT_FALSE(HasFailure());
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(manager_->Start()) << manager_->Log();
    traffic.Flow();
    manager_->Kill();
  }
  ASSERT_TRUE(manager_->Start()) << manager_->Log();
  ASSERT_TRUE(manager_->Submit(Configuration(100), true));
  traffic.ExpectAllAndOnlyAllowed();
  ExpectNothingLeftOver();
}

const std::vector<Found> kFound{
    {"AnotherLayout", "tcx", [](const std::string& bpf) { fs::rename(Maps(bpf), bpf + "/v9-49152"); }, "/bpf/v9-49152"},
    {"AnotherLayoutThatIsNotComplete", "tcx",
     [](const std::string& bpf) { fs::rename(Maps(bpf), bpf + "/v9-49152-new"); }, "/bpf/v9-49152-new"},
    {"MapsUnderNamesOfNoLayout", "tcx",
     [](const std::string& bpf) {
       fs::create_directory(bpf + "/older");
       fs::rename(Maps(bpf), bpf + "/older/maps");
       fs::rename(bpf + "/links", bpf + "/older/links");
     },
     "/bpf/older"},
    {"AMapOfAnotherForm", "tcx", [](const std::string& bpf) { Replace(Maps(bpf) + "/entries", AnotherMap()); },
     "/bpf/v[0-9]*-49152/entries: a map of another form"},
    {"AMapOfAnotherFormThatIsNotComplete", "tcx",
     [](const std::string& bpf) {
       Replace(Maps(bpf) + "/ports", AnotherMap());
       fs::rename(Maps(bpf), Maps(bpf) + "-new");
     },
     "/bpf/v[0-9]*-49152-new/ports: a map of another form"},
    {"AProgramInPlaceOfAMap", "tcx", [](const std::string& bpf) { Replace(Maps(bpf) + "/records", AProgram()); },
     "/bpf/v[0-9]*-49152/records: not a map"},
    {"ADirectoryInPlaceOfAMap", "tcx",
     [](const std::string& bpf) {
       fs::remove(Maps(bpf) + "/counters");
       fs::create_directory(Maps(bpf) + "/counters");
     },
     "/bpf/v[0-9]*-49152/counters"},
    {"AMapThatIsMissing", "tcx", [](const std::string& bpf) { fs::remove(Maps(bpf) + "/violators"); },
     "/bpf/v[0-9]*-49152/violators: .*No such file"},
    {"NoMapsAtAll", "tcx", [](const std::string& bpf) { fs::remove_all(Maps(bpf)); }, "/bpf/links: .*no maps"},
    {"AttachmentsOfOtherNames", "tcx",
     [](const std::string& bpf) {
       fs::remove_all(Maps(bpf));
       fs::rename(Link(bpf), bpf + "/links/port0");
     },
     "/bpf/links/port0"},
    {"ATableOfAnotherLayout", "nft", [](const std::string& table) { OtherTable(table, "v9_100"); },
     "table netdev ip_spoofing_[0-9a-f]*_v9_100"},
    {"ATableOfThisLayoutWithoutItsSets", "nft",
     [](const std::string& table) { OtherTable(table, NftLayout() + "_100"); },
     "table netdev ip_spoofing_[0-9a-f]*_" + NftLayout() + "_100"},
};
INSTANTIATE_TEST_SUITE_P(Of, TakeOver, testing::ValuesIn(kFound), [](const auto& found) { return found.param.name; });

}  // namespace
}  // namespace kernel_test
