#include "programs/provider_service.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <utility>

#include "confd_wire/codec.h"
#include "programs/list_reading.h"

namespace cdbd {
namespace {

using cdb_store::NodeId;
using confd_wire::ClientKind;
using confd_wire::MessageType;
using Clock = std::chrono::steady_clock;

common::Error CallpointError(const cdb_store::Node& list, std::string why) {
  return {"callpoint", "'" + list.callpoint + "'", std::move(why)};
}

}  // namespace

struct ProviderService::Transaction {
  Transaction(const cdb_store::Schema& schema, Request request, int32_t thandle)
      : reading{schema, std::move(request), thandle} {}

  ListReading reading;
  Done done;
  uint64_t daemon = 0;
  Connection* worker = nullptr;            ///< null until the provider has named it
  Clock::time_point asked = Clock::now();  ///< when the provider was last asked for something
  common::EventLoop::TimerId timer = 0;
};

ProviderService::ProviderService(common::EventLoop& loop, const cdb_store::Schema& schema,
                                 std::chrono::milliseconds limit)
    : loop_{loop}, schema_{schema}, limit_{limit} {}

ProviderService::~ProviderService() {
  for (const auto& [thandle, transaction] : transactions_) loop_.CancelTimer(transaction->timer);
}

std::string ProviderService::Add(Connection& connection) {
  if (connection.kind == ClientKind::kControl) {
    Daemon daemon;
    daemon.id = connection.id();
    daemon.name = connection.name;
    daemon.pid = connection.pid();
    daemon.control = &connection;
    daemons_.emplace(connection.id(), std::move(daemon));
    return {};
  }
  const auto found = daemons_.find(connection.daemon_id);
  if (found == daemons_.end()) return "there is no such control connection";
  found->second.workers.emplace(connection.id(), &connection);
  return {};
}

bool ProviderService::OnPacket(Connection& connection, std::string_view packet) {
  bool understood = false;
  if (connection.kind == ClientKind::kWorker) return OnReply(connection, packet);
  if (confd_wire::TypeOf(packet) == MessageType::kRegister) return OnRegister(connection, packet);
  OnInit(connection, packet, &understood);
  return understood;
}

bool ProviderService::OnRegister(Connection& connection, std::string_view packet) {
  const auto message = confd_wire::Decode<confd_wire::Register>(packet);
  if (!message) return false;
  Daemon& daemon = daemons_.at(connection.id());
  confd_wire::RegisterReply reply;
  std::set<std::string> callpoints;
  for (const auto& callpoint : message->callpoints) {
    bool known = false;
    for (size_t id = 0; id < schema_.size(); ++id)
      known |= !callpoint.name.empty() && schema_.node(static_cast<NodeId>(id)).callpoint == callpoint.name;
    if (!known)
      reply.error = "the data model has no callpoint '" + callpoint.name + "'";
    else if (!callpoint.get_next || !callpoint.get_object)
      reply.error = "callpoint '" + callpoint.name + "' needs get_next and get_object";
    callpoints.insert(callpoint.name);
  }
  if (reply.error.empty()) {
    daemon.callpoints = std::move(callpoints);
    spdlog::info("data provider '{}' (process {}) serves {}", daemon.name, daemon.pid,
                 fmt::join(daemon.callpoints, ", "));
  }
  connection.Send(confd_wire::Encode(reply));
  return true;
}

bool ProviderService::Serves(const std::string& callpoint) const {
  return std::any_of(daemons_.begin(), daemons_.end(),
                     [&](const auto& entry) { return entry.second.callpoints.count(callpoint) != 0; });
}

void ProviderService::Fetch(Request request, Done done) {
  const std::string& callpoint = request.list->callpoint;
  // The latest: an older one that still seems connected is on its way out.
  const auto daemon = std::find_if(daemons_.rbegin(), daemons_.rend(),
                                   [&](const auto& entry) { return entry.second.callpoints.count(callpoint) != 0; });
  if (daemon == daemons_.rend()) return done(CallpointError(*request.list, "no data provider is connected"));
  const Turn turn{daemon->first, callpoint};
  const auto [waiting, is_free] = turns_.try_emplace(turn);
  Waiting reading{std::move(request), std::move(done)};
  if (!is_free) return waiting->second.push_back(std::move(reading));
  Begin(turn, std::move(reading));
}

void ProviderService::Begin(const Turn& turn, Waiting reading) {
  const int32_t thandle = last_thandle_ == INT32_MAX ? last_thandle_ = 1 : ++last_thandle_;
  confd_wire::TransInit init;
  init.thandle = thandle;
  init.user = reading.request.user;
  auto transaction = std::make_unique<Transaction>(schema_, std::move(reading.request), thandle);
  transaction->daemon = turn.first;
  transaction->done = std::move(reading.done);
  transaction->timer = loop_.AddTimer(limit_, [this, thandle] { OnTimer(thandle); });
  transactions_.emplace(thandle, std::move(transaction));
  daemons_.at(turn.first).control->Send(confd_wire::Encode(init));
}

// Readers that went away while they waited are passed over.
void ProviderService::BeginNext(const Turn& turn) {
  const auto found = turns_.find(turn);
  if (found == turns_.end()) return;
  std::deque<Waiting>& waiting = found->second;
  while (!waiting.empty()) {
    Waiting next = std::move(waiting.front());
    waiting.pop_front();
    if (next.request.wanted()) return Begin(turn, std::move(next));
  }
  turns_.erase(found);
}

/// All that wait for a provider that is gone, whose turns end with it.
std::vector<ProviderService::Waiting> ProviderService::TakeWaiting(uint64_t daemon) {
  std::vector<Waiting> taken;
  for (auto turn = turns_.begin(); turn != turns_.end();) {
    if (turn->first.first != daemon) {
      ++turn;
      continue;
    }
    for (Waiting& waiting : turn->second) taken.push_back(std::move(waiting));
    turn = turns_.erase(turn);
  }
  return taken;
}

void ProviderService::OnInit(Connection& connection, std::string_view packet, bool* understood) {
  const auto reply = confd_wire::Decode<confd_wire::TransInitReply>(packet);
  *understood = reply.has_value();
  if (!reply) return;
  const auto found = transactions_.find(reply->thandle);
  if (found == transactions_.end() || found->second->daemon != connection.id()) return;
  Transaction& transaction = *found->second;
  if (transaction.worker != nullptr) return;
  if (!reply->error.empty()) return End(reply->thandle, reply->error);
  const Daemon& daemon = daemons_.at(connection.id());
  const auto worker = daemon.workers.find(reply->worker_id);
  if (worker == daemon.workers.end()) return End(reply->thandle, "the data provider named no worker connection");
  transaction.worker = worker->second;
  transaction.asked = Clock::now();
  transaction.worker->Send(transaction.reading.Ask());
}

// An answer that no reading waits for any more is ignored.
bool ProviderService::OnReply(Connection& connection, std::string_view packet) {
  auto rows = confd_wire::Decode<confd_wire::Rows>(packet);
  const auto failure = rows ? std::nullopt : confd_wire::Decode<confd_wire::ReadFailed>(packet);
  if (!rows && !failure) return false;
  const uint64_t request = rows ? rows->request : failure->request;
  const int32_t thandle = ListReading::TransactionOf(request);
  const auto found = transactions_.find(thandle);
  if (found == transactions_.end() || found->second->worker != &connection) return true;
  ListReading& reading = found->second->reading;
  if (!reading.IsOpen(request)) return true;
  if (rows) {
    reading.OnRows(std::move(*rows));
  } else {
    reading.OnFailure(*failure);
  }
  Proceed(thandle);
  return true;
}

void ProviderService::Proceed(int32_t thandle) {
  const auto found = transactions_.find(thandle);
  if (found == transactions_.end()) return;
  Transaction& transaction = *found->second;
  if (!transaction.reading.request().wanted()) return End(thandle, std::nullopt);
  if (std::string packet = transaction.reading.Ask(); !packet.empty()) {
    transaction.asked = Clock::now();
    transaction.worker->Send(std::move(packet));
  }
  transaction.reading.HandOn();
  if (transaction.reading.error() || transaction.reading.ended()) End(thandle, transaction.reading.error());
}

void ProviderService::OnTimer(int32_t thandle) {
  Transaction& transaction = *transactions_.at(thandle);
  const auto idle = Clock::now() - transaction.asked;
  if (idle < limit_) {
    transaction.timer = loop_.AddTimer(limit_ - idle, [this, thandle] { OnTimer(thandle); });
    return;
  }
  transaction.timer = 0;
  End(thandle, fmt::format("the data provider '{}' (process {}) did not answer within {} s",
                           daemons_.at(transaction.daemon).name, daemons_.at(transaction.daemon).pid,
                           static_cast<double>(limit_.count()) / 1000));
}

// Tells the provider (late answers find nobody), and answers who asked.
void ProviderService::End(int32_t thandle, std::optional<std::string> error) {
  const auto found = transactions_.find(thandle);
  const std::unique_ptr<Transaction> transaction = std::move(found->second);
  transactions_.erase(found);
  loop_.CancelTimer(transaction->timer);
  if (transaction->worker != nullptr) {
    confd_wire::TransFinish finish;
    finish.thandle = thandle;
    transaction->worker->Send(confd_wire::Encode(finish));
  }
  const Request& request = transaction->reading.request();
  BeginNext({transaction->daemon, request.list->callpoint});
  if (error) {
    const common::Error failure = CallpointError(*request.list, std::move(*error));
    spdlog::warn("{}", failure.Text());
    return transaction->done(failure);
  }
  if (transaction->reading.ended() && request.wanted()) transaction->done(common::Ok());
}

void ProviderService::OnClosed(Connection& connection, const std::string&) {
  std::vector<int32_t> orphans;
  std::vector<Waiting> waiting;
  if (connection.kind == ClientKind::kControl) {
    const auto found = daemons_.find(connection.id());
    if (found == daemons_.end()) return;
    if (!found->second.callpoints.empty())
      spdlog::info("data provider '{}' (process {}) is gone", connection.name, connection.pid());
    for (const auto& [thandle, transaction] : transactions_)
      if (transaction->daemon == connection.id()) orphans.push_back(thandle);
    waiting = TakeWaiting(connection.id());
    // Its workers are useless without it.
    const std::map<uint64_t, Connection*> workers = std::move(found->second.workers);
    daemons_.erase(found);
    for (const auto& [id, worker] : workers)
      worker->Close(ConnectionEnd::Reason::kOrphaned, "its control connection is gone");
  } else {
    if (const auto daemon = daemons_.find(connection.daemon_id); daemon != daemons_.end())
      daemon->second.workers.erase(connection.id());
    for (const auto& [thandle, transaction] : transactions_)
      if (transaction->worker == &connection) orphans.push_back(thandle);
  }
  const std::string why =
      fmt::format("the data provider '{}' (process {}) disconnected", connection.name, connection.pid());
  for (const int32_t thandle : orphans) {
    const auto found = transactions_.find(thandle);
    if (found == transactions_.end()) continue;
    found->second->worker = nullptr;
    End(thandle, why);
  }
  for (const Waiting& reading : waiting)
    if (reading.request.wanted()) reading.done(CallpointError(*reading.request.list, why));
}

}  // namespace cdbd
