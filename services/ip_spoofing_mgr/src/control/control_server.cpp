#include "control/control_server.h"

#include <spdlog/spdlog.h>

#include <utility>

namespace mgr {

using ip_spoofing_mgr::wire::Connection;
using ip_spoofing_mgr::wire::FrameType;
using nlohmann::json;

namespace {

constexpr size_t kMaxSessions = 64;
constexpr size_t kMaxQueued = size_t{64} << 20;  // of a watcher that does not read

std::string Text(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace

struct ControlServer::Session {
  common::Listener::Slot slot;
  std::unique_ptr<Connection> connection;
  bool asked = false;
  bool gone = false;
};

class ControlServer::SessionReply final : public Reply {
 public:
  explicit SessionReply(std::weak_ptr<Session> session) : session_{std::move(session)} {}
  void Part(const json& part) override { Send(kControlPart, part); }
  void End() override { Send(kControlEnd, json::object()); }
  void Fail(const std::string& error) override { Send(kControlEnd, {{"error", error}}); }
  [[nodiscard]] bool Wanted() const override {
    const auto session = session_.lock();
    return session && !session->gone && session->connection->Queued() < kMaxQueued;
  }

 private:
  void Send(FrameType type, const json& value) {
    const auto session = session_.lock();
    if (session && !session->gone) session->connection->Send(type, Text(value));
  }
  const std::weak_ptr<Session> session_;
};

ControlServer::ControlServer(common::EventLoop& loop, common::ListeningSocket socket)
    : loop_{loop},
      listener_{loop,
                std::move(socket),
                {.max_connections = kMaxSessions},
                {.on_connection = [this](common::Listener::Connection c) { OnConnection(std::move(c)); },
                 .on_trouble = [](const std::string& text) { spdlog::warn("operators: {}", text); }}} {}

ControlServer::~ControlServer() = default;

void ControlServer::OnConnection(common::Listener::Connection accepted) {
  const auto& session = sessions_.emplace_back(std::make_shared<Session>());
  session->slot = std::move(accepted.slot);
  session->connection =
      std::make_unique<Connection>(loop_, std::move(accepted.socket),
                                   Connection::Handlers{
                                       .on_frame =
                                           [this, s = session.get()](FrameType type, std::string_view payload) {
                                             if (type == kControlRequest && !std::exchange(s->asked, true))
                                               return OnRequest(s, payload);
                                             Remove(s);
                                           },
                                       .on_closed = [this, s = session.get()](const Connection::Closed&) { Remove(s); },
                                       .on_drained = {},
                                   });
}

void ControlServer::OnRequest(Session* session, std::string_view payload) {
  for (const auto& known : sessions_) {
    if (known.get() != session) continue;
    const auto reply = std::make_shared<SessionReply>(known);
    // A copy of what an operator has nested deeply would use up the stack: nothing of the request is copied.
    const json request = json::parse(payload, nullptr, false);
    const auto name = request.find("command");
    if (!request.is_object() || name == request.end() || !name->is_string()) {
      return reply->Fail("the request is not understood");
    }
    const auto command = commands_.find(name->get_ref<const std::string&>());
    if (command == commands_.end()) return reply->Fail("unknown command: " + name->get<std::string>());
    static const json kNone = json::object();
    const auto arguments = request.find("arguments");
    return command->second(arguments != request.end() ? *arguments : kNone, reply);
  }
}

void ControlServer::Remove(Session* session) {
  if (std::exchange(session->gone, true)) return;
  // A caller may still use it.
  forget_gone_ = loop_.Soon([this] { std::erase_if(sessions_, [](const auto& s) { return s->gone; }); });
}

}  // namespace mgr
