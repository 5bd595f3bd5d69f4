#include "northbound/server.h"

#include <pwd.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include "netconf/framing.h"
#include "netconf/xml.h"

namespace cdbd {
namespace {

using netconf::kBaseNs;
using netconf::XmlElement;

constexpr mode_t kSocketMode = 0660;

std::string UserName(uid_t uid) {
  passwd entry{};
  passwd* found = nullptr;
  std::string buffer(4096, '\0');
  if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) return entry.pw_name;
  return std::to_string(uid);
}

/// The attributes of <rpc>, which the reply repeats as they are, and the namespaces their prefixes need.
std::string ReplyAttributes(const XmlElement& rpc) {
  std::string out;
  for (const netconf::XmlAttribute* a = rpc.attributes; a != nullptr; a = a->next) {
    if (!a->prefix.empty() && a->prefix != "xml") {
      const std::string declaration =
          " xmlns:" + std::string{a->prefix} + "=\"" + netconf::EscapedAttribute(a->name->ns) + "\"";
      if (out.find(declaration) == std::string::npos) out += declaration;
    }
    out += " ";
    if (!a->prefix.empty()) out.append(a->prefix).append(":");
    out.append(a->name->local).append("=\"").append(netconf::EscapedAttribute(a->value)).append("\"");
  }
  return out;
}

std::string ReplyWith(const std::string& attributes, std::string_view content) {
  std::string reply;
  reply.reserve(content.size() + attributes.size() + 128);
  reply.append("<rpc-reply xmlns=\"").append(kBaseNs).append("\"").append(attributes).append(">");
  reply.append(content).append("</rpc-reply>");
  return reply;
}

}  // namespace

common::Result<std::unique_ptr<NetconfServer>> NetconfServer::Listen(common::EventLoop& loop, const std::string& path,
                                                                     const SessionLimits& limits,
                                                                     std::vector<std::string> capabilities,
                                                                     Callbacks callbacks) {
  auto socket = common::ListeningSocket::Unix(path, SOCK_STREAM, kSocketMode);
  if (!socket) return socket.error();
  return std::unique_ptr<NetconfServer>{
      new NetconfServer{loop, std::move(socket).value(), limits, std::move(capabilities), std::move(callbacks)}};
}

NetconfServer::NetconfServer(common::EventLoop& loop, common::ListeningSocket socket, const SessionLimits& limits,
                             std::vector<std::string> capabilities, Callbacks callbacks)
    : loop_{loop},
      limits_{limits},
      capabilities_{std::move(capabilities)},
      callbacks_{std::move(callbacks)},
      listener_{loop,
                std::move(socket),
                {.max_connections = limits.max_sessions, .noun = "sessions"},
                {.on_connection = [this](common::Listener::Connection c) { OnConnection(std::move(c)); },
                 .on_refused = [this](int peer) { RefuseSession(peer); },
                 .on_trouble = [](const std::string& text) { spdlog::warn("netconf: {}", text); }}} {}

void NetconfServer::DropSessions() { sessions_.clear(); }

