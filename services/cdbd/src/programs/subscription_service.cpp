#include "programs/subscription_service.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>

#include "confd_wire/codec.h"

namespace cdbd {
namespace {

constexpr size_t kDroppedKept = 16;
constexpr size_t kMaxSubscriptions = 256;  // of one subscriber

std::string Who(const Subscriber& subscriber) {
  return fmt::format("subscriber '{}' (process {})", subscriber.name, subscriber.pid);
}

}  // namespace

void SubscriptionService::Add(Connection& connection) {
  Subscriber subscriber;
  subscriber.id = connection.id();
  subscriber.name = connection.name;
  subscriber.pid = connection.pid();
  subscriber.connection = &connection;
  subscribers_.emplace(connection.id(), std::move(subscriber));
}

bool SubscriptionService::OnPacket(Connection& connection, std::string_view packet) {
  Subscriber& subscriber = subscribers_.at(connection.id());
  const auto type = confd_wire::TypeOf(packet);
  if (type == confd_wire::MessageType::kSubscribe) {
    confd_wire::SubscribeReply reply;
    reply.error = OnSubscribe(subscriber, packet);
    if (reply.error.empty()) reply.point = last_point_;
    connection.Send(confd_wire::Encode(reply));
    return true;
  }
  if (type == confd_wire::MessageType::kSubscribeDone) {
    confd_wire::SubscribeDoneReply reply;
    if (subscriber.subscriptions.empty()) reply.error = "there is no subscription";
    subscriber.ready = reply.error.empty();
    connection.Send(confd_wire::Encode(reply));
    if (subscriber.ready) spdlog::info("{} is told of changes", Who(subscriber));
    return true;
  }
  const auto sync = confd_wire::Decode<confd_wire::Sync>(packet);
  if (sync) OnSync(subscriber, sync->txid, sync->priority, sync->kind == confd_wire::SyncKind::kDoneSocket);
  return sync.has_value();
}

// Why not, or "".
std::string SubscriptionService::OnSubscribe(Subscriber& subscriber, std::string_view packet) {
  auto request = confd_wire::Decode<confd_wire::Subscribe>(packet);
  const cdb_store::Schema& schema = store_.schema();
  if (!request) return "the request cannot be understood";
  if (subscriber.ready) return "subscriptions have to be made before cdb_subscribe_done";
  if (request->schema != schema.Fingerprint()) return "the data model has changed";
  if (request->node >= schema.size()) return "there is no such node";
  if (subscriber.subscriptions.size() >= kMaxSubscriptions) return "there are too many subscriptions";
  Subscription subscription;
  subscription.point = ++last_point_;
  subscription.priority = request->priority;
  subscription.target = {request->node, std::move(request->keys)};
  subscription.path = std::move(request->path);
  subscriber.subscriptions.push_back(std::move(subscription));
  return {};
}

bool SubscriptionService::HasSubscribers() const {
  return std::any_of(subscribers_.begin(), subscribers_.end(), [](const auto& entry) { return entry.second.ready; });
}

void SubscriptionService::Deliver(const cdb_store::Txid& txid, Done done) {
  current_ = std::make_unique<Current>();
  current_->txid = txid.number;
  current_->done = std::move(done);
  current_->since = std::chrono::system_clock::now();
  if (HasSubscribers())
    Plan();
  else
    Warn("no-subscriber", fmt::format("no program is subscribed to changes: transaction {} is stored and takes effect "
                                      "when one connects",
                                      txid.number));
  NextPriority();
}

void SubscriptionService::Plan() {
  const auto snapshot = store_.Take();
  if (!snapshot) return Warn("", "subscribers could not be told: " + snapshot.error().Text());
  std::vector<std::pair<const Subscriber*, const Subscription*>> open;
  for (const auto& [id, subscriber] : subscribers_)
    if (subscriber.ready)
      for (const Subscription& subscription : subscriber.subscriptions) open.emplace_back(&subscriber, &subscription);
  const cdb_store::DiffView diff = snapshot.value()->Diff();
  cdb_store::DiffCursor cursor{diff};
  auto read = cursor.Seek({});
  for (; read.ok() && read.value() && !open.empty(); read = cursor.Next()) {
    const cdb_store::Change& change = *read.value();
    std::erase_if(open, [&](const auto& entry) {
      const auto& [subscriber, subscription] = entry;
      if (!cdb_store::Triggers(store_.schema(), subscription->target, change)) return false;
      current_->plan[subscription->priority][subscriber->id].push_back(subscription->point);
      return true;
    });
  }
  if (!read.ok()) Warn("", "not all subscribers could be told: " + read.error().Text());
  for (auto& [priority, subscribers] : current_->plan)
    for (auto& [id, points] : subscribers) std::sort(points.begin(), points.end());
}

void SubscriptionService::NextPriority() {
  current_->timer.Reset();
  while (current_->awaited.empty() && !current_->plan.empty()) {
    const auto first = current_->plan.begin();
    const auto told = std::move(first->second);
    current_->priority = first->first;
    current_->plan.erase(first);
    for (const auto& [id, points] : told) {
      const auto found = subscribers_.find(id);
      if (found == subscribers_.end()) continue;
      Subscriber& subscriber = found->second;
      subscriber.state = Subscriber::State::kDelivering;
      subscriber.since = std::chrono::system_clock::now();
      current_->awaited.push_back(id);
      confd_wire::Trigger trigger;
      trigger.txid = current_->txid;
      trigger.priority = current_->priority;
      trigger.points = points;
      trigger.more = ToldLater(id);
      subscriber.connection->Send(confd_wire::Encode(trigger));
    }
  }
  if (!current_->awaited.empty()) {
    current_->timer = loop_.After(limit_, [this] { OnTimeout(); });
    return;
  }
  const std::unique_ptr<Current> over = std::move(current_);
  over->done(std::move(over->warnings));
}

void SubscriptionService::OnSync(Subscriber& subscriber, uint64_t txid, int32_t priority, bool whole_commit) {
  if (current_ == nullptr || current_->txid != txid || current_->priority != priority) return;
  const auto& awaited = current_->awaited;
  if (std::find(awaited.begin(), awaited.end(), subscriber.id) == awaited.end()) return;
  subscriber.state = Subscriber::State::kIdle;
  subscriber.since = std::chrono::system_clock::now();
  if (whole_commit)
    for (auto& [later, subscribers] : current_->plan) subscribers.erase(subscriber.id);
  if (!ToldLater(subscriber.id)) subscriber.last_txid = txid;
  NoLongerAwaited(subscriber.id);
}

bool SubscriptionService::ToldLater(uint64_t id) const {
  return std::any_of(current_->plan.begin(), current_->plan.end(),
                     [&](const auto& step) { return step.second.count(id) != 0; });
}

void SubscriptionService::NoLongerAwaited(uint64_t id) {
  if (current_ == nullptr) return;
  if (std::erase(current_->awaited, id) > 0 && current_->awaited.empty()) NextPriority();
}

void SubscriptionService::OnTimeout() {
  const std::vector<uint64_t> silent = current_->awaited;
  const uint64_t txid = current_->txid;
  for (const uint64_t id : silent) {
    const auto found = subscribers_.find(id);
    if (found == subscribers_.end()) continue;
    Connection* connection = found->second.connection;
    connection->Close(ConnectionEnd::Reason::kTooSlow,
                      fmt::format("did not take in transaction {} within {} s and was disconnected", current_->txid,
                                  static_cast<double>(limit_.count()) / 1000));
    if (current_ == nullptr || current_->txid != txid) return;  // that was the last one
  }
}

void SubscriptionService::OnClosed(Connection& connection, const ConnectionEnd& end) {
  const auto found = subscribers_.find(connection.id());
  if (found == subscribers_.end()) return;
  Subscriber subscriber = std::move(found->second);
  subscribers_.erase(found);
  subscriber.connection = nullptr;
  if (subscriber.ready) spdlog::info("{} is no longer told of changes: {}", Who(subscriber), end.text);
  if (current_ == nullptr) return;
  const uint64_t id = subscriber.id;
  bool told_later = false;
  for (auto& [priority, subscribers] : current_->plan) told_later |= subscribers.erase(id) > 0;
  if (subscriber.state == Subscriber::State::kDelivering || told_later) {
    if (end.reason == ConnectionEnd::Reason::kTooSlow)
      Warn("subscriber-timeout", Who(subscriber) + " " + end.text);
    else
      Warn("subscriber-lost", fmt::format("{} was lost before it had taken in transaction {}: {}", Who(subscriber),
                                          current_->txid, end.text));
    Remember(std::move(subscriber));
  }
  NoLongerAwaited(id);
}

void SubscriptionService::Remember(Subscriber subscriber) {
  subscriber.state = Subscriber::State::kDropped;
  subscriber.since = std::chrono::system_clock::now();
  dropped_.push_back(std::move(subscriber));
  if (dropped_.size() > kDroppedKept) dropped_.pop_front();
}

void SubscriptionService::Warn(const char* app_tag, std::string message) {
  spdlog::warn("{}", message);
  DataError warning{.message = std::move(message)};
  warning.app_tag = app_tag;
  warning.warning = true;
  current_->warnings.push_back(std::move(warning));
}

std::optional<SubscriptionService::Progress> SubscriptionService::progress() const {
  if (current_ == nullptr) return std::nullopt;
  return Progress{current_->txid, current_->since};
}

std::vector<const Subscriber*> SubscriptionService::Subscribers() const {
  std::vector<const Subscriber*> all;
  for (const Subscriber& subscriber : dropped_) all.push_back(&subscriber);
  for (const auto& [id, subscriber] : subscribers_) all.push_back(&subscriber);
  return all;
}

}  // namespace cdbd
