#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "ip_spoofing_mgr_client.h"

/// What the manager and its clients say to each other over the stream socket common::MgrSocketPath(). Both ends run on
/// one machine: integers are in host order.
///
///   client                               manager
///   kHello ----------------------------->
///          <----------------------------- kWelcome, or kError and the end
///   kBatch (one or more frames) -------->
///          <----------------------------- kAck, once everything of the batch is in force or waits with a reason
///   kListRequest ----------------------->
///          <----------------------------- kListRows (any number), kListEnd
namespace ip_spoofing_mgr::wire {

inline constexpr uint32_t kMagic = 0x49505331;
inline constexpr uint16_t kVersion = 1;
inline constexpr size_t kMaxPayload = size_t{1} << 20;
inline constexpr size_t kRequestsPerFrame = 4096;
inline constexpr size_t kRowsPerFrame = 4096;
inline constexpr size_t kMaxBatchRequests = size_t{1} << 22;

enum class FrameType : uint8_t {
  kHello = 1,
  kBatch = 2,
  kListRequest = 3,
  kWelcome = 16,
  kAck = 17,
  kListRows = 18,
  kListEnd = 19,
  kError = 20,
};

/// Why the manager ends a connection.
enum class ErrorCode : uint8_t {
  kProtocol = 1,      ///< the client said something that this version does not know
  kOtherVersion = 2,  ///< the two versions cannot work together
  kBusy = 3,          ///< another client configures, and this one would not take over
  kSuperseded = 4,    ///< another client took over
};

/// Whether a client becomes the configuring one although another is connected. A new process does; one that was
/// superseded does not, so that two of them do not fight for ever.
enum class TakeOver : uint8_t { kNo = 0, kYes = 1 };

struct Hello {
  uint64_t instance = 0;  ///< of the client process; differs from that of every other process
  TakeOver take_over = TakeOver::kYes;
  std::string name;  ///< of the process, for people
  bool operator==(const Hello&) const = default;
};

enum class RequestKind : uint8_t {
  kPort = 1,    ///< `value`: 1 enables the port, 0 disables it
  kMode = 2,    ///< `value`: an AllowedAllMode
  kPut = 3,     ///< adds the entry or replaces its MAC
  kRemove = 4,  ///< the MAC does not matter
};

/// One request about one object: a port's enable, a port's allow-all mode, or an entry (port, VLAN, address). Members
/// that the kind does not use are zero.
struct Request {
  uint32_t family = 0;       ///< 0: IPv4, 1: IPv6
  uint8_t address[16] = {};  ///< IPv4: the first 4 bytes, the rest zero
  limid_t limid = {};
  uint16_t vlan = 0;
  uint8_t mac[6] = {};
  RequestKind kind = RequestKind::kPort;
  uint8_t value = 0;
  uint8_t padding[2] = {};
};
static_assert(sizeof(Request) == 36 && std::has_unique_object_representations_v<Request>);
inline bool operator==(const Request& a, const Request& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

/// Order of the objects that two requests are about: negative, 0 (the same object) or positive.
int CompareObjects(const Request& a, const Request& b);

/// One frame of a batch; a batch ends with its first frame that is `last`.
struct BatchPart {
  uint64_t sequence = 0;
  bool full = false;  ///< the batch is the complete configuration: what it does not name shall be gone
  bool last = true;
  std::vector<Request> requests;
};

struct Failure {
  ErrorCode code = ErrorCode::kProtocol;
  std::string text;
};

struct ListEnd {
  uint32_t id = 0;
  uint32_t rows = 0;
};

/// Payloads. A Parse function gives nothing for a payload that is not exactly what Encode made, of this version.
std::string EncodeHello(const Hello& hello);
std::optional<Hello> ParseHello(std::string_view payload);
/// The version that a hello says, whatever follows it; nothing when it is no hello at all.
std::optional<uint16_t> HelloVersion(std::string_view payload);
std::string EncodeBatchPart(uint64_t sequence, bool full, bool last, std::span<const Request> requests);
std::optional<BatchPart> ParseBatchPart(std::string_view payload);
std::string EncodeId(uint32_t id);  ///< kListRequest
std::optional<uint32_t> ParseId(std::string_view payload);
std::string EncodeSequence(uint64_t sequence);  ///< kAck
std::optional<uint64_t> ParseSequence(std::string_view payload);
std::string EncodeRows(uint32_t id, std::span<const AllowedIpStatusEntry> rows);
/// Appends the rows to `*rows`. False, with nothing appended, when the payload is damaged.
bool ParseRows(std::string_view payload, uint32_t* id, std::vector<AllowedIpStatusEntry>* rows);
std::string EncodeListEnd(const ListEnd& end);
std::optional<ListEnd> ParseListEnd(std::string_view payload);
std::string EncodeFailure(const Failure& failure);
std::optional<Failure> ParseFailure(std::string_view payload);

}  // namespace ip_spoofing_mgr::wire
