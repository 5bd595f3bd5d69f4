#include "control_client.h"

#include <chrono>
#include <optional>

#include "common/paths.h"
#include "common/unix_socket.h"
#include "control/control_wire.h"
#include "ip_spoofing_mgr_wire/connection.h"

namespace mgr {

using ip_spoofing_mgr::wire::Connection;
using ip_spoofing_mgr::wire::FrameType;
using nlohmann::json;

common::Status AskManager(const std::string& command, const json& arguments,
                          const std::function<void(const json& part)>& on_part) {
  const std::string path = common::MgrControlSocketPath();
  auto socket = common::ConnectUnix(path, SOCK_STREAM | SOCK_NONBLOCK);
  if (!socket) return common::Error{"cannot reach ip-spoofing-mgr", "", socket.error().Text()};
  const auto loop = common::EventLoop::Create(false);
  if (!loop) return common::SystemError("event loop", "", errno);

  std::optional<common::Status> result;
  Connection connection{*loop, std::move(socket).value(),
                        Connection::Handlers{
                            .on_frame =
                                [&](FrameType type, std::string_view payload) {
                                  const json value = json::parse(payload, nullptr, false);
                                  if (type == kControlPart) return on_part(value);
                                  if (type != kControlEnd) return;
                                  const std::string error = value.value("error", "");
                                  result = error.empty() ? common::Ok() : common::Status{common::Error{error, "", ""}};
                                },
                            .on_closed =
                                [&](const Connection::Closed& why) {
                                  if (!result)
                                    result = common::Error{"ip-spoofing-mgr ended the connection", "", why.text};
                                },
                            .on_drained = {},
                        }};
  connection.Send(kControlRequest, json{{"command", command}, {"arguments", arguments}}.dump());
  while (!result) {
    if (const int error = loop->RunOnce(std::chrono::milliseconds{-1}); error != 0) {
      return common::SystemError("event loop", "", error);
    }
  }
  return *result;
}

}  // namespace mgr