/// Sends an error instead of a hello, so that the peer can report the reason. A new socket has room for it.
void NetconfServer::RefuseSession(int peer) const {
  const bool full = sessions_.size() >= limits_.max_sessions;
  const RpcError error{
      .type = "transport",
      .tag = "resource-denied",
      .message = full ? "too many sessions are open: the limit is " + std::to_string(limits_.max_sessions)
                      : "the server has no descriptor left for a session"};
  std::string content;
  AppendRpcError(error, &content);
  std::string framed;
  netconf::AppendFrame(netconf::Framing::kEndOfMessage, ReplyWith("", content), &framed);
  (void)::send(peer, framed.data(), framed.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void NetconfServer::OnConnection(common::Listener::Connection connection) {
  SessionInfo info;
  info.id = ++last_id_;
  info.user = UserName(connection.peer.uid);
  info.pid = connection.peer.pid;
  info.login = std::chrono::system_clock::now();
  ++statistics_.in_sessions;
  spdlog::info("netconf: session {} of user {} (process {}) started", info.id, info.user, info.pid);
  Session::Callbacks callbacks;
  callbacks.message = [this](Session& session, const std::string& message) { OnMessage(session, message); };
  callbacks.ended = [this](Session& session, const SessionEnd& end) { OnEnded(session, end); };
  const uint32_t id = info.id;
  sessions_.emplace(id, std::make_unique<Session>(loop_, std::move(connection), std::move(info), limits_, Hello(id),
                                                  std::move(callbacks)));
}

std::string NetconfServer::Hello(uint32_t session) const {
  std::string hello{"<hello xmlns=\""};
  hello.append(kBaseNs).append("\"><capabilities>");
  for (const std::string& capability : capabilities_)
    hello += "<capability>" + netconf::Escaped(capability) + "</capability>";
  return hello + "</capabilities><session-id>" + std::to_string(session) + "</session-id></hello>";
}

void NetconfServer::OnMessage(Session& session, const std::string& message) {
  auto parsed = netconf::XmlDocument::Parse(message);
  if (!parsed) {
    RpcError error{.type = "rpc", .tag = "malformed-message", .message = parsed.error().Text()};
    if (!session.base_1_1()) error.tag = "operation-failed";  // the other tag came with base:1.1
    return Refuse(session, "", error);
  }
  std::unique_ptr<netconf::XmlDocument> document = std::move(parsed).value();
  const XmlElement& root = document->root();
  if (!root.Is(kBaseNs, "rpc")) {
    RpcError error{.type = "protocol", .tag = "unknown-element", .message = "a request is an <rpc> element"};
    error.info = BadElement(root.name->local);
    if (root.name->local == "rpc") {
      error.tag = "unknown-namespace";
      error.message = "<rpc> is not in the namespace of NETCONF";
      error.info += BadNamespace(root.name->ns);
    }
    return Refuse(session, "", error);
  }
  const std::string attributes = ReplyAttributes(root);
  if (root.Attribute("", "message-id") == nullptr) {
    RpcError error{.type = "rpc", .tag = "missing-attribute", .message = "<rpc> has no message-id"};
    error.info = BadAttribute("message-id", "rpc");
    return Refuse(session, attributes, error);
  }
  if (!netconf::Trim(root.text).empty()) {
    RpcError error{.type = "protocol", .tag = "bad-element", .message = "text where only elements are expected"};
    error.info = BadElement("rpc");
    return Refuse(session, attributes, error);
  }
  const XmlElement* operation = root.first_child;
  if (operation == nullptr || operation->next != nullptr) {
    RpcError error{.type = "protocol", .tag = operation == nullptr ? "missing-element" : "bad-element"};
    error.message = "<rpc> holds exactly one operation";
    error.info = BadElement(operation == nullptr ? "rpc" : operation->next->name->local);
    return Refuse(session, attributes, error);
  }
  ++session.info().in_rpcs;
  ++statistics_.in_rpcs;
  auto rpc = std::make_shared<Rpc>(*this, session.info().id, attributes);
  rpc->Hold(std::move(document), *operation);
  callbacks_.request(std::move(rpc));
}

void NetconfServer::Refuse(Session& session, const std::string& attributes, const RpcError& error) {
  ++session.info().in_bad_rpcs;
  ++statistics_.in_bad_rpcs;
  std::string content;
  AppendRpcError(error, &content);
  Send(session.info().id, ReplyWith(attributes, content), true);
}

void NetconfServer::OnEnded(Session& session, const SessionEnd& end) {
  const uint32_t id = session.info().id;
  spdlog::info("netconf: session {} ended{}{}", id, end.text.empty() ? "" : ": ", end.text);
  if (end.IsDropped()) ++statistics_.dropped_sessions;
  if (end.IsHelloFailure()) ++statistics_.in_bad_hellos;
  const auto found = sessions_.find(id);
  const std::unique_ptr<Session> ended = std::move(found->second);
  sessions_.erase(found);
  callbacks_.session_ended(id);
}

bool NetconfServer::Close(uint32_t session) {
  const auto found = sessions_.find(session);
  if (found == sessions_.end()) return false;
  found->second->Close();
  return true;
}

bool NetconfServer::Kill(uint32_t session) {
  const auto found = sessions_.find(session);
  if (found == sessions_.end()) return false;
  found->second->Kill();
  return true;
}

const SessionInfo* NetconfServer::Find(uint32_t session) const {
  const auto found = sessions_.find(session);
  return found == sessions_.end() ? nullptr : &found->second->info();
}

std::vector<SessionInfo> NetconfServer::Sessions() const {
  std::vector<SessionInfo> all;
  for (const auto& [id, session] : sessions_)
    if (session->open()) all.push_back(session->info());
  return all;
}

void NetconfServer::Send(uint32_t session, std::string_view reply, bool has_errors) {
  const auto found = sessions_.find(session);
  if (found == sessions_.end()) return;
  if (has_errors) {
    ++found->second->info().out_rpc_errors;
    ++statistics_.out_rpc_errors;
  }
  found->second->Reply(reply);
}

Rpc::~Rpc() {
  if (!answered_) Fail(RpcError{.message = "the request was not completed"});
}

void Rpc::Ok(const RpcErrors& warnings) {
  if (warnings.empty()) return Send("<ok/>", false);
  Fail(warnings);
}

void Rpc::Fail(const RpcErrors& errors) {
  std::string content;
  for (const RpcError& error : errors) AppendRpcError(error, &content);
  Send(content, true);
}

void Rpc::Content(std::string_view content) { Send(content, false); }

void Rpc::Send(std::string_view content, bool has_errors) {
  if (answered_) return;
  answered_ = true;
  operation_ = nullptr;
  document_.reset();
  server_->Send(session_, ReplyWith(attributes_, content), has_errors);
}

}  // namespace cdbd
