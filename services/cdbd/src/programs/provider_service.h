#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
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

/// The data providers. Every Fetch() is a transaction with one of them, and only a state here: nothing blocks.
///
/// A provider may keep one list for all its readers, so the readings of one callpoint of one provider take turns. Those
/// of different callpoints or providers run side by side. Loop thread only.
class ProviderService final : public Providers {
 public:
  /// `limit`: how long a provider may take for each answer. A reading that waits for its turn has no limit: it waits at
  /// most for those before it, and each of them has.
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
  /// A reading that waits for its turn.
  struct Waiting {
    Request request;
    Done done;
  };
  using Turn = std::pair<uint64_t, std::string>;  ///< the provider's control connection, and the callpoint

  bool OnRegister(Connection& connection, std::string_view packet);
  void OnInit(Connection& connection, std::string_view packet, bool* understood);
  bool OnReply(Connection& connection, std::string_view packet);
  void Begin(const Turn& turn, Waiting reading);
  void BeginNext(const Turn& turn);
  std::vector<Waiting> TakeWaiting(uint64_t daemon);
  void Proceed(int32_t thandle);
  void OnTimer(int32_t thandle);
  void End(int32_t thandle, std::optional<std::string> error);

  common::EventLoop& loop_;
  const cdb_store::Schema& schema_;
  const std::chrono::milliseconds limit_;
  std::map<uint64_t, Daemon> daemons_;  ///< by control connection
  std::map<int32_t, std::unique_ptr<Transaction>> transactions_;
  std::map<Turn, std::deque<Waiting>> turns_;  ///< of each reading that runs: those that wait for it to end
  int32_t last_thandle_ = 0;
};

}  // namespace cdbd
