#include "service_main/service_main.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "limited_sink.h"

namespace service_main {
namespace {

int Failed(const std::string& name, const common::Error& error) {
  std::fprintf(stderr, "%s: %s\n", name.c_str(), error.Text().c_str());
  return EXIT_FAILURE;
}

/// Tells the supervisor's watchdog that the loop turns, twice in the time that it allows.
class Watchdog final {
 public:
  explicit Watchdog(common::EventLoop& loop) : loop_{loop} {
    uint64_t limit_us = 0;
    if (::sd_watchdog_enabled(0, &limit_us) > 0) Tell(std::chrono::microseconds{limit_us} / 2);
  }

 private:
  void Tell(std::chrono::microseconds period) {
    ::sd_notify(0, "WATCHDOG=1");
    next_ = loop_.After(period, [this, period] { Tell(period); });
  }
  common::EventLoop& loop_;
  common::ScheduledTask next_;
};

}  // namespace

void SetUpLog(const std::string& name, const std::string& level) {
  const auto sink = std::make_shared<LimitedSink>(std::make_shared<spdlog::sinks::stderr_sink_mt>());
  spdlog::set_default_logger(std::make_shared<spdlog::logger>(name, sink));
  spdlog::set_level(spdlog::level::from_str(level));
  spdlog::set_pattern(std::getenv("JOURNAL_STREAM") != nullptr ? "%l: %v" : "%Y-%m-%dT%H:%M:%S.%e %n %l: %v");
}

int Run(const std::string& name, const Start& start) {
  const std::unique_ptr<common::EventLoop> loop = common::EventLoop::Create(true);
  if (!loop) return Failed(name, common::SystemError("event loop", "", errno));
  auto service = start(*loop);
  if (!service) return Failed(name, service.error());
  ::sd_notify(0, "READY=1");
  const Watchdog watchdog{*loop};
  const bool running = true;
  const int error = loop->Run(&running);
  ::sd_notify(0, "STOPPING=1");
  if (error != 0) return Failed(name, common::SystemError("event loop", "", error));
  return EXIT_SUCCESS;
}

}  // namespace service_main
