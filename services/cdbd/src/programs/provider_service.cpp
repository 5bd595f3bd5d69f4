#include "programs/provider_service.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>

#include "cdb_store/instance_key.h"
#include "confd_wire/codec.h"

namespace cdbd {
namespace {

using cdb_store::Node;
using cdb_store::NodeId;
using confd_wire::ClientKind;
using confd_wire::MessageType;
using Clock = std::chrono::steady_clock;

constexpr size_t kMaxRows = 4'000'000;  // of one list: a provider that never ends is ended

/// The leaf of that tag in an entry of `list`, in containers too. Null when there is none.
const Node* FindLeaf(const cdb_store::Schema& schema, const Node& list, const confd_wire::TagValue& value) {
  for (NodeId id = static_cast<NodeId>(list.id + 1); id < list.end; ++id) {
    const Node& node = schema.node(id);
    if (node.kind == cdb_store::NodeKind::kLeaf && node.tag == value.tag &&
        (value.ns == 0 || schema.ns(node).hash == value.ns))
      return &node;
  }
  return nullptr;
}

}  // namespace

struct ProviderService::Transaction {
  int32_t thandle = 0;
  Request request;
  Done done;
  uint64_t daemon = 0;
  Connection* worker = nullptr;                  ///< null until the provider has named it
  uint64_t next_key = 0;                         ///< the open GetNext, 0: none
  std::map<uint64_t, size_t> objects;            ///< open GetObjects, with their row
  std::vector<std::optional<ProvidedRow>> rows;  ///< nothing: the row was gone when it was asked for
  bool end = false;
  Clock::time_point asked = Clock::now();  ///< when something last came or was sent
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
  if (daemon == daemons_.rend())
    return done(common::Error{"callpoint", "'" + callpoint + "'", "no data provider is connected"});
  auto transaction = std::make_unique<Transaction>();
  const int32_t thandle = last_thandle_ == INT32_MAX ? last_thandle_ = 1 : ++last_thandle_;
  transaction->thandle = thandle;
  transaction->daemon = daemon->first;
  confd_wire::TransInit init;
  init.thandle = thandle;
  init.user = request.user;
  transaction->request = std::move(request);
  transaction->done = std::move(done);
  transaction->timer = loop_.AddTimer(limit_, [this, thandle] { OnTimer(thandle); });
  transactions_.emplace(thandle, std::move(transaction));
  daemon->second.control->Send(confd_wire::Encode(init));
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
  AskNextKey(transaction, -1);
}

void ProviderService::AskNextKey(Transaction& transaction, int64_t next) {
  confd_wire::GetNext message;
  message.request = transaction.next_key = ++last_request_;
  message.thandle = transaction.thandle;
  message.callpoint = transaction.request.list->callpoint;
  message.node = transaction.request.list->id;
  message.parent_keys = transaction.request.parent_keys;
  message.next = next;
  requests_.emplace(message.request, transaction.thandle);
  transaction.asked = Clock::now();
  transaction.worker->Send(confd_wire::Encode(message));
}

ProviderService::Transaction* ProviderService::ByRequest(const Connection& worker, uint64_t request) {
  const auto found = requests_.find(request);
  if (found == requests_.end()) return nullptr;
  Transaction& transaction = *transactions_.at(found->second);
  if (transaction.worker != &worker) return nullptr;
  requests_.erase(found);
  transaction.asked = Clock::now();
  return &transaction;
}

bool ProviderService::OnReply(Connection& connection, std::string_view packet) {
  const auto type = confd_wire::TypeOf(packet);
  if (type == MessageType::kErrorReply) {
    const auto reply = confd_wire::Decode<confd_wire::ErrorReply>(packet);
    if (!reply) return false;
    if (Transaction* transaction = ByRequest(connection, reply->request))
      End(transaction->thandle, reply->text.empty() ? "the data provider refused" : reply->text);
    return true;
  }
  // Every reply begins with its request's number.
  common::ByteReader reader{packet};
  reader.Get<uint16_t>();
  const auto request = reader.Get<uint64_t>();
  const bool known =
      type == MessageType::kNextKeyReply || type == MessageType::kObjectReply || type == MessageType::kNotFoundReply;
  if (!known || !reader.ok()) return false;
  Transaction* transaction = ByRequest(connection, request);
  if (transaction == nullptr) return true;  // too late: nobody waits for it
  if (!transaction->request.wanted()) {
    End(transaction->thandle, std::nullopt);
    return true;
  }
  if (type == MessageType::kNextKeyReply)
    OnNextKey(*transaction, packet);
  else
    OnObject(*transaction, request, packet);
  return true;
}

void ProviderService::OnNextKey(Transaction& transaction, std::string_view packet) {
  const auto reply = confd_wire::Decode<confd_wire::NextKeyReply>(packet);
  if (!reply || reply->request != transaction.next_key)
    return End(transaction.thandle, "the data provider's answer cannot be understood");
  transaction.next_key = 0;
  if (reply->end) {
    transaction.end = true;
    return CheckEnd(transaction);
  }
  const Node& list = *transaction.request.list;
  if (reply->keys.size() != list.keys.size())
    return End(transaction.thandle, "the data provider gave a wrong number of keys");
  if (transaction.rows.size() >= kMaxRows) return End(transaction.thandle, "the data provider's list does not end");
  ProvidedRow row;
  cdb_store::InstanceKey keys{transaction.request.parent_keys};
  for (size_t i = 0; i < list.keys.size(); ++i) {
    const Node& key = schema_.node(list.keys[i]);
    const confd_wire::Value& value = reply->keys[i];
    if (value.type != key.type || !keys.Append(key.type, value.stored))
      return End(transaction.thandle, "the data provider's key '" + key.name + "' is of another type");
    row.leaves.emplace_back(key.id, cdb_store::ValueToText(key, value.type, value.stored));
  }
  confd_wire::GetObject message;
  message.request = ++last_request_;
  message.thandle = transaction.thandle;
  message.callpoint = list.callpoint;
  message.node = list.id;
  message.keys = keys.keys();
  requests_.emplace(message.request, transaction.thandle);
  transaction.objects.emplace(message.request, transaction.rows.size());
  transaction.rows.emplace_back(std::move(row));
  transaction.worker->Send(confd_wire::Encode(message));
  AskNextKey(transaction, reply->next);
}

void ProviderService::OnObject(Transaction& transaction, uint64_t request, std::string_view packet) {
  const auto found = transaction.objects.find(request);
  if (found == transaction.objects.end())
    return End(transaction.thandle, "the data provider's answer cannot be understood");
  std::optional<ProvidedRow>& row = transaction.rows[found->second];
  transaction.objects.erase(found);
  if (const auto reply = confd_wire::Decode<confd_wire::ObjectReply>(packet)) {
    for (const confd_wire::TagValue& value : reply->values) {
      const Node* leaf = FindLeaf(schema_, *transaction.request.list, value);
      if (leaf == nullptr)
        return End(transaction.thandle,
                   fmt::format("the data provider sent a value with the unknown tag {:#x}", value.tag));
      if (!leaf->IsKeyLeaf())
        row->leaves.emplace_back(leaf->id, cdb_store::ValueToText(*leaf, value.value.type, value.value.stored));
    }
  } else {
    row.reset();
  }
  CheckEnd(transaction);
}

void ProviderService::CheckEnd(Transaction& transaction) {
  if (transaction.end && transaction.objects.empty()) End(transaction.thandle, std::nullopt);
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

// Tells the provider, forgets the open requests (their late answers find nobody), and answers who asked.
void ProviderService::End(int32_t thandle, std::optional<std::string> error) {
  const auto found = transactions_.find(thandle);
  const std::unique_ptr<Transaction> transaction = std::move(found->second);
  transactions_.erase(found);
  loop_.CancelTimer(transaction->timer);
  if (transaction->next_key != 0) requests_.erase(transaction->next_key);
  for (const auto& [request, row] : transaction->objects) requests_.erase(request);
  if (transaction->worker != nullptr) {
    confd_wire::TransFinish finish;
    finish.thandle = thandle;
    transaction->worker->Send(confd_wire::Encode(finish));
  }
  if (error) {
    const common::Error failure{"callpoint", "'" + transaction->request.list->callpoint + "'", std::move(*error)};
    spdlog::warn("{}", failure.Text());
    return transaction->done(failure);
  }
  if (!transaction->end || !transaction->request.wanted()) return;
  std::vector<ProvidedRow> rows;
  rows.reserve(transaction->rows.size());
  for (std::optional<ProvidedRow>& row : transaction->rows)
    if (row) rows.push_back(std::move(*row));
  transaction->done(std::move(rows));
}

void ProviderService::OnClosed(Connection& connection, const std::string&) {
  std::vector<int32_t> orphans;
  std::string who;
  if (connection.kind == ClientKind::kControl) {
    const auto found = daemons_.find(connection.id());
    if (found == daemons_.end()) return;
    if (!found->second.callpoints.empty())
      spdlog::info("data provider '{}' (process {}) is gone", connection.name, connection.pid());
    for (const auto& [thandle, transaction] : transactions_)
      if (transaction->daemon == connection.id()) orphans.push_back(thandle);
    // Its workers are useless without it.
    const std::map<uint64_t, Connection*> workers = std::move(found->second.workers);
    daemons_.erase(found);
    for (const auto& [id, worker] : workers) worker->Close("its control connection is gone");
  } else {
    if (const auto daemon = daemons_.find(connection.daemon_id); daemon != daemons_.end())
      daemon->second.workers.erase(connection.id());
    for (const auto& [thandle, transaction] : transactions_)
      if (transaction->worker == &connection) orphans.push_back(thandle);
  }
  for (const int32_t thandle : orphans) {
    const auto found = transactions_.find(thandle);
    if (found == transactions_.end()) continue;
    found->second->worker = nullptr;
    End(thandle, fmt::format("the data provider '{}' (process {}) disconnected", connection.name, connection.pid()));
  }
}

}  // namespace cdbd
