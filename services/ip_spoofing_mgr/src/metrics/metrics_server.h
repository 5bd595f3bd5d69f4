#pragma once

#include <prometheus/metric_family.h>
#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "common/event_loop.h"
#include "common/listener.h"
#include "common/result.h"
#include "common/stream.h"

namespace mgr {

/// Serves metrics over HTTP, in the text format of Prometheus, on the manager's own loop: one GET a connection. A peer
/// that does not ask, or does not take its answer, within ten seconds is dropped. Loop thread only.
class MetricsServer final {
 public:
  using Families = std::vector<prometheus::MetricFamily>;

  /// Listens on a numeric IPv4 or IPv6 address; connections wait until Serve(). Port 0: one that is free.
  static common::Result<std::unique_ptr<MetricsServer>> Open(common::EventLoop& loop, const std::string& address,
                                                             uint16_t port);
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;
  ~MetricsServer();

  /// Calls `measure` for every request from now on.
  void Serve(std::function<Families()> measure);
  [[nodiscard]] const std::string& Endpoint() const noexcept { return endpoint_; }  ///< "127.0.0.1:9177", "[::1]:9177"

 private:
  struct Client;
  MetricsServer(common::EventLoop& loop, common::ListeningSocket socket, std::string endpoint);
  void OnConnection(common::Listener::Connection accepted);
  void OnData(Client* client, std::string_view bytes);
  void Remove(Client* client);

  common::EventLoop& loop_;
  common::ListeningSocket socket_;  ///< until Serve()
  const std::string endpoint_;
  std::function<Families()> measure_;
  std::list<Client> clients_;
  common::ScheduledTask forget_gone_;
  std::unique_ptr<common::Listener> listener_;
};

}  // namespace mgr
