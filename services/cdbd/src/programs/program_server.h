#pragma once

#include <map>
#include <memory>
#include <string>

#include "common/result.h"
#include "programs/connection.h"
#include "programs/provider_service.h"
#include "programs/subscription_service.h"

namespace cdbd {

/// The socket for programs: greets each connection and hands it to the service of its kind. Connections that only read
/// go to the store by themselves; the server but frees their reader slots when they end. Loop thread only.
class ProgramServer final {
 public:
  /// Listens on `path`.
  static common::Result<std::unique_ptr<ProgramServer>> Listen(common::EventLoop& loop, const std::string& path,
                                                               cdb_store::StoreWriter& store,
                                                               SubscriptionService& subscriptions,
                                                               ProviderService& providers);
  ~ProgramServer();

 private:
  ProgramServer(common::EventLoop& loop, common::UniqueFd listener, std::string path, cdb_store::StoreWriter& store,
                SubscriptionService& subscriptions, ProviderService& providers);
  void OnConnection();
  void OnPacket(Connection& connection, std::string_view packet);
  void OnHello(Connection& connection, std::string_view packet);
  void OnClosed(Connection& connection, const std::string& why);

  common::EventLoop& loop_;
  common::UniqueFd listener_;
  const std::string path_;
  cdb_store::StoreWriter& store_;
  SubscriptionService& subscriptions_;
  ProviderService& providers_;
  const uint64_t instance_;
  uint64_t last_id_ = 0;
  std::map<uint64_t, std::unique_ptr<Connection>> connections_;
  std::shared_ptr<int> guard_ = std::make_shared<int>(0);  ///< for what is deferred
};

}  // namespace cdbd
