// The forwarding plane: nanoseconds of a packet, packet rate of a port, and the programming of entries, each against
// its own floor in the same run. Needs root.
#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include "baseline.skel.h"
#include "dataplane/dataplanes.h"
#include "dataplane/tcx/bpf_fs.h"
#include "dataplane/tcx/layout.h"
#include "dataplane/tcx/maps.h"
#include "dataplane/tcx/tcx_object.h"
#include "dataplane/verdict_text.h"
#include "harness.h"
#include "manager_under_test.h"
#include "netns/netns.h"
#include "traffic.h"

namespace {

using bench::Report;
using frames::Frame;

constexpr uint32_t kLoopback = 1;
constexpr uint32_t kPort = 1;
constexpr int kRuns = 5;
constexpr uint32_t kRepeat = 1'000'000;
constexpr size_t kSizes[] = {24'576, 1'000'000};

struct Baseline {
  void operator()(baseline_bpf* skeleton) const { baseline_bpf__destroy(skeleton); }
};
using BaselinePtr = std::unique_ptr<baseline_bpf, Baseline>;

class RunDir final {
 public:
  RunDir() {
    char dir[] = "/tmp/dataplane-bench-XXXXXX";
    path_ = mkdtemp(dir) != nullptr ? dir : "";
  }
  RunDir(const RunDir&) = delete;
  RunDir& operator=(const RunDir&) = delete;
  ~RunDir() {
    mgr::tcx::UnmountBpfFs(path_ + "/bpf");
    std::filesystem::remove_all(path_);
  }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

uint32_t SourceOf(size_t i) { return htonl(0x0A000000U + static_cast<uint32_t>(i)); }

Frame FrameFrom(uint32_t source_be) {
  return frames::FrameBuilder{{2, 0, 0, 0, 0, 1}}.With(frames::Ipv4{.source_be = source_be}).Pad(60);
}

std::vector<mgr::Entry> Entries(size_t count) {
  std::vector<mgr::Entry> entries(count);
  for (size_t i = 0; i < count; ++i) entries[i].key = {kPort, 0, SourceOf(i)};
  return entries;
}

/// Median nanoseconds of one run of `program` on `frame`.
double NanosecondsOf(int program, const Frame& frame) {
  std::vector<double> runs;
  for (int i = 0; i < kRuns; ++i) {
    __sk_buff context{};
    context.ifindex = kLoopback;
    LIBBPF_OPTS(bpf_test_run_opts, options, .data_in = frame.bytes.data(),
                .data_size_in = static_cast<uint32_t>(frame.bytes.size()), .ctx_in = &context,
                .ctx_size_in = sizeof context, .repeat = kRepeat);
    if (bpf_prog_test_run_opts(program, &options) != 0) return 0;
    runs.push_back(options.duration);
  }
  return bench::Median(runs);
}

BaselinePtr LoadBaseline(size_t slots) {
  BaselinePtr baseline{baseline_bpf__open()};
  bpf_map__set_max_entries(baseline->maps.bare, static_cast<uint32_t>(slots));
  if (baseline_bpf__load(baseline.get()) != 0) return nullptr;
  return baseline;
}

/// Microseconds of writing `count` entries into the bare map with batch updates alone.
double BareUpdate(const baseline_bpf& baseline, size_t count) {
  std::vector<plane_entry_key> keys(count);
  const std::vector<verdict_entry> values(count);
  for (size_t i = 0; i < count; ++i) keys[i] = {kPort << 12, SourceOf(i)};
  return bench::TimeOf([&] {
    mgr::tcx::UpdateAll(bpf_map__fd(baseline.maps.bare), keys.data(), sizeof keys[0], values.data(), sizeof values[0],
                        count, [](size_t, int) {});
  });
}

bool PerPacket(Report& report) {
  for (const size_t size : kSizes) {
    report.Heading("nanoseconds of a packet, " + std::to_string(size) + " entries");
    const RunDir dir;
    auto mount = mgr::tcx::MountBpfFs(dir.path());
    if (!mount.ok()) return false;
    auto object = mgr::tcx::Object::Load(mount.value(), static_cast<uint32_t>(2 * size));
    const BaselinePtr baseline = LoadBaseline(2 * size);
    if (!object.ok() || baseline == nullptr) return false;
    BareUpdate(*baseline, size);
    std::vector<plane_entry_key> keys(size);
    const std::vector<verdict_entry> values(size);
    for (size_t i = 0; i < size; ++i) keys[i] = {kPort << 12, SourceOf(i)};
    mgr::tcx::UpdateAll(object.value().entries(), keys.data(), sizeof keys[0], values.data(), sizeof values[0], size,
                        [](size_t, int) {});
    const plane_port port{kPort, {1, VERDICT_MODE_NONE, 0}, 0};
    bpf_map_update_elem(object.value().ports(), &kLoopback, &port, BPF_ANY);
    baseline->bss->wanted_port_vlan = kPort << 12;
    baseline->bss->wanted_source_be = SourceOf(size / 2);

    const Frame allowed = FrameFrom(SourceOf(size / 2));
    const Frame other = frames::FrameBuilder{{2, 0, 0, 0, 0, 1}}.Type(0x88cc);
    const double empty = NanosecondsOf(bpf_program__fd(baseline->progs.empty), allowed);
    const double look_up = NanosecondsOf(bpf_program__fd(baseline->progs.look_up), allowed);
    const double hit = NanosecondsOf(object.value().program(), allowed);
    report.Figure("an empty program", empty, "ns");
    report.Figure("an empty program and one look-up", look_up, "ns");
    report.Figure("a frame that is not IP", NanosecondsOf(object.value().program(), other), "ns");
    report.Figure("an allowed source", hit, "ns");
    report.Figure("a source without an entry", NanosecondsOf(object.value().program(), FrameFrom(htonl(0xC0000201))),
                  "ns");
    report.AtMost("an allowed source against one look-up", hit, look_up, 1.3);
  }
  return true;
}

/// Frames a second into a port, with `plane` (null: no filter) in front of it.
double Rate(const netns::Wire& wire, mgr::Dataplane* plane) {
  if (plane != nullptr) {
    mgr::Changes changes;
    changes.puts = Entries(24'576);
    mgr::PortConfig port{kPort, wire.port(), wire.ifindex(), true};
    changes.ports = {port};
    if (!plane->Apply(changes).empty()) return 0;
  }
  std::vector<Frame> frames;
  for (size_t i = 0; i < 1024; ++i) frames.push_back(FrameFrom(SourceOf(i * 24)));
  double rate = 0;
  {
    kernel_test::Traffic traffic{wire.station(), frames};
    kernel_test::WaitForRounds(traffic, 20);
    const uint64_t before = traffic.Rounds();
    const double time = bench::TimeOf([&] { kernel_test::WaitForRounds(traffic, 100); });
    rate = static_cast<double>((traffic.Rounds() - before) * frames.size()) / time * 1e6;
  }
  if (plane != nullptr && !plane->RemoveEverything().ok()) return 0;
  return rate;
}

bool PacketRate(Report& report) {
  report.Heading("frames a second into a port, 24,576 entries");
  const netns::Wire wire{"port0"};
  std::map<std::string, std::vector<double>> rates;
  for (int run = 0; run < 3 * kRuns; ++run) {
    rates["no filter"].push_back(Rate(wire, nullptr));
    for (const mgr::DataplaneKind& kind : mgr::DataplaneKinds()) {
      if (kind.name == "memory") continue;
      const RunDir dir;
      auto plane = kind.open({.run_dir = dir.path()});
      if (!plane.ok() || !plane.value()->TakeOver().ok()) return false;
      rates[std::string{kind.name}].push_back(Rate(wire, plane.value().get()));
    }
  }
  // The best of each: other load on the machine only ever takes away.
  const auto best = [&rates](const std::string& name) {
    return *std::max_element(rates[name].begin(), rates[name].end());
  };
  for (const auto& [name, values] : rates) report.Figure(name, best(name) / 1000, "thousand/s");
  report.AtLeast("tcx against no filter", best("tcx"), best("no filter"), 0.88);
  return true;
}

bool Programming(Report& report) {
  for (const size_t size : kSizes) {
    report.Heading("milliseconds of programming " + std::to_string(size) + " entries");
    std::vector<double> bare, plane_times;
    const std::vector<mgr::Entry> entries = Entries(size);
    for (int run = 0; run < kRuns; ++run) {
      const BaselinePtr baseline = LoadBaseline(2 * size);
      if (baseline == nullptr) return false;
      bare.push_back(BareUpdate(*baseline, size));
      const RunDir dir;
      const mgr::DataplaneOptions options{.run_dir = dir.path(), .capacity = size};
      auto plane = mgr::DataplaneKinds().front().open(options);
      if (!plane.ok() || !plane.value()->TakeOver().ok()) return false;
      mgr::Changes changes;
      changes.puts = entries;
      plane_times.push_back(bench::TimeOf([&] { plane.value()->Apply(changes); }));
      if (!plane.value()->RemoveEverything().ok()) return false;
    }
    report.Figure("bare batch updates", bench::Median(bare) / 1000, "ms");
    report.Figure("the dataplane", bench::Median(plane_times) / 1000, "ms");
    report.AtMost("the dataplane against bare batch updates", bench::Median(plane_times), bench::Median(bare), 2);
  }
  return true;
}

bool ThroughTheManager(Report& report) {
  report.Heading("the manager process, from a client's request to its acknowledgement");
  const netns::Wire wire{"port1"};
  for (const size_t size : kSizes) {
    kernel_test::ManagerUnderTest manager{"tcx"};
    if (!manager.Start({"--hold", "0", "--capacity", std::to_string(size + 2000)})) return false;
    std::vector<kernel_test::Request> full = {kernel_test::EnablePort("port1")};
    for (size_t i = 0; i < size; ++i) full.push_back(kernel_test::Put("port1", 0, SourceOf(i)));
    report.Figure("a full send of " + std::to_string(size),
                  bench::TimeOf([&] { (void)manager.Submit(full, true); }) / 1000, "ms");
    std::vector<double> adds;
    for (size_t i = 0; i < 1000; ++i) {
      const std::vector<kernel_test::Request> add = {kernel_test::Put("port1", 7, SourceOf(i))};
      adds.push_back(bench::TimeOf([&] { (void)manager.Submit(add); }));
    }
    std::sort(adds.begin(), adds.end());
    report.Figure("one add, median", adds[adds.size() / 2], "us");
    report.Figure("one add, 99 of 100", adds[adds.size() * 99 / 100], "us");
  }
  return true;
}

}  // namespace

int main() {
  if (const auto reason = netns::Enter(netns::As::kRoot)) {
    std::printf("skipped: no network namespace of its own: %s\n", reason->c_str());
    return 0;
  }
  if (!mgr::DataplaneKinds().front().name.starts_with("tcx")) {
    std::printf("skipped: this build has no tcx dataplane\n");
    return 0;
  }
  Report report;
  for (const auto& part : {PerPacket, PacketRate, Programming, ThroughTheManager}) {
    if (part(report)) continue;
    std::printf("skipped: the system does not allow the tcx dataplane\n");
    return 0;
  }
  return report.ExitStatus();
}
