#include "ask.h"

#include <cstdio>
#include <utility>

#include "rpc_errors.h"

namespace cli {

ExitStatus Complain(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "ip-spoofing-cli: %s\n", text.c_str());
  return status;
}

namespace {

/// kRefused if one of the errors is more than a warning.
ExitStatus Report(const std::vector<RpcError>& errors) {
  ExitStatus status = kDone;
  for (const RpcError& error : errors) {
    Complain(kRefused, (error.warning ? "warning: " : "") + error.Text());
    if (!error.warning) status = kRefused;
  }
  return status;
}

common::Result<netconf::Client> Connect(const Target& target) {
  return netconf::Client::Connect(target.socket, target.limit);
}

ExitStatus NoSession(const common::Error& error) {
  return Complain(kUnreachable, "cannot open a session with the element: " + error.Text());
}

}  // namespace

Answer Ask(const Target& target, const std::string& operation, netconf::Client::SendProgress progress) {
  auto client = Connect(target);
  if (!client.ok()) return {NoSession(client.error()), nullptr};
  client.value().OnProgress(std::move(progress));
  const common::Result<std::string> text = client.value().Rpc(operation, target.limit);
  if (!text.ok()) return {Complain(kUnreachable, "no answer from the element: " + text.error().Text()), nullptr};
  auto reply = netconf::XmlDocument::Parse(text.value());
  if (!reply.ok()) {
    return {Complain(kUnreachable, "the element's answer is not XML: " + reply.error().Text()), nullptr};
  }
  return {kDone, std::move(reply).value()};
}

Data AskForData(const Target& target, const std::string& operation) {
  Answer answer = Ask(target, operation);
  if (answer.reply == nullptr) return {answer.status, nullptr, nullptr};
  if (const ExitStatus status = Report(RpcErrors(answer.reply->root())); status != kDone)
    return {status, nullptr, nullptr};
  const netconf::XmlElement* data = answer.reply->root().Child(netconf::kBaseNs, "data");
  if (data == nullptr) return {Complain(kUnreachable, "the element's answer has no data"), nullptr, nullptr};
  return {kDone, std::move(answer.reply), data};
}

ExitStatus AskForData(const Target& target, const std::string& operation, DataReader& reader) {
  auto client = Connect(target);
  if (!client.ok()) return NoSession(client.error());
  ReplyReader reply{reader};
  netconf::XmlReader xml{reply};
  common::Status parsed = common::Ok();
  const common::Status received = client.value().RpcInPieces(operation, target.limit, [&](std::string_view piece) {
    parsed = xml.Add(piece);
    return parsed.ok();
  });
  if (parsed && received) parsed = xml.Finish();
  if (!parsed) return Complain(kUnreachable, "the element's answer is not XML: " + parsed.error().Text());
  if (!received) return Complain(kUnreachable, "no answer from the element: " + received.error().Text());
  if (const ExitStatus status = Report(reply.errors()); status != kDone) return status;
  if (!reply.has_data()) return Complain(kUnreachable, "the element's answer has no data");
  reader.OnComplete();
  return kDone;
}

}  // namespace cli
