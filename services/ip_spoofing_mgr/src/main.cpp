#include <spdlog/spdlog.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <string>

#include "common/event_loop.h"
#include "common/number_range.h"
#include "common/paths.h"
#include "common/version.h"
#include "manager.h"
#include "service_main/service_main.h"

int main(int argc, char** argv) {
  mgr::ManagerOptions options{.run_dir = common::RunDir()};
  int64_t hold = options.hold.count();
  std::string level = "info";
  CLI::App app{"Manager of anti-IP-spoofing filters: programs the forwarding plane as its client asks"};
  app.set_version_flag("--version", std::string{"ip-spoofing-mgr "} + common::Version());
  app.add_option("--dataplane", options.dataplane, "Which one to use; auto: the best that works here")
      ->capture_default_str();
  app.add_option("--capacity", options.capacity,
                 "Entries that can be in force at the same time; default: what element.json says")
      ->check(common::NumberFrom<size_t>(1, mgr::kMaxCapacity));
  app.add_option("--hold", hold, "Milliseconds that what a batch takes away waits for the batch behind it")
      ->check(common::NumberFrom(0, 10'000))
      ->capture_default_str();
  app.add_flag("--assume-interfaces", options.assume_interfaces,
               "Treat every interface as present (memory dataplane only)");
  app.add_option("--metrics-port", options.metrics_port,
                 "TCP port on which metrics are served over HTTP, for Prometheus; 0: any free one; default: none")
      ->check(common::NumberFrom(0, 65'535));
  app.add_option("--metrics-address", options.metrics_address, "Numeric address of that port")->capture_default_str();
  app.add_option("--log-level", level, "What to log")
      ->check(CLI::IsMember({"debug", "info", "warning", "error"}))
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  options.hold = std::chrono::milliseconds{hold};
  service_main::SetUpLog("ip-spoofing-mgr", level);
  const int status =
      service_main::Run("ip-spoofing-mgr", [&](common::EventLoop& loop) -> common::Result<service_main::Service> {
        auto manager = mgr::Manager::Start(loop, options);
        if (!manager) return manager.error();
        spdlog::info("ready in {}", options.run_dir);
        return service_main::Service{std::move(manager).value()};
      });
  if (status == EXIT_SUCCESS) spdlog::info("ends; what is in force stays");
  return status;
}
