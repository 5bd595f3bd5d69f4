#include <gtest/gtest.h>
#include <signal.h>

#include <functional>

#include "dataplane/nft/layout.h"
#include "dataplane/nft/port_rules.h"
#include "dataplane/nft/table.h"
#include "guard_under_test.h"
#include "traffic.h"

/// Other programs change the manager's table. It is made again at once, and told.
namespace kernel_test {
namespace {

using frames::Ip;
using netns::MustRun;
using nlohmann::json;

/// What another program does to the table of that name, in which `port0` is the port 1.
struct Change {
  std::string name;
  std::function<void(const std::string& table)> make;
  std::string told;  ///< in the log and the status
};
void PrintTo(const Change& change, std::ostream* out) { *out << change.name; }

/// Over a socket of its own, as another program would. Not with the command nft, whose old versions cannot name sets of
/// raw bytes.
void Commit(const std::string& name, const std::function<void(const mgr::nft::Table&, mgr::nft::Batch&)>& fill) {
  auto socket = mgr::nft::Socket::Open();
  ASSERT_TRUE(socket.ok());
  const mgr::nft::Table table{socket.value(), name};
  mgr::nft::Batch batch;
  fill(table, batch);
  ASSERT_EQ(socket.value().Commit(std::move(batch)), 0);
}

const std::vector<Change>& AllChanges() {
  using mgr::nft::Batch;
  using mgr::nft::Table;
  static const mgr::EntryKey kTwo{1, 0, Ip("10.0.0.2")}, kForeign{1, 0, Ip("192.0.2.66")};
  static const std::vector<Change> kChanges = {
      {"FlushRuleset", [](const std::string&) { MustRun("nft flush ruleset"); }, "1 table deleted"},
      {"DeleteTable", [](const std::string& table) { MustRun("nft delete table netdev " + table); }, "table deleted"},
      {"MakeTableDormant",
       [](const std::string& table) { MustRun("nft add table netdev " + table + " '{ flags dormant; }'"); },
       "table added or changed"},
      {"FlushChain", [](const std::string& table) { MustRun("nft flush chain netdev " + table + " port1"); },
       "rule deleted"},
      {"DeleteChain",
       [](const std::string& table) {
         MustRun("nft flush chain netdev " + table + " port1; nft delete chain netdev " + table + " port1");
       },
       "deleted"},
      {"InsertRule", [](const std::string& table) { MustRun("nft insert rule netdev " + table + " port1 accept"); },
       "1 rule added"},
      {"AddChain",
       [](const std::string& table) {
         MustRun("nft add chain netdev " + table +
                 " other '{ type filter hook ingress device port0 priority -600; policy drop; }'");
       },
       "1 chain added"},
      {"DeleteElement",
       [](const std::string& table) {
         Commit(table,
                [](const Table& t, Batch& b) { t.DeleteElements(b, mgr::nft::kAnyMac, {mgr::nft::KeyElement(kTwo)}); });
       },
       "1 set element deleted"},
      {"AddElement",
       [](const std::string& table) {
         Commit(table, [](const Table& t, Batch& b) {
           t.AddElements(b, mgr::nft::kAnyMac, {mgr::nft::KeyElement(kForeign)});
         });
       },
       "1 set element added"},
  };
  return kChanges;
}

class GuardNftProcess : public GuardUnderTest {
 protected:
  GuardNftProcess() : GuardUnderTest{"nft"} {}
  [[nodiscard]] static std::string TableName() {
    auto socket = mgr::nft::Socket::Open();
    const auto names = mgr::nft::Table::Names(socket.value());
    for (const std::string& name : names.value())
      if (name.starts_with("ip_spoofing_")) return name;
    return "";
  }
};

class GuardNft : public GuardNftProcess, public testing::WithParamInterface<Change> {};

TEST_P(GuardNft, PutsTheTableBackAndTellsSo) {
  const std::string table = TableName();
  GetParam().make(table);
  ASSERT_TRUE(WaitForRepairs(1)) << manager_->Log();
  ExpectJudged();
  EXPECT_EQ(GuardStatus().value("intact", false), true);
  ExpectTold(table);
  ExpectTold(GetParam().told);
  ExpectTold("put back");
}

INSTANTIATE_TEST_SUITE_P(Changes, GuardNft, testing::ValuesIn(AllChanges()),
                         [](const auto& change) { return change.param.name; });

class GuardNftTraffic : public GuardNft {};

/// The frames that pass meanwhile are counted and shown, not bounded: the machine is shared.
TEST_P(GuardNftTraffic, ClosesThePortAgain) {
  PassedFrames allowed{"port0", 10}, spoofed{"port0", 192};
  const auto frame = [](const char* source) { return From(source); };
  Traffic traffic{wire_->station(), {frame("10.0.0.1"), frame("192.0.2.66")}};
  constexpr int kTimes = 20;
  const std::string table = TableName();
  const auto begin = std::chrono::steady_clock::now();
  const uint64_t first = traffic.Rounds();
  for (uint64_t i = 1; i <= kTimes; ++i) {
    GetParam().make(table);
    ASSERT_TRUE(WaitForRepairs(i)) << manager_->Log();
  }
  const double per_second = static_cast<double>(traffic.Rounds() - first) /
                            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  const uint64_t passed = spoofed.Count();
  WaitForRounds(traffic, 2000);
  EXPECT_EQ(spoofed.Count(), passed) << "spoofed frames pass after the table was put back";
  traffic.Stop();
  std::printf("  %s: %.1f spoofed frames passed each time, for %.2f ms at %.0f frames a second\n",
              GetParam().name.c_str(), static_cast<double>(passed) / kTimes,
              1000.0 * static_cast<double>(passed) / kTimes / per_second, per_second);
}

INSTANTIATE_TEST_SUITE_P(Changes, GuardNftTraffic, testing::Values(AllChanges()[0], AllChanges()[5]),
                         [](const auto& change) { return change.param.name; });

TEST_F(GuardNftProcess, TakesNoChangeOfItsOwnForAForeignOne) {
  std::vector<Request> all = {EnablePort("port0")};
  for (uint32_t i = 0; i < 20'000; ++i) all.push_back(Put("port0", 5, __builtin_bswap32(0x0A000000 + i)));
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(manager_->Submit(all, true));
    ASSERT_TRUE(manager_->Submit({PortMode("port0", 2), Remove("port0", 5, Ip("10.0.0.9"))}));
  }
  MustRun(
      "nft add table ip foreign; nft add chain ip foreign c; nft add rule ip foreign c accept; nft flush table ip "
      "foreign");
  const json guard = GuardStatus();
  EXPECT_EQ(guard.value("repairs", uint64_t{1}), 0U) << guard << manager_->Log();
  EXPECT_EQ(guard.value("intact", false), true) << guard;
}

TEST_F(GuardNftProcess, ComparesEverythingAfterLostEvents) {
  const std::string table = TableName();
  // More notifications than the socket has room for while the process stands still, the change among them.
  ASSERT_EQ(kill(manager_->pid(), SIGSTOP), 0);
  MustRun("nft add table netdev noise; nft add set netdev noise s '{ type ipv4_addr; }'");
  std::string elements;
  for (int i = 0; i < 60'000; ++i)
    elements += (i == 0 ? "" : ",") + std::string{"10."} + std::to_string(i >> 16) + "." +
                std::to_string(i >> 8 & 255) + "." + std::to_string(i & 255);
  const std::string file = manager_->root() + "/noise.nft";
  {
    std::FILE* out = std::fopen(file.c_str(), "w");
    ASSERT_NE(out, nullptr);
    for (int round = 0; round < 2; ++round)
      std::fprintf(out, "add element netdev noise s { %s }\nflush set netdev noise s\n", elements.c_str());
    std::fclose(out);
  }
  MustRun("nft -f " + file + " && nft -f " + file);
  AllChanges()[7].make(table);
  ASSERT_EQ(kill(manager_->pid(), SIGCONT), 0);
  ASSERT_TRUE(WaitForRepairs(1)) << manager_->Log();
  EXPECT_NE(manager_->Log().find("set any_mac has 1 elements, not 2"), std::string::npos) << manager_->Log();
  ExpectJudged();
}

}  // namespace
}  // namespace kernel_test
