#include <vector>

#include "netconf/framing.h"
#include "require.h"

namespace {

using namespace netconf;

constexpr size_t kMaxMessage = 64;

struct Outcome {
  std::vector<std::string> messages;
  bool failed = false;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

/// What comes out of a stream that arrives in pieces of `piece` bytes.
Outcome Read(Framing framing, std::string_view stream, size_t piece) {
  FrameDecoder decoder(kMaxMessage);
  decoder.SetFraming(framing);
  Outcome outcome;
  while (!stream.empty()) {
    decoder.Append(stream.substr(0, piece));
    stream.remove_prefix(std::min(piece, stream.size()));
    std::string message;
    FrameDecoder::Status status = decoder.Next(&message);
    for (; status == FrameDecoder::Status::kMessage; status = decoder.Next(&message)) {
      fuzz::Require(message.size() <= kMaxMessage, "no message is larger than the largest");
      outcome.messages.push_back(message);
    }
    if (status != FrameDecoder::Status::kError) continue;
    fuzz::Require(!decoder.error().empty(), "an error says why");
    outcome.failed = true;
    break;
  }
  return outcome;
}

}  // namespace

/// The first byte: framing and size of the pieces; the rest: the stream.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  if (size == 0) return 0;
  const Framing framing = (data[0] & 1) != 0 ? Framing::kChunked : Framing::kEndOfMessage;
  const size_t piece = 1 + (data[0] >> 1) % 16;
  const std::string_view stream{reinterpret_cast<const char*>(data) + 1, size - 1};
  const Outcome outcome = Read(framing, stream, piece);
  fuzz::Require(outcome == Read(framing, stream, stream.size()), "it does not matter in which pieces it arrives");
  if (framing == Framing::kEndOfMessage) return 0;
  std::string written;
  for (const std::string& message : outcome.messages) AppendFrame(framing, message, &written);
  fuzz::Require(Read(framing, written, piece).messages == outcome.messages, "what was read can be written and read");
  return 0;
}
