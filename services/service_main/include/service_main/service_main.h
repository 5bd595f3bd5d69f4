#pragma once

#include <functional>
#include <memory>
#include <string>

#include "common/event_loop.h"
#include "common/result.h"

/// What the main() of every service does in the same way.
namespace service_main {

/// The default logger of this process: lines on standard error, "TIME NAME LEVEL: TEXT", under the journal "LEVEL:
/// TEXT" (it has its own time). `level` is a name that spdlog knows. A warning or error that repeats to the letter is
/// written once in ten seconds, with the number of those left out.
void SetUpLog(const std::string& name, const std::string& level);

/// What a service is while it runs; its destructor ends it.
using Service = std::shared_ptr<void>;
using Start = std::function<common::Result<Service>(common::EventLoop& loop)>;

/// Makes the loop, starts the service, tells the supervisor READY=1, serves until SIGTERM or SIGINT and says
/// STOPPING=1. A supervisor with a watchdog is told of each half of its time from the loop. The exit status: 1, with
/// "NAME: why" on standard error, if the service cannot start or its loop fails.
int Run(const std::string& name, const Start& start);

}  // namespace service_main
