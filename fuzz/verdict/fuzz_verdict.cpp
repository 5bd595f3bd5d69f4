#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "dataplane/verdict.h"
#include "dataplane/verdict_text.h"
#include "frames/reference_verdict.h"
#include "input.h"

namespace {

verdict Judge(const fuzz::Input& input) {
  const auto size = input.frame.bytes.size();
  // Exactly as many bytes as the kernel program is sure to have at hand.
  const size_t at_hand = std::min<size_t>(size, VERDICT_HEADER_BYTES);
  const auto bytes = std::make_unique<uint8_t[]>(at_hand);
  std::copy_n(input.frame.bytes.begin(), at_hand, bytes.get());
  verdict_frame frame{};
  frame.data = bytes.get();
  frame.data_end = bytes.get() + at_hand;
  frame.length = static_cast<uint32_t>(size);
  if (input.frame.metadata_tag) {
    frame.tag_present = 1;
    frame.tag_tci = input.frame.metadata_tag->tci;
    frame.tag_protocol = input.frame.metadata_tag->protocol;
  }
  const verdict_port port{1, static_cast<uint8_t>(input.mode), static_cast<uint8_t>(input.monitor)};
  verdict_keys keys{};
  verdict_parse(&frame, &keys);
  verdict_entry found{};
  const verdict_entry* entry = nullptr;
  if (verdict_wants_entry(&port, &keys)) {
    for (const frames::Entry& allowed : frames::CorpusEntries()) {
      if (allowed.vlan != keys.vlan || allowed.source_be != keys.source_be) continue;
      found = mgr::ToVerdictEntry(allowed.mac.value_or(frames::Mac{}), 0);
      entry = &found;
    }
  }
  return verdict_decide(&port, &keys, entry);
}

void Require(bool holds, const char* what, const frames::Frame& frame) {
  if (holds) return;
  std::fprintf(stderr, "%s: %s\n", what, frames::Hex(frame.bytes).c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::optional<fuzz::Input> input = fuzz::Decode(data, size);
  if (!input) return 0;
  const verdict result = Judge(*input);
  const frames::Frame& frame = input->frame;
  const bool passes = result.drop == 0;
  if (input->mode == VERDICT_MODE_NONE || input->mode == VERDICT_MODE_IPV6_ALL)
    Require(!passes || !frames::IsSpoofedIpv4(frame, frames::CorpusEntries()), "a spoofed source passes", frame);
  const auto reference = frames::ReferenceVerdict(frame, true, input->mode, frames::CorpusEntries());
  Require(result.reason == reference.reason && result.row == reference.row, "differs from the reference", frame);
  Require(passes != frames::Drops(reference.reason), "the reason does not fit the verdict", frame);
  return 0;
}
