#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "dataplane/judge.h"
#include "frames/reference_verdict.h"
#include "input.h"

namespace {

verdict Judge(const fuzz::Input& input) {
  // A copy that ends where its allocation ends.
  const auto size = input.frame.bytes.size();
  const auto bytes = std::make_unique<uint8_t[]>(size);
  std::copy(input.frame.bytes.begin(), input.frame.bytes.end(), bytes.get());
  std::optional<mgr::MetadataTag> tag;
  if (const auto& held = input.frame.metadata_tag) tag = mgr::MetadataTag{held->tci, held->protocol};
  const verdict_port port{1, static_cast<uint8_t>(input.mode), static_cast<uint8_t>(input.monitor)};
  return mgr::Judge({bytes.get(), size}, tag, port,
                    [](uint16_t vlan, uint32_t source_be) -> std::optional<mgr::MacAddress> {
                      for (const frames::Entry& allowed : frames::CorpusEntries())
                        if (allowed.vlan == vlan && allowed.source_be == source_be)
                          return allowed.mac.value_or(mgr::MacAddress{});
                      return std::nullopt;
                    })
      .result;
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
