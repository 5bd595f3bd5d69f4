#pragma once

#include <bpf/libbpf.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "baseline.skel.h"
#include "dataplane/dataplane.h"
#include "dataplane/tcx/layout.h"
#include "frames/frame_builder.h"
#include "harness.h"

/// What the benchmarks of the forwarding plane share. Each is false when the system does not allow it.
namespace bench {

inline constexpr size_t kSizes[] = {24'576, 1'000'000};
inline constexpr uint32_t kPort = 1;

/// Nanoseconds that the kernel program needs for a frame, against an empty program with one look-up.
bool PerPacket(Report& report);
/// Frames a second into a port, with and without a filter.
bool PacketRate(Report& report);
/// Full sends and single adds through a manager process, against batch updates of a map alone.
bool Programming(Report& report);

/// A run directory of its own, removed with the bpffs in it.
class RunDir final {
 public:
  RunDir();
  RunDir(const RunDir&) = delete;
  RunDir& operator=(const RunDir&) = delete;
  ~RunDir();
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

struct DestroyBaseline {
  void operator()(baseline_bpf* skeleton) const { baseline_bpf__destroy(skeleton); }
};
using BaselinePtr = std::unique_ptr<baseline_bpf, DestroyBaseline>;
/// A bare map of the kind and element size of the entry map, and programs to compare with. Null when refused.
BaselinePtr LoadBaseline(size_t slots);

/// Of entry `i` on port kPort.
uint32_t SourceOf(size_t i);
std::vector<plane_entry_key> KeysOf(size_t count);
/// 60 bytes, untagged.
frames::Frame FrameFrom(uint32_t source_be);

/// Writes or removes all `keys` in one batch call, the fastest way that the kernel has; false when it refuses.
bool UpdateInOneBatch(int map, const std::vector<plane_entry_key>& keys);
bool DeleteInOneBatch(int map, const std::vector<plane_entry_key>& keys);

}  // namespace bench
