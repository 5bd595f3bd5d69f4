#include <malloc.h>

#include <CLI/CLI.hpp>
#include <utility>

#include "app/database_server.h"
#include "common/number_range.h"
#include "common/paths.h"
#include "common/version.h"
#include "service_main/service_main.h"

int main(int argc, char** argv) {
  cdbd::ServerOptions options;
  std::string log_level = "info";
  size_t max_message_mib = options.netconf.max_message >> 20;
  size_t max_unsent_kib = options.netconf.max_unsent >> 10;
  size_t map_mib = options.map_size >> 20;
  double hello_limit = 10;
  double subscriber_limit = 30;
  double provider_limit = 120;

  const CLI::Validator time_limit = common::NumberFrom(0.001, 86'400.0);
  CLI::App app{
      "The configuration database: keeps the configuration, serves it over NETCONF on a Unix socket, and "
      "tells programs of every change.",
      "cdbd"};
  app.set_version_flag("--version", std::string{"cdbd "} + common::Version());
  app.add_option("--run-dir", options.run_dir, "Directory of the sockets")->envname(common::kRunDirVariable);
  app.add_option("--state-dir", options.state_dir, "Directory of the database")->envname(common::kStateDirVariable);
  app.add_option("--models", options.model.directories, "Directory of YANG modules; may be given more than once")
      ->envname(common::kModelsDirVariable);
  app.add_option("--model", options.model.modules,
                 "YANG module to serve; may be given more than once. Without it every module of the directories");
  app.add_option("--max-sessions", options.netconf.max_sessions, "NETCONF sessions at a time")
      ->capture_default_str()
      ->check(common::NumberFrom<size_t>(1, 10'000));
  app.add_option("--max-message", max_message_mib, "Largest NETCONF message, MiB")
      ->capture_default_str()
      ->check(common::NumberFrom<size_t>(1, 2'000));
  app.add_option("--max-unsent", max_unsent_kib, "Answers a peer may leave unread before it is not read, KiB")
      ->capture_default_str()
      ->check(common::NumberFrom<size_t>(1, 1'048'576));
  app.add_option("--hello-timeout", hello_limit, "Seconds for a peer's <hello>")
      ->capture_default_str()
      ->check(time_limit);
  app.add_option("--subscriber-timeout", subscriber_limit, "Seconds for a subscriber to take in a commit")
      ->capture_default_str()
      ->check(time_limit);
  app.add_option("--provider-timeout", provider_limit, "Seconds for a data provider to answer a request")
      ->capture_default_str()
      ->check(time_limit);
  app.add_option("--database-size", map_mib, "Upper bound of the database file, MiB")
      ->capture_default_str()
      ->check(common::NumberFrom<size_t>(1, 16'777'216));
  app.add_flag("--new-database", options.new_database,
               "Begin with an empty configuration where the former database is gone or empty. For one start");
  app.add_option("--log-level", log_level, "Least level that is logged")
      ->capture_default_str()
      ->check(CLI::IsMember({"trace", "debug", "info", "warning", "error", "critical", "off"}));
  CLI11_PARSE(app, argc, argv);

  const auto milliseconds = [](double seconds) {
    return std::chrono::milliseconds{static_cast<int64_t>(seconds * 1000)};
  };
  options.netconf.max_message = max_message_mib << 20;
  options.netconf.max_unsent = max_unsent_kib << 10;
  options.netconf.hello_limit = milliseconds(hello_limit);
  options.subscriber_limit = milliseconds(subscriber_limit);
  options.provider_limit = milliseconds(provider_limit);
  options.map_size = map_mib << 20;
  if (options.run_dir.empty()) options.run_dir = common::RunDir();
  if (options.state_dir.empty()) options.state_dir = common::StateDir();
  if (options.model.directories.empty()) options.model.directories = {common::ModelsDir()};

  service_main::SetUpLog("cdbd", log_level);
  // One arena: the whole of a large request's memory can then go back to the system.
  ::mallopt(M_ARENA_MAX, 1);
  return service_main::Run("cdbd", [&](common::EventLoop& loop) -> common::Result<service_main::Service> {
    auto server = cdbd::DatabaseServer::Start(loop, options);
    if (!server) return server.error();
    return service_main::Service{std::move(server).value()};
  });
}
