#include "dataplane/judge.h"

#include <algorithm>

#include "dataplane/verdict_text.h"

namespace mgr {

Judgement Judge(std::span<const uint8_t> frame, const std::optional<MetadataTag>& tag, const verdict_port& port,
                const FindEntry& find, Sight sight) {
  verdict_frame input{};
  input.data = frame.data();
  // As many bytes as the kernel program is sure to have at hand.
  input.data_end = frame.data() + std::min<size_t>(frame.size(), VERDICT_HEADER_BYTES);
  input.length = static_cast<uint32_t>(frame.size());
  input.tagged_length_hidden = static_cast<uint8_t>(sight == Sight::kNoTaggedLength);
  if (tag) {
    input.tag_present = 1;
    input.tag_tci = tag->tci;
    input.tag_protocol = tag->protocol;
  }
  Judgement judgement;
  verdict_parse(&input, &judgement.keys);
  verdict_entry entry{};
  if (verdict_wants_entry(&port, &judgement.keys) != 0) {
    judgement.entry = find(judgement.keys.vlan, judgement.keys.source_be);
    if (judgement.entry) entry = ToVerdictEntry(*judgement.entry, 0);
  }
  judgement.result = verdict_decide(&port, &judgement.keys, judgement.entry ? &entry : nullptr);
  return judgement;
}

}  // namespace mgr
