#include "netconf/client.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "common/socket_io.h"
#include "common/unix_socket.h"
#include "netconf/xml.h"

namespace netconf {
namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kMaxReply = size_t{2} << 30;
constexpr const char* kBase10 = "urn:ietf:params:netconf:base:1.0";
constexpr const char* kBase11 = "urn:ietf:params:netconf:base:1.1";

}  // namespace

Client::Client(common::UniqueFd fd) : fd_{std::move(fd)}, decoder_{kMaxReply} {}

common::Result<Client> Client::ConnectRaw(const std::string& socket_path) {
  auto fd = common::ConnectUnix(socket_path, SOCK_STREAM | SOCK_NONBLOCK);
  if (!fd) return fd.error();
  return Client{std::move(fd).value()};
}

common::Result<Client> Client::Connect(const std::string& socket_path, Duration limit, bool base_1_1) {
  auto client = ConnectRaw(socket_path);
  if (!client) return client;
  if (const common::Status hello = client.value().Hello(limit, base_1_1); !hello) return hello.error();
  return client;
}

common::Status Client::Hello(Duration limit, bool base_1_1) {
  std::string hello =
      "<hello xmlns=\"" + std::string{kBaseNs} + "\"><capabilities><capability>" + kBase10 + "</capability>";
  if (base_1_1) hello += std::string{"<capability>"} + kBase11 + "</capability>";
  hello += "</capabilities></hello>";
  const common::Status sent = Send(hello, limit);
  const auto answer = Receive(sent ? limit : Duration{0});
  if (!answer) return sent ? answer.error() : sent.error();
  const auto document = XmlDocument::Parse(answer.value());
  if (!document) return document.error();
  const XmlElement& root = document.value()->root();
  if (const XmlElement* refusal = root.Child(kBaseNs, "rpc-error"); refusal != nullptr) {
    const XmlElement* message = refusal->Child(kBaseNs, "error-message");
    return common::Error{"", "", std::string{message != nullptr ? Trim(message->text) : "refused by the server"}};
  }
  const XmlElement* list = root.Is(kBaseNs, "hello") ? root.Child(kBaseNs, "capabilities") : nullptr;
  const XmlElement* id = root.Child(kBaseNs, "session-id");
  if (list == nullptr || id == nullptr) return common::Error{"hello", "", "the server sent no hello"};
  session_id_ = Trim(id->text);
  for (const XmlElement* c = list->first_child; c != nullptr; c = c->next) capabilities_.emplace_back(Trim(c->text));
  if (base_1_1 && std::find(capabilities_.begin(), capabilities_.end(), kBase11) != capabilities_.end())
    decoder_.SetFraming(Framing::kChunked);
  return common::Ok();
}

std::string Client::RpcMessage(std::string_view operation) {
  std::string message;
  message.reserve(operation.size() + 128);
  message.append("<rpc message-id=\"").append(std::to_string(next_id_++)).append("\" xmlns=\"").append(kBaseNs);
  message.append("\">").append(operation).append("</rpc>");
  return message;
}

common::Result<std::string> Client::Rpc(std::string_view operation, Duration limit) {
  if (const common::Status sent = Send(RpcMessage(operation), limit); !sent) {
    auto parting = Receive(Duration{0});
    if (parting.ok()) return parting;
    return sent.error();
  }
  return Receive(limit);
}

common::Status Client::RpcInPieces(std::string_view operation, Duration limit,
                                   const std::function<bool(std::string_view piece)>& on_piece) {
  if (const common::Status sent = Send(RpcMessage(operation), limit); !sent) return sent;
  bool wanted = true;
  const auto last = ReceiveInParts(limit, [&](const std::string& part) { return wanted = on_piece(part); });
  if (!last) return last.error();
  if (wanted) on_piece(last.value());
  return common::Ok();
}

common::Status Client::Send(std::string_view message, Duration limit) {
  std::string framed;
  framed.reserve(message.size() + 32);
  AppendFrame(decoder_.framing(), message, &framed);
  return SendBytes(framed, limit);
}

common::Status Client::SendBytes(std::string_view bytes, Duration limit) {
  const auto deadline = Clock::now() + limit;
  const size_t total = bytes.size();
  while (!bytes.empty()) {
    const common::IoOutcome outcome = common::SendNow(fd_.get(), bytes);
    if (outcome.kind == common::IoOutcome::Kind::kFailed) {
      return common::SystemError("send", "", outcome.system_error);
    }
    bytes.remove_prefix(outcome.size);
    if (progress_ && outcome.size > 0) progress_(total - bytes.size(), total);
    if (outcome.kind != common::IoOutcome::Kind::kWouldBlock) continue;
    if (const common::Status ready = common::WaitReady(fd_.get(), POLLOUT, deadline); !ready) return ready;
  }
  return common::Ok();
}

common::Result<std::string> Client::Receive(Duration limit) { return ReceiveInParts(limit, nullptr); }

common::Result<std::string> Client::ReceiveInParts(Duration limit,
                                                   const std::function<bool(const std::string& part)>& on_part) {
  const auto deadline = Clock::now() + limit;
  std::string message;
  std::string buffer(65536, '\0');
  while (true) {
    const FrameDecoder::Status status = decoder_.Next(&message);
    if (status == FrameDecoder::Status::kMessage) return message;
    if (status == FrameDecoder::Status::kError) {
      return common::Error{"receive", "", decoder_.error(), common::ErrorCode::kDamaged};
    }
    if (on_part != nullptr) {
      if (const std::string part = decoder_.TakePart(); !part.empty() && !on_part(part)) return std::string{};
    }
    const common::IoOutcome outcome = common::ReceiveNow(fd_.get(), buffer.data(), buffer.size());
    switch (outcome.kind) {
      case common::IoOutcome::Kind::kBytes:
        decoder_.Append({buffer.data(), outcome.size});
        break;
      case common::IoOutcome::Kind::kWouldBlock:
        if (const common::Status ready = common::WaitReady(fd_.get(), POLLIN, deadline); !ready) return ready.error();
        break;
      case common::IoOutcome::Kind::kEnd:
        return common::Error{"receive", "", "the peer closed the connection", common::ErrorCode::kClosed};
      case common::IoOutcome::Kind::kFailed:
        return common::SystemError("receive", "", outcome.system_error);
    }
  }
}

}  // namespace netconf
