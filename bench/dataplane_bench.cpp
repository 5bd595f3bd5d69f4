// The forwarding plane: nanoseconds of a packet, packet rate of a port, and the programming of entries, each against
// its own floor in the same run. Needs root.
#include "dataplane_bench.h"

#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "dataplane/dataplanes.h"
#include "dataplane/tcx/bpf_fs.h"
#include "netns/netns.h"

namespace bench {

RunDir::RunDir() {
  char dir[] = "/tmp/dataplane-bench-XXXXXX";
  path_ = mkdtemp(dir) != nullptr ? dir : "";
}

RunDir::~RunDir() {
  mgr::tcx::UnmountBpfFs(path_ + "/bpf");
  std::filesystem::remove_all(path_);
}

BaselinePtr LoadBaseline(size_t slots) {
  BaselinePtr baseline{baseline_bpf__open()};
  bpf_map__set_max_entries(baseline->maps.bare, static_cast<uint32_t>(slots));
  if (baseline_bpf__load(baseline.get()) != 0) return nullptr;
  return baseline;
}

uint32_t SourceOf(size_t i) { return htonl(0x0A000000U + static_cast<uint32_t>(i)); }

std::vector<plane_entry_key> KeysOf(size_t count) {
  std::vector<plane_entry_key> keys(count);
  for (size_t i = 0; i < count; ++i) keys[i] = {kPort << 12, SourceOf(i)};
  return keys;
}

frames::Frame FrameFrom(uint32_t source_be) {
  return frames::FrameBuilder{{2, 0, 0, 0, 0, 1}}.With(frames::Ipv4{.source_be = source_be}).Pad(60);
}

bool UpdateInOneBatch(int map, const std::vector<plane_entry_key>& keys) {
  LIBBPF_OPTS(bpf_map_batch_opts, options);
  static std::vector<verdict_entry> values;
  if (values.size() < keys.size()) values.resize(keys.size());
  auto count = static_cast<uint32_t>(keys.size());
  return bpf_map_update_batch(map, keys.data(), values.data(), &count, &options) == 0;
}

bool DeleteInOneBatch(int map, const std::vector<plane_entry_key>& keys) {
  LIBBPF_OPTS(bpf_map_batch_opts, options);
  auto count = static_cast<uint32_t>(keys.size());
  return bpf_map_delete_batch(map, keys.data(), &count, &options) == 0;
}

}  // namespace bench

namespace {

/// What else runs here: the figures of a busy machine are ratios only.
void PrintLoad() {
  std::string load;
  std::getline(std::ifstream{"/proc/loadavg"}, load);
  std::printf("load average: %s\n", load.c_str());
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
  bench::Report report;
  for (const auto& part : {bench::PerPacket, bench::PacketRate, bench::Programming}) {
    PrintLoad();
    if (part(report)) continue;
    std::printf("skipped: the system does not allow the tcx dataplane\n");
    return 0;
  }
  PrintLoad();
  return report.ExitStatus();
}
