#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/event_loop.h"
#include "common/listener.h"
#include "common/result.h"
#include "northbound/rpc.h"
#include "northbound/session.h"

namespace cdbd {

/// Counters since the start (RFC 6022).
struct NetconfStatistics {
  std::chrono::system_clock::time_point start = std::chrono::system_clock::now();
  uint32_t in_bad_hellos = 0;
  uint32_t in_sessions = 0;
  uint32_t dropped_sessions = 0;
  uint32_t in_rpcs = 0;
  uint32_t in_bad_rpcs = 0;
  uint32_t out_rpc_errors = 0;
};

/// The NETCONF socket and its sessions: takes messages apart into requests and hands each on. Loop thread only.
class NetconfServer final {
 public:
  struct Callbacks {
    std::function<void(RpcPtr)> request;
    std::function<void(uint32_t session)> session_ended;
  };

  /// Listens on `path`. `capabilities` go into every hello.
  static common::Result<std::unique_ptr<NetconfServer>> Listen(common::EventLoop& loop, const std::string& path,
                                                               const SessionLimits& limits,
                                                               std::vector<std::string> capabilities,
                                                               Callbacks callbacks);
  /// Drops every session without notice: answers to requests that are under way are then ignored.
  void DropSessions();

  /// Ends the session after its queued answers. False if it does not exist.
  bool Close(uint32_t session);
  /// Ends it now, for <kill-session>. False if it does not exist.
  bool Kill(uint32_t session);

  [[nodiscard]] const SessionInfo* Find(uint32_t session) const;
  [[nodiscard]] std::vector<SessionInfo> Sessions() const;  ///< those past their hello
  [[nodiscard]] const NetconfStatistics& statistics() const noexcept { return statistics_; }
  [[nodiscard]] const std::vector<std::string>& capabilities() const noexcept { return capabilities_; }

 private:
  friend class Rpc;
  NetconfServer(common::EventLoop& loop, common::ListeningSocket socket, const SessionLimits& limits,
                std::vector<std::string> capabilities, Callbacks callbacks);

  void OnConnection(common::Listener::Connection connection);
  void RefuseSession(int peer) const;
  void OnMessage(Session& session, const std::string& message);
  void OnEnded(Session& session, const SessionEnd& end);
  [[nodiscard]] std::string Hello(uint32_t session) const;
  void Send(uint32_t session, std::string_view reply, bool has_errors);
  void Refuse(Session& session, const std::string& attributes, const RpcError& error);

  common::EventLoop& loop_;
  const SessionLimits limits_;
  const std::vector<std::string> capabilities_;
  Callbacks callbacks_;
  std::map<uint32_t, std::unique_ptr<Session>> sessions_;
  uint32_t last_id_ = 0;
  NetconfStatistics statistics_;
  common::Listener listener_;
};

}  // namespace cdbd
