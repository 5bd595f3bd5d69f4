#include "load.h"

#include <cstdio>

#include "config_file.h"
#include "models.h"
#include "netconf/client.h"
#include "rpc_errors.h"

namespace cli {
namespace {

ExitStatus Complain(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "ip-spoofing-cli: %s\n", text.c_str());
  return status;
}

std::string EditConfig(const ConfigFile& file, LoadMode mode) {
  std::string operation = "<edit-config><target><running/></target><default-operation>";
  operation += mode == LoadMode::kReplace ? "replace" : "merge";
  operation += "</default-operation><error-option>rollback-on-error</error-option><config>";
  operation += file.Content();
  operation += "</config></edit-config>";
  return operation;
}

/// kRefused when one of the reply's errors is more than a warning.
ExitStatus Report(const ConfigFile& file, const netconf::XmlElement& reply) {
  ExitStatus status = kDone;
  for (const RpcError& error : RpcErrors(reply)) {
    const std::string place = error.path.empty() ? file.path() : file.Place(error.path);
    const std::string text = place + ": " + (error.warning ? "warning: " : "") + error.Text();
    const ExitStatus told = Complain(error.warning ? kDone : kRefused, text);
    if (status == kDone) status = told;
  }
  return status;
}

}  // namespace

ExitStatus Load(const Target& target, const std::string& file_name, LoadMode mode, Progress::Show show) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  Progress progress{show};
  progress.Say("checking " + file_name);
  const common::Result<Models> models = LoadModels(target.models_dir);
  if (!models.ok()) return Complain(kBadFile, models.error().Text());
  const common::Result<ConfigFile> file = ConfigFile::Read(file_name, *models.value());
  progress.Clear();
  if (!file.ok()) return Complain(kBadFile, file.error().Text());

  auto client = netconf::Client::Connect(target.socket, target.limit);
  if (!client.ok()) return Complain(kUnreachable, "the element is not running: " + client.error().Text());
  client.value().OnProgress([&](size_t sent, size_t total) {
    if (sent < total) return progress.Bytes("sending", sent, total);
    progress.Say("committing " + std::to_string(file.value().list_entries()) + " list entries");
  });
  const common::Result<std::string> reply = client.value().Rpc(EditConfig(file.value(), mode), target.limit);
  progress.Clear();
  if (!reply.ok()) return Complain(kUnreachable, "no answer from the element: " + reply.error().Text());
  const auto document = netconf::XmlDocument::Parse(reply.value());
  if (!document.ok()) return Complain(kUnreachable, "the element's answer is not XML: " + document.error().Text());
  if (const ExitStatus status = Report(file.value(), document.value()->root()); status != kDone) return status;

  std::printf("%s: %zu list entries %s in %.2f s\n", file_name.c_str(), file.value().list_entries(),
              mode == LoadMode::kReplace ? "put in place of the configuration" : "merged into the configuration",
              std::chrono::duration<double>(Clock::now() - start).count());
  return kDone;
}

}  // namespace cli
