#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/listener.h"
#include "control/control_wire.h"
#include "ip_spoofing_mgr_wire/connection.h"

namespace mgr {

/// The operator's socket: one request a connection, answered by parts of JSON and an end. Loop thread only.
class ControlServer final {
 public:
  /// What a command writes to. May outlive the connection: then nothing happens.
  class Reply {
   public:
    virtual ~Reply() = default;
    virtual void Part(const nlohmann::json& part) = 0;
    virtual void End() = 0;
    virtual void Fail(const std::string& error) = 0;
    /// False when the peer is gone or does not keep up: no more parts, please.
    [[nodiscard]] virtual bool Wanted() const = 0;
  };
  /// Answers now, or keeps the reply and answers later.
  using Command = std::function<void(const nlohmann::json& arguments, const std::shared_ptr<Reply>& reply)>;

  ControlServer(common::EventLoop& loop, common::ListeningSocket socket);
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  ~ControlServer();

  void Register(const std::string& name, Command command) { commands_[name] = std::move(command); }

 private:
  struct Session;
  class SessionReply;
  void OnConnection(common::Listener::Connection accepted);
  void OnRequest(Session* session, std::string_view payload);
  void Remove(Session* session);

  common::EventLoop& loop_;
  std::map<std::string, Command> commands_;
  std::list<std::shared_ptr<Session>> sessions_;
  common::ScheduledTask forget_gone_;
  common::Listener listener_;
};

}  // namespace mgr
