#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/diff.h"
#include "commit/delivery.h"
#include "common/event_loop.h"
#include "programs/connection.h"

namespace cdbd {

struct Subscription {
  int32_t point = 0;
  int32_t priority = 0;
  cdb_store::SubscriptionTarget target;
  std::string path;
};

/// One subscriber, for the services and for the operator.
struct Subscriber {
  enum class State { kIdle, kDelivering, kDropped };
  uint64_t id = 0;
  std::string name;
  pid_t pid = 0;
  bool ready = false;  ///< has made all its subscriptions
  std::vector<Subscription> subscriptions;
  State state = State::kIdle;
  std::chrono::system_clock::time_point since = std::chrono::system_clock::now();
  uint64_t last_txid = 0;
  Connection* connection = nullptr;  ///< null when dropped
};

/// The subscribers, and the delivery of commits to them: by priority in ascending order, the next one when every
/// subscriber of this one is done. One that does not answer within the limit is dropped, one that dies is noticed at
/// once; the rest of the delivery goes on, and the warnings name them. A subscriber that comes during a delivery is
/// told of later commits. Loop thread only.
class SubscriptionService final : public Delivery {
 public:
  SubscriptionService(common::EventLoop& loop, cdb_store::StoreWriter& store, std::chrono::milliseconds limit)
      : loop_{loop}, store_{store}, limit_{limit} {}
  void Add(Connection& connection);
  /// False when the packet makes no sense.
  bool OnPacket(Connection& connection, std::string_view packet);
  void OnClosed(Connection& connection, const ConnectionEnd& end);

  [[nodiscard]] bool HasSubscribers() const override;
  void Deliver(const cdb_store::Txid& txid, Done done) override;

  struct Progress {
    uint64_t txid = 0;
    std::chrono::system_clock::time_point since;
  };
  /// The delivery under way.
  [[nodiscard]] std::optional<Progress> progress() const;
  /// Connected ones, and those dropped lately.
  [[nodiscard]] std::vector<const Subscriber*> Subscribers() const;

 private:
  struct Current {
    uint64_t txid = 0;
    Done done;
    std::chrono::system_clock::time_point since;
    std::map<int32_t, std::map<uint64_t, std::vector<int32_t>>> plan;  ///< priority, subscriber, points
    int32_t priority = 0;
    std::vector<uint64_t> awaited;
    common::ScheduledTask timer;
    DataErrors warnings;
  };

  void Plan();
  void NextPriority();
  void OnSync(Subscriber& subscriber, uint64_t txid, int32_t priority, bool whole_commit);
  /// The delivery under way has a later priority for this subscriber.
  [[nodiscard]] bool ToldLater(uint64_t id) const;
  void NoLongerAwaited(uint64_t id);
  void OnTimeout();
  void Warn(const char* app_tag, std::string message);
  void Remember(Subscriber subscriber);
  std::string OnSubscribe(Subscriber& subscriber, std::string_view packet);

  common::EventLoop& loop_;
  cdb_store::StoreWriter& store_;
  const std::chrono::milliseconds limit_;
  std::map<uint64_t, Subscriber> subscribers_;  ///< by connection
  std::deque<Subscriber> dropped_;
  std::unique_ptr<Current> current_;
  int32_t last_point_ = 0;
};

}  // namespace cdbd
