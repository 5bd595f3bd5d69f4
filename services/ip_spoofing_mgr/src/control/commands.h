#pragma once

#include <memory>
#include <string>
#include <vector>

#include "clients/client_server.h"
#include "control/control_server.h"
#include "engine/engine.h"
#include "guard/guard.h"
#include "table/table.h"

namespace mgr {

/// What the operator's commands look at. All borrowed.
struct CommandContext {
  common::EventLoop& loop;
  Table& table;
  Engine& engine;
  Dataplane& dataplane;
  const ClientServer& clients;
  Guard& guard;
};

/// The commands of the control socket:
///   "show status"                      one part, an object; after a comparison with the kernel
///   "show ports|entries [port]"        rows
///   "show counters|violators [port]"   rows
///   "watch drops|guard"                rows as they come, no end
///   "monitor" {port, on}               no part
///   "explain" {port, frame or source}  one part, an object
/// Rows come in parts {"rows": [...]}; "port" in the arguments selects one port.
class Commands final {
 public:
  Commands(const CommandContext& context, ControlServer& server);
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;
  ~Commands();

  struct DropEvents {
    uint64_t read = 0;
    uint64_t lost = 0;  ///< drops that had no event of their own, as far as a later event has told
  };
  [[nodiscard]] const DropEvents& drop_events() const noexcept { return drop_events_; }

 private:
  using Reply = std::shared_ptr<ControlServer::Reply>;
  void ShowStatus(const Reply& reply) const;
  [[nodiscard]] nlohmann::json GuardJson() const;
  void ShowPorts(const nlohmann::json& arguments, const Reply& reply) const;
  void ShowEntries(const nlohmann::json& arguments, const Reply& reply) const;
  void ShowCounters(const nlohmann::json& arguments, const Reply& reply) const;
  void ShowViolators(const nlohmann::json& arguments, const Reply& reply) const;
  void Monitor(const nlohmann::json& arguments, const Reply& reply) const;
  void ShowExplanation(const nlohmann::json& arguments, const Reply& reply) const;
  void WatchDrops(const Reply& reply);
  void OnDrops();
  void OnGuardEvent(const Guard::Event& event);
  [[nodiscard]] std::string NameOf(PortId id) const;
  [[nodiscard]] nlohmann::json DropJson(const Drop& drop) const;

  const CommandContext context_;
  std::vector<Reply> watchers_;
  std::vector<Reply> guard_watchers_;
  DropEvents drop_events_;
  common::FdWatch drops_;
};

}  // namespace mgr
