#include "ask.h"

#include <cstdio>
#include <utility>

#include "rpc_errors.h"

namespace cli {

ExitStatus Complain(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "ip-spoofing-cli: %s\n", text.c_str());
  return status;
}

Answer Ask(const Target& target, const std::string& operation, netconf::Client::SendProgress progress) {
  auto client = netconf::Client::Connect(target.socket, target.limit);
  if (!client.ok()) {
    return {Complain(kUnreachable, "cannot open a session with the element: " + client.error().Text()), nullptr};
  }
  client.value().OnProgress(std::move(progress));
  const common::Result<std::string> text = client.value().Rpc(operation, target.limit);
  if (!text.ok()) return {Complain(kUnreachable, "no answer from the element: " + text.error().Text()), nullptr};
  auto reply = netconf::XmlDocument::Parse(text.value());
  if (!reply.ok()) {
    return {Complain(kUnreachable, "the element's answer is no XML: " + reply.error().Text()), nullptr};
  }
  return {kDone, std::move(reply).value()};
}

Data AskForData(const Target& target, const std::string& operation) {
  Answer answer = Ask(target, operation);
  if (answer.reply == nullptr) return {answer.status, nullptr, nullptr};
  ExitStatus status = kDone;
  for (const RpcError& error : RpcErrors(answer.reply->root())) {
    Complain(kRefused, (error.warning ? "warning: " : "") + error.Text());
    if (!error.warning) status = kRefused;
  }
  if (status != kDone) return {status, nullptr, nullptr};
  const netconf::XmlElement* data = answer.reply->root().Child(netconf::kBaseNs, "data");
  if (data == nullptr) return {Complain(kUnreachable, "the element's answer has no data"), nullptr, nullptr};
  return {kDone, std::move(answer.reply), data};
}

}  // namespace cli
