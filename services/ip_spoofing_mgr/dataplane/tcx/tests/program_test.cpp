#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <linux/pkt_cls.h>
#include <stdlib.h>

#include <map>
#include <numeric>

#include "dataplane/tcx/events.h"
#include "dataplane/tcx/layout.h"
#include "dataplane/tcx/maps.h"
#include "dataplane/tcx/tcx_object.h"
#include "dataplane/verdict_text.h"
#include "frames/verdict_corpus.h"
#include "netns/netns.h"

/// The kernel program itself, run on frames without any interface.
namespace {

using frames::VerdictRow;

constexpr uint32_t kPort = 7;
constexpr uint32_t kLoopback = 1;
constexpr size_t kEthernetHeader = 14;
constexpr size_t kIpv4Header = 20;

/// Tags in metadata, frames without a payload and short frames of the IPv4 type cannot be given to a run; real wires
/// have them.
bool CanBeRun(const frames::Frame& frame) {
  const frames::Bytes& bytes = frame.bytes;
  if (frame.metadata_tag || bytes.size() <= kEthernetHeader) return false;
  return bytes[12] != 0x08 || bytes[13] != 0x00 || bytes.size() >= kEthernetHeader + kIpv4Header;
}

class TcxProgram : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = netns::Enter(netns::As::kRoot)) GTEST_SKIP() << "needs CAP_SYS_ADMIN: " << *reason;
    char dir[] = "/tmp/tcx-program-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    run_dir_ = dir;
    auto mount = mgr::tcx::MountBpfFs(run_dir_);
    if (!mount.ok()) GTEST_SKIP() << "no bpffs: " << mount.error().Text();
    mount_ = mount.value();
    auto object = mgr::tcx::Object::Load(mount_, 64);
    if (!object.ok()) GTEST_SKIP() << "the kernel does not load the program: " << object.error().Text();
    object_.emplace(std::move(object).value());
    for (const frames::Entry& entry : frames::CorpusEntries()) {
      const plane_entry_key key{kPort << 12 | entry.vlan, entry.source_be};
      const verdict_entry value = mgr::ToVerdictEntry(entry.mac.value_or(frames::Mac{}), 0);
      ASSERT_EQ(bpf_map_update_elem(object_->entries(), &key, &value, BPF_ANY), 0);
    }
  }
  void TearDown() override {
    if (!mount_.empty()) mgr::tcx::UnmountBpfFs(mount_);
    if (!run_dir_.empty()) rmdir(run_dir_.c_str());
  }

  void SetPort(bool enabled, verdict_mode mode, bool monitor) {
    const plane_port port{
        kPort, {static_cast<uint8_t>(enabled), static_cast<uint8_t>(mode), static_cast<uint8_t>(monitor)}, 0};
    ASSERT_EQ(bpf_map_update_elem(object_->ports(), &kLoopback, &port, BPF_ANY), 0);
  }

  /// What the program returns, or nothing where the kernel does not take the frame for a run.
  std::optional<int> Judge(const frames::Bytes& bytes) {
    __sk_buff context{};
    context.ifindex = kLoopback;
    LIBBPF_OPTS(bpf_test_run_opts, options, .data_in = bytes.data(),
                .data_size_in = static_cast<uint32_t>(bytes.size()), .ctx_in = &context, .ctx_size_in = sizeof context);
    if (bpf_prog_test_run_opts(object_->program(), &options) != 0) return std::nullopt;
    return static_cast<int>(options.retval);
  }

  /// The counters of the port that are not zero, by cell.
  std::map<uint32_t, uint64_t> Counters() {
    std::map<uint32_t, uint64_t> counters;
    std::vector<uint64_t> per_cpu(static_cast<size_t>(libbpf_num_possible_cpus()));
    for (uint32_t i = 0; i < PLANE_CELLS_PER_PORT; ++i) {
      const uint32_t cell = PLANE_CELL(kPort, 0, i);
      EXPECT_EQ(bpf_map_lookup_elem(object_->counters(), &cell, per_cpu.data()), 0);
      if (const auto sum = std::accumulate(per_cpu.begin(), per_cpu.end(), uint64_t{0}); sum != 0) counters[i] = sum;
      std::fill(per_cpu.begin(), per_cpu.end(), 0);
      bpf_map_update_elem(object_->counters(), &cell, per_cpu.data(), BPF_ANY);
    }
    return counters;
  }

  std::string run_dir_, mount_;
  std::optional<mgr::tcx::Object> object_;
};

