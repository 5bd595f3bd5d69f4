#include "ip_spoofing_mgr_wire/messages.h"
#include "require.h"

namespace {

using namespace ip_spoofing_mgr::wire;
using fuzz::Require;

/// Flags may be any non-zero byte; everything else is written as it was read.
void ReadBatch(std::string_view payload) {
  const auto part = ParseBatchPart(payload);
  if (!part) return;
  const std::string written = EncodeBatchPart(part->sequence, part->full, part->last, part->requests);
  Require(written.size() == payload.size(), "a batch is written as long as it was read");
  const auto again = ParseBatchPart(written);
  Require(again && again->requests == part->requests && again->full == part->full && again->last == part->last,
          "and read as the same");
  for (const Request& request : part->requests)
    Require(CompareObjects(request, request) == 0, "a request is about its own object");
}

void ReadRows(std::string_view payload) {
  uint32_t id = 0;
  std::vector<ip_spoofing_mgr::AllowedIpStatusEntry> rows(1);
  if (!ParseRows(payload, &id, &rows)) {
    Require(rows.size() == 1, "nothing of a damaged payload is kept");
    return;
  }
  Require(EncodeRows(id, std::span{rows}.subspan(1)) == payload, "rows are written as they were read");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const std::string_view payload{reinterpret_cast<const char*>(data), size};
  if (const auto hello = ParseHello(payload)) {
    Require(HelloVersion(payload) == kVersion, "a hello says its version");
    Require(EncodeHello(*hello) == payload, "a hello is written as it was read");
  }
  ReadBatch(payload);
  ReadRows(payload);
  if (const auto id = ParseId(payload)) Require(EncodeId(*id) == payload, "an id is written as it was read");
  if (const auto sequence = ParseSequence(payload))
    Require(EncodeSequence(*sequence) == payload, "a sequence is written as it was read");
  if (const auto end = ParseListEnd(payload))
    Require(EncodeListEnd(*end) == payload, "an end is written as it was read");
  if (const auto failure = ParseFailure(payload))
    Require(EncodeFailure(*failure) == payload, "a failure is written as it was read");
  return 0;
}
