#pragma once

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "clients/client_server.h"
#include "common/event_loop.h"
#include "common/paths.h"
#include "common/unix_socket.h"
#include "dataplane/dataplanes.h"
#include "engine/engine.h"
#include "harness.h"
#include "interfaces/limid_names.h"
#include "interfaces/link_watcher.h"
#include "table/table.h"

namespace bench {

/// The memory dataplane, counting what becomes in force.
class CountingDataplane final : public mgr::Dataplane {
 public:
  explicit CountingDataplane(std::unique_ptr<mgr::Dataplane> plane) : plane_{std::move(plane)} {}
  [[nodiscard]] std::string_view Name() const override { return plane_->Name(); }
  [[nodiscard]] size_t Capacity() const override { return plane_->Capacity(); }
  common::Result<mgr::Snapshot> TakeOver() override { return plane_->TakeOver(); }
  std::vector<mgr::Failure> Apply(const mgr::Changes& changes) override {
    auto failures = plane_->Apply(changes);
    entries += changes.puts.size();
    entries -= changes.removes.size();
    return failures;
  }
  common::Status RemoveEverything() override { return plane_->RemoveEverything(); }
  size_t entries = 0;

 private:
  std::unique_ptr<mgr::Dataplane> plane_;
};

/// The manager's own engine and client server on a loop of this process, so that the moment in which a change is in
/// force is seen without asking for it.
class InProcessManager final {
 public:
  explicit InProcessManager(common::EventLoop& loop)
      : loop_{loop}, plane_{OpenPlane()}, engine_{table_, plane_, interfaces_, std::chrono::milliseconds{20}} {
    auto listener = common::ListenUnix(common::MgrSocketPath(), SOCK_STREAM, 0660);
    if (!listener.ok() || !engine_.TakeOver().ok()) std::exit(2);
    clients_ = std::make_unique<mgr::ClientServer>(
        loop_, std::move(listener).value(),
        mgr::ClientServer::Handlers{.submit =
                                        [this](const std::vector<mgr::Engine::Request>& requests, bool full) {
                                          const auto ticket = engine_.Submit(requests, full, mgr::Engine::Clock::now());
                                          settle_ = loop_.Soon([this] { Settle(); });
                                          return ticket;
                                        },
                                    .list = [] { return std::vector<ip_spoofing_mgr::AllowedIpStatusEntry>{}; }});
  }
  InProcessManager(const InProcessManager&) = delete;
  InProcessManager& operator=(const InProcessManager&) = delete;
  ~InProcessManager() = default;

  [[nodiscard]] size_t EntriesInForce() const noexcept { return plane_.entries; }

 private:
  static std::unique_ptr<mgr::Dataplane> OpenPlane() {
    for (const mgr::DataplaneKind& kind : mgr::DataplaneKinds()) {
      if (kind.name != "memory") continue;
      auto plane = kind.open({.run_dir = common::RunDir(), .capacity = 1'000'000});
      if (plane.ok()) return std::move(plane).value();
    }
    std::exit(2);
  }
  void Settle() {
    clients_->Settled(engine_.Settled());
    timer_.Reset();
    const auto deadline = engine_.Deadline();
    if (!deadline) return;
    timer_ = loop_.After(std::max(*deadline - mgr::Engine::Clock::now(), mgr::Engine::Clock::duration{0}), [this] {
      engine_.Advance(mgr::Engine::Clock::now());
      Settle();
    });
  }

  common::EventLoop& loop_;
  mgr::LimidNames names_;
  mgr::Table table_{names_};
  CountingDataplane plane_;
  mgr::AssumedInterfaces interfaces_;
  mgr::Engine engine_;
  std::unique_ptr<mgr::ClientServer> clients_;
  common::ScheduledTask timer_;
  common::ScheduledTask settle_;
};

}  // namespace bench
