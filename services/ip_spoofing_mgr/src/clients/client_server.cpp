#include "clients/client_server.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace mgr {

namespace wire = ip_spoofing_mgr::wire;

namespace {

constexpr size_t kMaxSessions = 64;
constexpr std::chrono::seconds kHelloTime{10};

}  // namespace

struct ClientServer::Session {
  struct List {
    uint32_t id = 0;
    std::vector<ip_spoofing_mgr::AllowedIpStatusEntry> rows{};
    size_t sent = 0;
    bool made = false;
  };
  struct Unsettled {
    uint64_t ticket;
    uint64_t sequence;
  };

  common::Listener::Slot slot{};
  std::unique_ptr<wire::Connection> connection{};
  ClientInfo info{};
  uint64_t instance = 0;
  bool greeted = false;
  common::ScheduledTask timer{};
  std::vector<wire::Request> batch{};  ///< the parts so far
  std::deque<Unsettled> unsettled{};
  std::deque<List> lists{};
  bool gone = false;
};

ClientServer::ClientServer(common::EventLoop& loop, common::ListeningSocket socket, Handlers handlers)
    : loop_{loop},
      handlers_{std::move(handlers)},
      listener_{loop,
                std::move(socket),
                {.max_connections = kMaxSessions},
                {.on_connection = [this](common::Listener::Connection c) { OnConnection(std::move(c)); },
                 .on_refused =
                     [](int refused) {
                       wire::SendLastFrame(refused, wire::FrameType::kError,
                                           wire::EncodeFailure({wire::ErrorCode::kBusy, "too many clients"}));
                     },
                 .on_trouble = [](const std::string& text) { spdlog::warn("clients: {}", text); }}} {}

ClientServer::~ClientServer() = default;

void ClientServer::OnConnection(common::Listener::Connection accepted) {
  Session& session = sessions_.emplace_back();
  session.slot = std::move(accepted.slot);
  session.info.pid = accepted.peer.pid;
  session.connection = std::make_unique<wire::Connection>(
      loop_, std::move(accepted.socket),
      wire::Connection::Handlers{
          .on_frame = [this, s = &session](wire::FrameType type,
                                           std::string_view payload) { OnFrame(s, type, payload); },
          .on_closed = [this, s = &session](const wire::Connection::Closed&) { Remove(s); },
          .on_drained = [this, s = &session] { SendRows(s); },
      });
  session.timer = loop_.After(kHelloTime, [this, s = &session] { Refuse(s, wire::ErrorCode::kProtocol, "no hello"); });
}

void ClientServer::OnFrame(Session* session, wire::FrameType type, std::string_view payload) {
  if (session->gone) return;
  if (type == wire::FrameType::kHello && !session->greeted) return OnHello(session, payload);
  if (type == wire::FrameType::kBatch && session->greeted) return OnBatch(session, payload);
  if (type == wire::FrameType::kListRequest && session->greeted) return OnListRequest(session, payload);
  Refuse(session, wire::ErrorCode::kProtocol, "unexpected frame of type " + std::to_string(static_cast<int>(type)));
}

void ClientServer::OnHello(Session* session, std::string_view payload) {
  const auto version = wire::HelloVersion(payload);
  if (version && *version != wire::kVersion) {
    return Refuse(session, wire::ErrorCode::kOtherVersion,
                  "the client speaks version " + std::to_string(*version) + ", the manager version " +
                      std::to_string(wire::kVersion));
  }
  auto hello = wire::ParseHello(payload);
  if (!hello) return Refuse(session, wire::ErrorCode::kProtocol, "damaged hello");
  session->instance = hello->instance;
  session->info.name = hello->name;
  Session* old = configuring_;
  if (old != nullptr && old->instance != hello->instance && hello->take_over == wire::TakeOver::kNo) {
    return Refuse(session, wire::ErrorCode::kBusy,
                  "another client configures: " + old->info.name + " (process " + std::to_string(old->info.pid) + ")");
  }
  session->timer.Reset();
  session->greeted = true;
  session->info.configures = true;
  configuring_ = session;
  if (old != nullptr) {
    Refuse(old, wire::ErrorCode::kSuperseded,
           "another client took over: " + hello->name + " (process " + std::to_string(session->info.pid) + ")");
  }
  spdlog::info("{} (process {}) connected", session->info.name, session->info.pid);
  session->connection->Send(wire::FrameType::kWelcome, {});
}

