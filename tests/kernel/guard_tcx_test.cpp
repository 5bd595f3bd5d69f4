#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <linux/pkt_cls.h>
#include <net/if.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "common/unique_fd.h"
#include "guard_under_test.h"

/// Programs of others on a port, and attachments that others remove.
namespace kernel_test {
namespace {

using netns::MustRun;
using nlohmann::json;

constexpr auto kTcxIngress = static_cast<bpf_attach_type>(46);
enum class At : uint32_t { kEnd = 0, kBegin = 1U << 3U };  // BPF_F_BEFORE

/// A program with that verdict on every frame of more than `longer_than` bytes, and none on the others.
common::UniqueFd MakeProgram(int verdict, int longer_than = 0, bpf_prog_type type = BPF_PROG_TYPE_SCHED_CLS) {
  const std::vector<bpf_insn> code = {
      {.code = BPF_LDX | BPF_MEM | BPF_W, .dst_reg = 2, .src_reg = 1, .off = 0, .imm = 0},
      {.code = BPF_ALU64 | BPF_MOV | BPF_K, .dst_reg = 0, .src_reg = 0, .off = 0, .imm = verdict},
      {.code = BPF_JMP | BPF_JGT | BPF_K, .dst_reg = 2, .src_reg = 0, .off = 1, .imm = longer_than},
      {.code = BPF_ALU64 | BPF_MOV | BPF_K, .dst_reg = 0, .src_reg = 0, .off = 0, .imm = -1},
      {.code = BPF_JMP | BPF_EXIT, .dst_reg = 0, .src_reg = 0, .off = 0, .imm = 0},
  };
  const std::vector<bpf_insn> constant = {code[1], code[4]};
  const auto& chosen = type == BPF_PROG_TYPE_SCHED_CLS ? code : constant;
  common::UniqueFd program{bpf_prog_load(type, "foreign", "GPL", chosen.data(), chosen.size(), nullptr)};
  EXPECT_TRUE(program) << std::strerror(errno);
  return program;
}

common::UniqueFd AttachTo(const std::string& port, int program, At at) {
  LIBBPF_OPTS(bpf_link_create_opts, options, .flags = static_cast<uint32_t>(at));
  common::UniqueFd link{
      bpf_link_create(program, static_cast<int>(if_nametoindex(port.c_str())), kTcxIngress, &options)};
  EXPECT_TRUE(link) << std::strerror(errno);
  return link;
}

class GuardTcx : public GuardUnderTest {
 protected:
  GuardTcx() : GuardUnderTest{"tcx"} {}
  [[nodiscard]] std::string Pin() const {
    return std::filesystem::directory_iterator { manager_->run_dir() + "/bpf/links" } -> path();
  }
};

TEST_F(GuardTcx, MovesBeforeAProgramThatCameFirst) {
  const auto program = MakeProgram(TC_ACT_OK);
  const auto link = AttachTo("port0", program.get(), At::kBegin);
  ASSERT_TRUE(WaitForRepairs(1)) << manager_->Log();
  ExpectJudged();
  ExpectTold("program foreign (id ");
  EXPECT_EQ(GuardStatus().value("intact", false), true);
  // The filter outlives the manager where it stands now, and is moved once more by the next one.
  manager_->Kill();
  ExpectJudged();
  ASSERT_TRUE(manager_->Start());
  const auto second = MakeProgram(TC_ACT_OK);
  const auto second_link = AttachTo("port0", second.get(), At::kBegin);
  ASSERT_TRUE(WaitForRepairs(1)) << manager_->Log();
  ExpectJudged();
}

TEST_F(GuardTcx, MovesAsOftenAsItMust) {
  std::vector<common::UniqueFd> kept;
  for (uint64_t i = 1; i <= 4; ++i) {
    kept.push_back(MakeProgram(TC_ACT_OK));
    kept.push_back(AttachTo("port0", kept.back().get(), At::kBegin));
    ASSERT_TRUE(WaitForRepairs(i)) << manager_->Log();
    ExpectJudged();
  }
}

TEST_F(GuardTcx, LeavesProgramsAfterItWorking) {
  const auto program = MakeProgram(TC_ACT_SHOT, 200);
  const auto link = AttachTo("port0", program.get(), At::kEnd);
  ExpectJudged();
  Probe probe{"port0", wire_->station()};
  frames::Frame large = frames::FrameBuilder{{2, 0, 0, 0, 0, 0x0a}}
                            .With(frames::Ipv4{.source_be = frames::Ip("10.0.0.1")})
                            .Pad(400)
                            .Build();
  EXPECT_EQ(probe.Passes(large), false) << "the program after the filter does not see what the filter passes";
  EXPECT_EQ(GuardStatus().value("repairs", uint64_t{1}), 0U);
}

TEST_F(GuardTcx, ReportsAPortWhereItCannotStandFirst) {
  std::vector<common::UniqueFd> kept;
  for (int i = 0; i < 61; ++i) {
    kept.push_back(MakeProgram(-1));
    kept.push_back(AttachTo("port0", kept.back().get(), At::kEnd));
  }
  auto first = MakeProgram(TC_ACT_OK);
  auto link = AttachTo("port0", first.get(), At::kBegin);  // the hook is full now
  ASSERT_TRUE(manager_->WaitForPorts("stands before the filter")) << manager_->Log();
  EXPECT_TRUE(manager_->WaitForPorts("\"state\": 0"));
  const json guard = GuardStatus();
  EXPECT_EQ(guard.value("intact", true), false) << guard;
  EXPECT_EQ(guard.value("ports-unguarded", 0), 1) << guard;
  const auto status = manager_->Watch({"show", "status"});
  EXPECT_EQ(status->Wait(std::chrono::seconds{20}), 3);
  EXPECT_NE(status->Output().find("GUARD NOT INTACT"), std::string::npos) << status->Output();
  link.reset();
  ASSERT_TRUE(manager_->WaitForPorts("\"state\": 1")) << manager_->Log();
  ExpectJudged();
}

TEST_F(GuardTcx, AttachesAgainWhenItsLinkIsDetached) {
  MustRun("bpftool link detach pinned " + Pin());
  ASSERT_TRUE(WaitForRepairs(1)) << manager_->Log();
  ExpectJudged();
  ExpectTold("port port0: the filter was detached");
  manager_->Kill();
  ExpectJudged();
}

TEST_F(GuardTcx, CannotBeDetachedAsAProgram) {
  uint32_t ids[64] = {}, count = 64, flags = 0;
  const int ifindex = static_cast<int>(wire_->ifindex());
  ASSERT_EQ(bpf_prog_query(ifindex, kTcxIngress, 0, &flags, ids, &count), 0);
  ASSERT_EQ(count, 1U);
  const common::UniqueFd program{bpf_prog_get_fd_by_id(ids[0])};
  EXPECT_NE(bpf_prog_detach2(program.get(), ifindex, kTcxIngress), 0);
  ExpectJudged();
}

TEST_F(GuardTcx, PinsAgainWhatWasUnpinned) {
  const std::string pin = Pin();
  ASSERT_EQ(unlink(pin.c_str()), 0);
  ASSERT_TRUE(WaitForRepairs(1)) << manager_->Log();
  ExpectTold("the pin of its filter was removed");
  EXPECT_EQ(Pin(), pin);
  manager_->Kill();
  ExpectJudged();
}

class GuardTcxSecond : public GuardTcx {
 protected:
  void PreparePort() override {
    program_ = MakeProgram(TC_ACT_OK);
    link_ = AttachTo("port0", program_.get(), At::kEnd);
  }
  common::UniqueFd program_, link_;
};

TEST_F(GuardTcxSecond, StandsBeforeAProgramThatWasThere) {
  ExpectJudged();
  EXPECT_EQ(GuardStatus().value("repairs", uint64_t{1}), 0U);
}

TEST_F(GuardTcx, JudgesBeforeAClsactProgram) {
  const auto program = MakeProgram(TC_ACT_OK);
  LIBBPF_OPTS(bpf_tc_hook, hook, .ifindex = static_cast<int>(wire_->ifindex()), .attach_point = BPF_TC_INGRESS);
  LIBBPF_OPTS(bpf_tc_opts, options, .prog_fd = program.get(), .handle = 1, .priority = 1);
  ASSERT_EQ(bpf_tc_hook_create(&hook), 0);
  ASSERT_EQ(bpf_tc_attach(&hook, &options), 0);
  ExpectJudged();
  EXPECT_EQ(GuardStatus().value("intact", false), true);
}

TEST_F(GuardTcx, JudgesWhatAnXdpProgramPasses) {
  constexpr int kXdpPass = 2, kGeneric = 1 << 1;
  const auto program = MakeProgram(kXdpPass, 0, BPF_PROG_TYPE_XDP);
  ASSERT_EQ(bpf_xdp_attach(static_cast<int>(wire_->ifindex()), program.get(), kGeneric, nullptr), 0);
  ExpectJudged();
}

}  // namespace
}  // namespace kernel_test
