#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/listener.h"
#include "common/result.h"
#include "programs/connection.h"
#include "programs/provider_service.h"
#include "programs/subscription_service.h"

namespace cdbd {

/// The socket for programs: greets each connection and hands it to the service of its kind. Connections that only read
/// go to the store by themselves; the server only frees their reader slots when they end. Loop thread only.
class ProgramServer final {
 public:
  /// Listens on `path`.
  static common::Result<std::unique_ptr<ProgramServer>> Listen(common::EventLoop& loop, const std::string& path,
                                                               cdb_store::StoreWriter& store,
                                                               SubscriptionService& subscriptions,
                                                               ProviderService& providers);

 private:
  ProgramServer(common::EventLoop& loop, common::ListeningSocket socket, cdb_store::StoreWriter& store,
                SubscriptionService& subscriptions, ProviderService& providers);
  void OnConnection(common::Listener::Connection accepted);
  void OnPacket(Connection& connection, std::string_view packet);
  void OnHello(Connection& connection, std::string_view packet);
  void OnClosed(Connection& connection, const ConnectionEnd& end);

  common::EventLoop& loop_;
  cdb_store::StoreWriter& store_;
  SubscriptionService& subscriptions_;
  ProviderService& providers_;
  const uint64_t instance_;
  uint64_t last_id_ = 0;
  std::map<uint64_t, std::unique_ptr<Connection>> connections_;
  std::vector<std::unique_ptr<Connection>> closed_;  ///< may still be in use by a service in this turn
  common::ScheduledTask forget_closed_;
  common::Listener listener_;
};

}  // namespace cdbd
