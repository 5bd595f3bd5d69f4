// Full sends and single adds through a manager process.
#include <bpf/bpf.h>

#include <algorithm>

#include "dataplane_bench.h"
#include "manager_under_test.h"
#include "netns/netns.h"

namespace bench {
namespace {

using kernel_test::ManagerUnderTest;
using kernel_test::Request;

constexpr size_t kAdds = 2000;

/// The span of a full send: from the client's first byte on the manager's socket to the manager's word, received by
/// the client, that everything is in force. The port is enabled and its filter attached before, for that is done once
/// in the life of an interface, and the map is empty.
///
/// The floor, "bare": one BPF_MAP_UPDATE_BATCH call with the same keys into an empty map of the same kind, element size
/// and number of slots, from arrays that are ready.
///
/// Both maps, and the memory of both processes, have been full once before. The two are measured in turn.
bool FullSend(Report& report, ManagerUnderTest& manager, const Request& enable, size_t size) {
  const int rounds = size > 100'000 ? 9 : 41;
  const BaselinePtr baseline = LoadBaseline(2 * size);
  if (baseline == nullptr) return false;
  const int bare_map = bpf_map__fd(baseline->maps.bare);
  const std::vector<plane_entry_key> keys = KeysOf(size);
  const std::vector<Request> nothing = {enable};
  std::vector<Request> everything = {enable};
  for (size_t i = 0; i < size; ++i) everything.push_back(kernel_test::Put("port0", 0, SourceOf(i)));

  std::vector<double> bare, full, ratios;
  for (int round = -1; round < rounds; ++round) {
    bool made = true;
    const double bare_time = TimeOf([&] { made = UpdateInOneBatch(bare_map, keys); });
    if (!made || !DeleteInOneBatch(bare_map, keys)) return false;
    const double full_time = TimeOf([&] { made = manager.Submit(everything, true); });
    if (!made || !manager.Submit(nothing, true)) return false;
    if (round < 0) continue;
    bare.push_back(bare_time);
    full.push_back(full_time);
    ratios.push_back(full_time / bare_time);
  }
  report.Figure("bare batch update", Median(bare) / 1000, "ms");
  report.Figure("full send", Median(full) / 1000, "ms");
  report.AtMost("full send against the bare batch update", Median(ratios), 1, 2);
  // The rest is measured with the entries in force.
  return manager.Submit(everything, true);
}

bool SingleAdds(Report& report, ManagerUnderTest& manager) {
  std::vector<double> adds;
  for (size_t i = 0; i < kAdds; ++i) {
    const std::vector<Request> add = {kernel_test::Put("port0", 7, SourceOf(i))};
    bool made = true;
    adds.push_back(TimeOf([&] { made = manager.Submit(add); }));
    if (!made) return false;
  }
  std::sort(adds.begin(), adds.end());
  report.Figure("one add, from the request to the word that it is in force, median", adds[adds.size() / 2], "us");
  report.Figure("one add, 99 of 100", adds[adds.size() * 99 / 100], "us");
  return true;
}

}  // namespace

bool Programming(Report& report) {
  const netns::Wire wire{"port0"};
  // One element, restarted with another capacity: interface ids belong to it, and this process has learnt them.
  ManagerUnderTest manager{"tcx"};
  const Request enable = kernel_test::EnablePort(wire.port());
  for (const size_t size : kSizes) {
    report.Heading("programming " + std::to_string(size) + " entries through the manager");
    if (!manager.Start({"--capacity", std::to_string(size + kAdds)}) || !manager.Submit({enable}, true)) return false;
    if (!FullSend(report, manager, enable, size) || !SingleAdds(report, manager)) return false;
    const std::string in_force = "\"entries-in-force\": " + std::to_string(size + kAdds);
    if (manager.Ctl({"show", "status", "--json"}).find(in_force) == std::string::npos) return false;
    if (manager.Stop() != 0) return false;
  }
  return true;
}

}  // namespace bench
