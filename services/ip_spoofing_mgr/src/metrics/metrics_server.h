#pragma once

#include <netinet/in.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/event_loop.h"
#include "common/result.h"

namespace mgr {

/// Serves metrics over HTTP, as Prometheus reads them. The HTTP server has threads of its own; they ask the loop and
/// wait for its answer a limited time, so that everything that is measured stays with the loop thread. Made, used and
/// destroyed there.
class MetricsServer final {
 public:
  using Families = std::vector<prometheus::MetricFamily>;

  /// Listens on a numeric IPv4 address. Port 0: one that is free. Answers without metrics until Serve().
  static common::Result<std::unique_ptr<MetricsServer>> Open(common::EventLoop& loop, const std::string& address,
                                                             uint16_t port);
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;
  ~MetricsServer();

  /// Calls `measure` on the loop thread for every question from now on. When the loop does not answer in time, what is
  /// served says so: `ip_spoofing_manager_responding` is 0, and there is nothing else.
  void Serve(std::function<Families()> measure);
  [[nodiscard]] std::string Endpoint() const;  ///< "127.0.0.1:9177"

 private:
  class Question;
  MetricsServer(common::EventLoop& loop, std::shared_ptr<Question> question,
                std::unique_ptr<prometheus::Exposer> exposer, const sockaddr_in& endpoint);
  common::EventLoop& loop_;
  const std::shared_ptr<Question> question_;
  std::unique_ptr<prometheus::Exposer> exposer_;
  const sockaddr_in endpoint_;
};

}  // namespace mgr
