#include <CLI/CLI.hpp>

#include "common/number_range.h"
#include "common/paths.h"
#include "common/version.h"
#include "load.h"
#include "show_allowed_ip.h"
#include "show_commits.h"
#include "show_config.h"
#include "show_subscribers.h"

namespace {

constexpr const char* kFooter =
    "Exit status: 0 done, 1 the element refused it, 2 wrong command line, 3 the file is unreadable or does not fit\n"
    "the data models (nothing was changed), 4 the element is down or did not answer in time.";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"The operator's command line of the element: a NETCONF client of its configuration database."};
  app.footer(kFooter);
  app.set_version_flag("--version", std::string{"ip-spoofing-cli "} + common::Version());
  app.require_subcommand(1);
  cli::Target target{common::NetconfSocketPath(), common::ModelsDir(), {}};
  double seconds = 300;
  app.add_option("--socket", target.socket, "NETCONF socket of the element")->capture_default_str();
  app.add_option("--models", target.models_dir, "folder of the YANG modules")->capture_default_str();
  app.add_option("--timeout", seconds, "seconds to wait for an answer")
      ->check(common::NumberFrom(0.001, 86'400.0))
      ->capture_default_str();

  CLI::App* load = app.add_subcommand("load", "Commit the configuration of a file, in one transaction");
  std::string file;
  bool replace = false;
  bool always_progress = false;
  std::optional<std::string> comment;
  load->add_option("FILE", file, "configuration as XML")->required();
  load->add_flag("--replace", replace, "take the place of the whole configuration instead of adding to it");
  load->add_option("--comment", comment, "what to say about it in the journal of commits, at most 255 characters");
  load->add_flag("--progress", always_progress, "say how far it is, also when standard error is not a terminal");

  CLI::App* show = app.add_subcommand("show", "Show what the element holds");
  show->require_subcommand(1);
  bool json = false;
  bool xml = false;
  const auto add_formats = [&](CLI::App* command) {
    CLI::Option* as_json = command->add_flag("--json", json, "as JSON");
    command->add_flag("--xml", xml, "as XML")->excludes(as_json);
  };
  add_formats(show->add_subcommand("config", "The running configuration; its XML can be loaded again"));
  CLI::App* subscribers = show->add_subcommand("subscribers", "Who is told of commits, and how far each is");
  add_formats(subscribers);
  CLI::App* commits = show->add_subcommand("commits", "The last commits: when, by whom, why, and what they did");
  add_formats(commits);
  CLI::App* allowed_ip = show->add_subcommand("allowed-ip", "The sources that the element knows, and what is in force");
  add_formats(allowed_ip);
  std::string interface;
  CLI::App* of_interface = allowed_ip->add_subcommand("interface", "Those of one interface");
  of_interface->add_option("NAME", interface, "its name")->required();
  of_interface->fallthrough();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? cli::kDone : cli::kBadUsage;
  }
  target.limit = std::chrono::milliseconds{static_cast<int64_t>(seconds * 1000)};
  const cli::Format format = json ? cli::Format::kJson : xml ? cli::Format::kXml : cli::Format::kTable;
  if (allowed_ip->parsed()) return cli::ShowAllowedIp(target, interface, format);
  if (commits->parsed()) return cli::ShowCommits(target, format);
  if (subscribers->parsed()) return cli::ShowSubscribers(target, format);
  if (show->parsed()) return cli::ShowConfig(target, format);
  return cli::Load(target, file, replace ? cli::LoadMode::kReplace : cli::LoadMode::kMerge, comment,
                   always_progress ? cli::Progress::Show::kAlways : cli::Progress::Show::kOnTerminal);
}
