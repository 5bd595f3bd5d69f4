#include "manager.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "capacity.h"
#include "clients/client_server.h"
#include "common/paths.h"
#include "control/commands.h"
#include "control/control_server.h"
#include "control/status.h"
#include "dataplane/dataplanes.h"
#include "engine/engine.h"
#include "engine/other_planes.h"
#include "guard/guard.h"
#include "interfaces/limid_names.h"
#include "interfaces/link_watcher.h"
#include "metrics/metrics.h"
#include "metrics/metrics_server.h"
#include "table/table.h"

namespace mgr {
namespace {

constexpr mode_t kSocketMode = 0660;

/// Held as long as the manager runs, so that two of them never work on one directory.
common::Result<common::UniqueFd> Lock(const std::string& run_dir) {
  const std::string path = run_dir + "/mgr.lock";
  common::UniqueFd fd{::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640)};
  if (!fd) return common::SystemError("open", path, errno);
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return fd;
  if (errno != EWOULDBLOCK) return common::SystemError("lock", path, errno);
  return common::Error{"start", run_dir, "another ip-spoofing-mgr runs on this directory"};
}

common::Result<std::unique_ptr<Dataplane>> OpenDataplane(const ManagerOptions& options,
                                                         const DataplaneOptions& plane_options) {
  std::string names;
  for (const DataplaneKind& kind : DataplaneKinds()) {
    names += (names.empty() ? "" : ", ") + std::string{kind.name};
    if (options.dataplane != "auto" && options.dataplane != kind.name) continue;
    auto plane = kind.open(plane_options);
    if (plane) {
      spdlog::info("dataplane {}: {}", kind.name,
                   options.dataplane == "auto" ? "the best one that works here" : "forced");
      return plane;
    }
    if (options.dataplane != "auto") return plane.error();
    spdlog::info("dataplane {} cannot work here: {}", kind.name, plane.error().Text());
  }
  return common::Error{"dataplane", options.dataplane, "there is none of that name; there are auto, " + names};
}

}  // namespace

struct Manager::Parts {
  explicit Parts(common::EventLoop& the_loop) : loop{the_loop} {}
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;
  ~Parts() = default;

  common::EventLoop& loop;
  common::UniqueFd lock{};
  LimidNames names{};
  Table table{names};
  std::unique_ptr<Dataplane> dataplane{};
  std::unique_ptr<LinkWatcher> watcher{};
  AssumedInterfaces assumed{};
  std::unique_ptr<Engine> engine{};
  std::unique_ptr<Guard> guard{};
  std::unique_ptr<ClientServer> clients{};
  std::unique_ptr<ControlServer> control{};
  std::unique_ptr<Commands> commands{};
  BatchMeter batches{};
  std::unique_ptr<MetricsServer> metrics{};
  common::ScheduledTask timer{};
  common::ScheduledTask settle{};

  /// After everything that may have settled batches or set a deadline.
  void Settle() {
    clients->Settled(engine->Settled());
    timer.Reset();
    const auto deadline = engine->Deadline();
    if (!deadline) return;
    const auto delay = std::max(*deadline - Engine::Clock::now(), Engine::Clock::duration{0});
    timer = loop.After(delay, [this] {
      engine->Advance(Engine::Clock::now());
      Settle();
    });
  }
};

common::Result<std::unique_ptr<Manager>> Manager::Start(common::EventLoop& loop, const ManagerOptions& options) {
  if (auto made = common::EnsurePrivateDir(options.run_dir); !made) return made.error();
  auto parts = std::make_unique<Parts>(loop);
  Parts* p = parts.get();

  auto lock = Lock(options.run_dir);
  if (!lock) return lock.error();
  p->lock = std::move(lock).value();
  auto listener = common::ListeningSocket::Unix(common::MgrSocketPath(), SOCK_STREAM, kSocketMode);
  if (!listener) return listener.error();
  auto control = common::ListeningSocket::Unix(common::MgrControlSocketPath(), SOCK_STREAM, kSocketMode);
  if (!control) return control.error();

  if (options.metrics_port) {
    auto metrics = MetricsServer::Open(loop, options.metrics_address, *options.metrics_port);
    if (!metrics) return metrics.error();
    p->metrics = std::move(metrics).value();
  }

  const auto capacity = options.capacity ? *options.capacity : ElementCapacity(kMaxCapacity);
  if (!capacity) return capacity.error();
  const DataplaneOptions plane_options{.run_dir = options.run_dir, .capacity = capacity.value()};
  auto plane = OpenDataplane(options, plane_options);
  if (!plane) return plane.error();
  p->dataplane = std::move(plane).value();
  if (options.assume_interfaces && p->dataplane->Name() != "memory") {
    return common::Error{"--assume-interfaces", "", "works with the memory dataplane only"};
  }
  auto watcher = LinkWatcher::Open(loop, [p](const std::vector<std::string>& names) {
    p->engine->InterfacesChanged(names, Engine::Clock::now());
    p->Settle();
  });
  if (!watcher) return watcher.error();
  p->watcher = std::move(watcher).value();
  const Interfaces& interfaces = options.assume_interfaces ? static_cast<const Interfaces&>(p->assumed) : *p->watcher;
  if (p->dataplane->Name() == "memory") spdlog::warn("the memory dataplane filters no frame");
  p->engine = std::make_unique<Engine>(p->table, *p->dataplane, interfaces, options.hold);
  if (auto taken = p->engine->TakeOver(OtherPlanes(p->dataplane->Name(), plane_options)); !taken) return taken.error();

  p->guard = std::make_unique<Guard>(loop, p->table, *p->dataplane);

  p->clients = std::make_unique<ClientServer>(
      loop, std::move(listener).value(),
      ClientServer::Handlers{
          .submit =
              [p](const std::vector<Engine::Request>& requests, bool full) {
                const auto ticket = p->engine->Submit(requests, full, Engine::Clock::now());
                p->settle = p->loop.Soon([p] { p->Settle(); });
                return ticket;
              },
          .list = [p] { return StatusRows(p->table, *p->engine); },
          .applied = [p](bool full, size_t requests,
                         std::chrono::nanoseconds took) { p->batches.Record(full, requests, took); },
      });
  p->control = std::make_unique<ControlServer>(loop, std::move(control).value());
  p->commands = std::make_unique<Commands>(
      CommandContext{loop, p->table, *p->engine, *p->dataplane, *p->clients, *p->guard}, *p->control);
  if (p->metrics) {
    p->metrics->Serve([p] {
      return MetricFamilies({p->table, *p->engine, *p->dataplane, *p->clients, *p->commands, *p->guard, p->batches});
    });
    spdlog::info("metrics on http://{}/metrics", p->metrics->Endpoint());
  }
  p->Settle();
  return std::unique_ptr<Manager>(new Manager(std::move(parts)));
}

Manager::Manager(std::unique_ptr<Parts> parts) : parts_{std::move(parts)} {}

Manager::~Manager() = default;

}  // namespace mgr
