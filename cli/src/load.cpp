#include "load.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "config_file.h"
#include "models.h"
#include "rpc_errors.h"

namespace cli {
namespace {

std::string EditConfig(const ConfigFile& file, LoadMode mode, const std::optional<std::string>& comment) {
  std::string operation = "<edit-config><target><running/></target><default-operation>";
  operation += mode == LoadMode::kReplace ? "replace" : "merge";
  operation += "</default-operation><error-option>rollback-on-error</error-option>";
  operation += file.Config();
  if (comment) netconf::AppendTextElement("comment", " xmlns=\"urn:ip-spoofing:cdb-monitor\"", *comment, &operation);
  operation += "</edit-config>";
  return operation;
}

/// kRefused if one of the reply's errors is more than a warning, kBadFile if that is the file's fault.
ExitStatus Report(const ConfigFile& file, const ly_ctx& models, const netconf::XmlElement& reply) {
  const std::vector<RpcError> errors = RpcErrors(reply);
  const bool refused = std::any_of(errors.begin(), errors.end(), [](const RpcError& error) { return !error.warning; });
  if (refused) {
    // The file is checked only now, for a good one it would take longer than to load it. This finds the exact line.
    if (const common::Status checked = file.Check(models); !checked) return Complain(kBadFile, checked.error().Text());
  }
  ExitStatus status = kDone;
  for (const RpcError& error : errors) {
    const std::string place = error.path.empty() ? file.path() : file.Place(error.path);
    const std::string text = place + ": " + (error.warning ? "warning: " : "") + error.Text();
    const ExitStatus told = Complain(error.warning ? kDone : kRefused, text);
    if (status == kDone) status = told;
  }
  return status;
}

}  // namespace

ExitStatus Load(const Target& target, const std::string& file_name, LoadMode mode,
                const std::optional<std::string>& comment, Progress::Show show) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  Progress progress{show};
  progress.Say("checking " + file_name);
  const common::Result<Models> models = LoadModels(target.models_dir);
  if (!models.ok()) return Complain(kBadFile, models.error().Text());
  const common::Result<ConfigFile> file = ConfigFile::Read(file_name, *models.value());
  progress.Clear();
  if (!file.ok()) return Complain(kBadFile, file.error().Text());

  const Answer answer = Ask(target, EditConfig(file.value(), mode, comment), [&](size_t sent, size_t total) {
    if (sent < total) return progress.Bytes("sending", sent, total);
    progress.Say("committing " + std::to_string(file.value().list_entries()) + " list entries");
  });
  progress.Clear();
  if (answer.reply == nullptr) return answer.status;
  if (const ExitStatus status = Report(file.value(), *models.value(), answer.reply->root()); status != kDone)
    return status;

  std::printf("%s: %zu list entries %s in %.2f s\n", file_name.c_str(), file.value().list_entries(),
              mode == LoadMode::kReplace ? "put in place of the configuration" : "merged into the configuration",
              std::chrono::duration<double>(Clock::now() - start).count());
  return kDone;
}

}  // namespace cli