TEST_F(TcxProgram, JudgesAndCountsTheCorpusAsTheTableSays) {
  size_t judged = 0;
  for (const bool monitor : {false, true}) {
    for (const VerdictRow& row : frames::VerdictCorpus()) {
      if (!CanBeRun(row.frame)) continue;
      SetPort(row.enabled, row.mode, monitor);
      const bool drop = frames::Drops(row.reason);
      EXPECT_EQ(Judge(row.frame.bytes), drop && !monitor ? TC_ACT_SHOT : TC_ACT_UNSPEC) << row.name;
      std::map<uint32_t, uint64_t> expected;
      if (row.enabled) expected[row.reason + (drop && monitor ? VERDICT_REASONS : 0)] = 1;
      EXPECT_EQ(Counters(), expected) << row.name;
      ++judged;
    }
  }
  EXPECT_GT(judged, 300U);
}

TEST_F(TcxProgram, DropsWhereThePortCannotBeLookedUpAndPassesWhatIsNoPort) {
  const frames::Bytes spoofed =
      frames::FrameBuilder{frames::kStation}.With(frames::Ipv4{.source_be = frames::Ip("192.0.2.66")}).Build().bytes;
  const plane_port none{};
  ASSERT_EQ(bpf_map_update_elem(object_->ports(), &kLoopback, &none, BPF_ANY), 0);
  EXPECT_EQ(Judge(spoofed), TC_ACT_UNSPEC);
  SetPort(true, VERDICT_MODE_NONE, false);
  EXPECT_EQ(Judge(spoofed), TC_ACT_SHOT);
}

TEST_F(TcxProgram, ListsViolatorsAndReportsAtMostTwentyDropsASecond) {
  SetPort(true, VERDICT_MODE_NONE, false);
  mgr::tcx::Events events;
  ASSERT_TRUE(events.Open(object_->events()).ok());
  const frames::Frame spoofed =
      frames::FrameBuilder{frames::kStation}.VlanTag(100).With(frames::Ipv4{.source_be = frames::Ip("192.0.2.66")});
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(Judge(spoofed.bytes), TC_ACT_SHOT);

  auto dump = mgr::tcx::DumpAll<plane_violator_key, plane_violator>(object_->violators());
  ASSERT_TRUE(dump.ok());
  ASSERT_EQ(dump.value().keys.size(), 1U);
  const plane_violator_key& key = dump.value().keys[0];
  EXPECT_EQ(key.port_vlan, kPort << 12 | 100U);
  EXPECT_EQ(key.source_be, frames::Ip("192.0.2.66"));
  EXPECT_EQ(mgr::FromVerdictMac(key.mac), frames::kStation);
  EXPECT_EQ(key.reason, VERDICT_NO_ENTRY);
  EXPECT_EQ(dump.value().values[0].frames, 1000U);
  EXPECT_EQ(dump.value().values[0].ethertype, 0x0800);
  EXPECT_LE(dump.value().values[0].first_ns, dump.value().values[0].last_ns);

  const std::vector<mgr::Drop> drops = events.Read();
  ASSERT_FALSE(drops.empty());
  // A run may cross a second or change the CPU; each of them has an allowance of its own.
  EXPECT_LE(drops.size(), 4U * PLANE_EVENTS_PER_SECOND);
  EXPECT_EQ(drops[0].port, kPort);
  EXPECT_EQ(drops[0].vlan, 100);
  EXPECT_EQ(drops[0].reason, "no-entry");
  EXPECT_EQ(drops[0].source_be, frames::Ip("192.0.2.66"));
}

TEST_F(TcxProgram, AFloodOfDistinctSourcesKeepsTheTableOfViolatorsBounded) {
  SetPort(true, VERDICT_MODE_NONE, false);
  for (uint32_t i = 0; i < 5 * PLANE_VIOLATORS; ++i) {
    const frames::Frame spoofed =
        frames::FrameBuilder{frames::kStation}.With(frames::Ipv4{.source_be = htonl(0xC6120000U + i)});
    ASSERT_EQ(Judge(spoofed.bytes), TC_ACT_SHOT);
  }
  auto dump = mgr::tcx::DumpAll<plane_violator_key, plane_violator>(object_->violators());
  ASSERT_TRUE(dump.ok());
  EXPECT_LE(dump.value().keys.size(), size_t{PLANE_VIOLATORS});
  EXPECT_GT(dump.value().keys.size(), size_t{PLANE_VIOLATORS / 4});
}

}  // namespace