void ClientServer::OnBatch(Session* session, std::string_view payload) {
  auto part = wire::ParseBatchPart(payload);
  if (!part) return Refuse(session, wire::ErrorCode::kProtocol, "damaged batch");
  auto& batch = session->batch;
  if (batch.size() + part->requests.size() > wire::kMaxBatchRequests) {
    return Refuse(session, wire::ErrorCode::kProtocol, "a batch of too many requests");
  }
  if (batch.empty()) {
    batch = std::move(part->requests);
  } else {
    batch.insert(batch.end(), part->requests.begin(), part->requests.end());
  }
  if (!part->last) return;
  const std::vector<wire::Request> requests = std::exchange(batch, {});
  ++session->info.batches;
  session->info.requests += requests.size();
  const auto begin = std::chrono::steady_clock::now();
  const uint64_t ticket = handlers_.submit(requests, part->full);
  const auto took = std::chrono::steady_clock::now() - begin;
  if (handlers_.applied) handlers_.applied(part->full, requests.size(), took);
  spdlog::log(part->full ? spdlog::level::info : spdlog::level::debug, "{} batch {} of {}: {} requests, {} us",
              part->full ? "full" : "change", part->sequence, session->info.name, requests.size(),
              std::chrono::duration_cast<std::chrono::microseconds>(took).count());
  session->unsettled.push_back({ticket, part->sequence});
}

void ClientServer::Settled(uint64_t ticket) {
  for (Session& session : sessions_) {
    uint64_t sequence = 0;
    while (!session.unsettled.empty() && session.unsettled.front().ticket <= ticket) {
      sequence = session.unsettled.front().sequence;
      session.unsettled.pop_front();
    }
    if (sequence != 0 && !session.gone) {
      session.connection->Send(wire::FrameType::kAck, wire::EncodeSequence(sequence));
    }
  }
}

void ClientServer::OnListRequest(Session* session, std::string_view payload) {
  const auto id = wire::ParseId(payload);
  if (!id) return Refuse(session, wire::ErrorCode::kProtocol, "damaged list request");
  session->lists.push_back({.id = *id});
  SendRows(session);
}

void ClientServer::SendRows(Session* session) {
  while (!session->gone && !session->lists.empty()) {
    if (session->connection->Queued() >= wire::Connection::kLowWater) return;
    Session::List& list = session->lists.front();
    if (!std::exchange(list.made, true)) list.rows = handlers_.list();
    if (list.sent == list.rows.size()) {
      session->connection->Send(wire::FrameType::kListEnd,
                                wire::EncodeListEnd({list.id, static_cast<uint32_t>(list.rows.size())}));
      session->lists.pop_front();
      continue;
    }
    const size_t count = std::min(wire::kRowsPerFrame, list.rows.size() - list.sent);
    session->connection->Send(wire::FrameType::kListRows,
                              wire::EncodeRows(list.id, {list.rows.data() + list.sent, count}));
    list.sent += count;
  }
}

void ClientServer::Refuse(Session* session, wire::ErrorCode code, const std::string& text) {
  if (session->gone) return;
  // A client that was superseded asks again every second.
  const auto level = code == wire::ErrorCode::kBusy ? spdlog::level::debug : spdlog::level::warn;
  if (const auto left_out = refusals_.Admit(text)) {
    spdlog::log(level, "client {} (process {}) is turned away: {}{}", session->info.name, session->info.pid, text,
                common::LogLimiter::Suffix(*left_out));
  }
  session->connection->Send(wire::FrameType::kError, wire::EncodeFailure({code, text}));
  Remove(session);
}

void ClientServer::Remove(Session* session) {
  if (std::exchange(session->gone, true)) return;
  session->timer.Reset();
  if (session->greeted && configuring_ == session) {
    spdlog::info("{} (process {}) is gone; what it configured stays", session->info.name, session->info.pid);
  }
  if (configuring_ == session) configuring_ = nullptr;
  // A caller may still use it.
  forget_gone_ = loop_.Soon([this] { std::erase_if(sessions_, [](const Session& s) { return s.gone; }); });
}

std::vector<ClientServer::ClientInfo> ClientServer::Clients() const {
  std::vector<ClientInfo> clients;
  for (const Session& session : sessions_) {
    if (session.greeted && !session.gone) clients.push_back(session.info);
  }
  return clients;
}

}  // namespace mgr
