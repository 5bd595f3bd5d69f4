#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "common/event_loop.h"
#include "common/listener.h"
#include "common/log_limiter.h"
#include "ip_spoofing_mgr_wire/connection.h"
#include "ip_spoofing_mgr_wire/messages.h"

namespace mgr {

/// The clients' socket: one client configures, the newest one that may; batches go to the engine and are acknowledged
/// when they are settled; lists are sent as fast as their reader takes them. Loop thread only.
class ClientServer final {
 public:
  struct Handlers {
    /// Takes a whole batch; gives its number.
    std::function<uint64_t(const std::vector<ip_spoofing_mgr::wire::Request>& requests, bool full)> submit;
    std::function<std::vector<ip_spoofing_mgr::AllowedIpStatusEntry>()> list;
    /// Told of every batch after `submit`; may be empty.
    std::function<void(bool full, size_t requests, std::chrono::nanoseconds took)> applied{};
  };
  struct ClientInfo {
    std::string name;
    int32_t pid = 0;
    bool configures = false;
    uint64_t batches = 0;
    uint64_t requests = 0;
  };

  /// `loop` outlives the server.
  ClientServer(common::EventLoop& loop, common::ListeningSocket socket, Handlers handlers);
  ClientServer(const ClientServer&) = delete;
  ClientServer& operator=(const ClientServer&) = delete;
  ~ClientServer();

  /// Acknowledges the batches up to this number.
  void Settled(uint64_t ticket);
  [[nodiscard]] std::vector<ClientInfo> Clients() const;
  /// A client that configures is connected.
  [[nodiscard]] bool HasConfiguring() const noexcept { return configuring_ != nullptr; }

 private:
  struct Session;
  void OnConnection(common::Listener::Connection accepted);
  void OnFrame(Session* session, ip_spoofing_mgr::wire::FrameType type, std::string_view payload);
  void OnHello(Session* session, std::string_view payload);
  void OnBatch(Session* session, std::string_view payload);
  void OnListRequest(Session* session, std::string_view payload);
  void SendRows(Session* session);
  void Refuse(Session* session, ip_spoofing_mgr::wire::ErrorCode code, const std::string& text);
  void Remove(Session* session);

  common::EventLoop& loop_;
  const Handlers handlers_;
  std::list<Session> sessions_;
  Session* configuring_ = nullptr;
  common::ScheduledTask forget_gone_;
  common::LogLimiter refusals_;
  common::Listener listener_;
};

}  // namespace mgr
