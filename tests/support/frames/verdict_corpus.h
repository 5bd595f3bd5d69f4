#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dataplane/verdict.h"
#include "frames/frame_builder.h"

/// The verdict table as rows: one frame, the state of the port it arrives on, and what must come of it. Every way of
/// judging a frame (the shared function, the kernel program, real ports) runs the same rows.
namespace frames {

/// An allowed source of the port under test.
struct Entry {
  uint16_t vlan = 0;
  uint32_t source_be = 0;
  std::optional<Mac> mac{};
};

struct VerdictRow {
  std::string name;
  verdict_mode mode = VERDICT_MODE_NONE;
  Frame frame;
  verdict_reason reason = VERDICT_NON_IP;
  verdict_row row = VERDICT_ROW_NON_IP;
  bool enabled = true;
};

inline constexpr Mac kStation = {0x02, 0, 0, 0, 0, 0x0a};
inline constexpr Mac kOtherStation = {0x02, 0, 0, 0, 0, 0x0b};

/// True for the reasons that drop, on a port that is not in monitor mode.
bool Drops(verdict_reason reason);

/// The entries that every row is judged with.
const std::vector<Entry>& CorpusEntries();

/// The rows, in the order of the table. Each row whose frame is tagged in its bytes is followed by its twin, which has
/// the first tag in metadata instead and the same verdict; names are unique.
const std::vector<VerdictRow>& VerdictCorpus();

}  // namespace frames
