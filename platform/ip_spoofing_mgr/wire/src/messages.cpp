#include "ip_spoofing_mgr_wire/messages.h"

#include "common/byte_io.h"

namespace ip_spoofing_mgr::wire {
namespace {

using common::ByteReader;
using common::ByteWriter;

/// The requests about entries have one object class between them.
int ObjectClass(const Request& request) {
  return request.kind == RequestKind::kRemove ? static_cast<int>(RequestKind::kPut) : static_cast<int>(request.kind);
}

template <class T>
int Compare(T a, T b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

bool IsRequestKind(RequestKind kind) { return kind >= RequestKind::kPort && kind <= RequestKind::kRemove; }

/// The records that fill the rest of the payload.
template <class Record>
std::optional<std::vector<Record>> Records(std::string_view bytes) {
  if (bytes.size() % sizeof(Record) != 0) return std::nullopt;
  std::vector<Record> records(bytes.size() / sizeof(Record));
  if (!bytes.empty()) std::memcpy(static_cast<void*>(records.data()), bytes.data(), bytes.size());
  return records;
}

}  // namespace

int CompareObjects(const Request& a, const Request& b) {
  if (const int by = Compare(ObjectClass(a), ObjectClass(b)); by != 0) return by;
  if (const int by = std::memcmp(&a.limid, &b.limid, sizeof a.limid); by != 0) return by;
  if (a.kind == RequestKind::kPort || a.kind == RequestKind::kMode) return 0;
  if (const int by = Compare(a.vlan, b.vlan); by != 0) return by;
  if (const int by = Compare(a.family, b.family); by != 0) return by;
  return std::memcmp(a.address, b.address, sizeof a.address);
}

std::string EncodeHello(const Hello& hello) {
  ByteWriter out;
  out.Put(kMagic);
  out.Put(kVersion);
  out.Put(hello.instance);
  out.Put(static_cast<uint8_t>(hello.take_over));
  out.PutString(hello.name);
  return out.Take();
}

std::optional<uint16_t> HelloVersion(std::string_view payload) {
  ByteReader in{payload};
  if (in.Get<uint32_t>() != kMagic) return std::nullopt;
  const auto version = in.Get<uint16_t>();
  return in.ok() ? std::optional{version} : std::nullopt;
}

std::optional<Hello> ParseHello(std::string_view payload) {
  if (HelloVersion(payload) != kVersion) return std::nullopt;
  ByteReader in{payload.substr(sizeof kMagic + sizeof kVersion)};
  Hello hello;
  hello.instance = in.Get<uint64_t>();
  const auto take_over = in.Get<uint8_t>();
  hello.name = in.GetString();
  if (!in.AtEnd() || take_over > 1) return std::nullopt;
  hello.take_over = static_cast<TakeOver>(take_over);
  return hello;
}

std::string EncodeBatchPart(uint64_t sequence, bool full, bool last, std::span<const Request> requests) {
  ByteWriter out;
  out.Put(sequence);
  out.Put(static_cast<uint8_t>(full));
  out.Put(static_cast<uint8_t>(last));
  out.PutBytes(requests.data(), requests.size_bytes());
  return out.Take();
}

std::optional<BatchPart> ParseBatchPart(std::string_view payload) {
  ByteReader in{payload};
  BatchPart part;
  part.sequence = in.Get<uint64_t>();
  part.full = in.Get<uint8_t>() != 0;
  part.last = in.Get<uint8_t>() != 0;
  if (!in.ok()) return std::nullopt;
  auto requests = Records<Request>(in.rest());
  if (!requests) return std::nullopt;
  for (const Request& request : *requests) {
    if (!IsRequestKind(request.kind)) return std::nullopt;
  }
  part.requests = std::move(*requests);
  return part;
}

std::string EncodeId(uint32_t id) {
  ByteWriter out;
  out.Put(id);
  return out.Take();
}

std::optional<uint32_t> ParseId(std::string_view payload) {
  ByteReader in{payload};
  const auto id = in.Get<uint32_t>();
  return in.AtEnd() ? std::optional{id} : std::nullopt;
}

std::string EncodeSequence(uint64_t sequence) {
  ByteWriter out;
  out.Put(sequence);
  return out.Take();
}

std::optional<uint64_t> ParseSequence(std::string_view payload) {
  ByteReader in{payload};
  const auto sequence = in.Get<uint64_t>();
  return in.AtEnd() ? std::optional{sequence} : std::nullopt;
}

std::string EncodeRows(uint32_t id, std::span<const AllowedIpStatusEntry> rows) {
  ByteWriter out;
  out.Put(id);
  out.PutBytes(rows.data(), rows.size_bytes());
  return out.Take();
}

bool ParseRows(std::string_view payload, uint32_t* id, std::vector<AllowedIpStatusEntry>* rows) {
  ByteReader in{payload};
  *id = in.Get<uint32_t>();
  if (!in.ok()) return false;
  const auto more = Records<AllowedIpStatusEntry>(in.rest());
  if (!more) return false;
  rows->insert(rows->end(), more->begin(), more->end());
  return true;
}

std::string EncodeListEnd(const ListEnd& end) {
  ByteWriter out;
  out.Put(end.id);
  out.Put(end.rows);
  return out.Take();
}

std::optional<ListEnd> ParseListEnd(std::string_view payload) {
  ByteReader in{payload};
  ListEnd end;
  end.id = in.Get<uint32_t>();
  end.rows = in.Get<uint32_t>();
  return in.AtEnd() ? std::optional{end} : std::nullopt;
}

std::string EncodeFailure(const Failure& failure) {
  ByteWriter out;
  out.Put(static_cast<uint8_t>(failure.code));
  out.PutString(failure.text);
  return out.Take();
}

std::optional<Failure> ParseFailure(std::string_view payload) {
  ByteReader in{payload};
  Failure failure;
  failure.code = static_cast<ErrorCode>(in.Get<uint8_t>());
  failure.text = in.GetString();
  return in.AtEnd() ? std::optional{failure} : std::nullopt;
}

}  // namespace ip_spoofing_mgr::wire
