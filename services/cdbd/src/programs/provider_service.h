#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/schema.h"
#include "common/event_loop.h"
#include "programs/connection.h"
#include "read/providers.h"

namespace cdbd {

/// A program that provides operational data: one control connection and its workers.
struct Daemon {
  uint64_t id = 0;
  std::string name;
  pid_t pid = 0;
  Connection* control = nullptr;
  std::map<uint64_t, Connection*> workers;
  std::set<std::string> callpoints;
};

/// The data providers. Every Fetch() is a transaction with one of them: any number go on at a time, and each is only a
/// state here. Loop thread only.
class ProviderService final : public Providers {
 public:
  /// `limit`: for a provider to answer what it was asked for together.
  ProviderService(common::EventLoop& loop, const cdb_store::Schema& schema, std::chrono::milliseconds limit);
  ~ProviderService() override;

  /// A control or worker connection. Why not, or "".
  std::string Add(Connection& connection);
  /// False when the packet makes no sense.
  bool OnPacket(Connection& connection, std::string_view packet);
  void OnClosed(Connection& connection, const std::string& why);

  [[nodiscard]] bool Serves(const std::string& callpoint) const override;
  void Fetch(Request request, Done done) override;

  [[nodiscard]] const std::map<uint64_t, Daemon>& daemons() const noexcept { return daemons_; }

 private:
  struct Transaction;

  bool OnRegister(Connection& connection, std::string_view packet);
  void OnInit(Connection& connection, std::string_view packet, bool* understood);
  bool OnReply(Connection& connection, std::string_view packet);
  void GoOn(int32_t thandle);
  void OnTimer(int32_t thandle);
  void End(int32_t thandle, std::optional<std::string> error);

  common::EventLoop& loop_;
  const cdb_store::Schema& schema_;
  const std::chrono::milliseconds limit_;
  std::map<uint64_t, Daemon> daemons_;  ///< by control connection
  std::map<int32_t, std::unique_ptr<Transaction>> transactions_;
  int32_t last_thandle_ = 0;
};

}  // namespace cdbd
