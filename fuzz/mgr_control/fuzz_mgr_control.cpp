#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <optional>

#include "clients/client_server.h"
#include "common/unix_socket.h"
#include "control/commands.h"
#include "control/control_server.h"
#include "dataplane/memory_dataplane.h"
#include "engine/engine.h"
#include "guard/guard.h"
#include "require.h"

namespace {

using fuzz::Require;
using ip_spoofing_mgr::wire::Connection;
using ip_spoofing_mgr::wire::FrameType;
using nlohmann::json;

struct OnePort final : mgr::PortNames, mgr::Interfaces {
  std::optional<std::string> NameOf(limid_t) override { return "eth1"; }
  std::optional<limid_t> IdOf(const std::string&) override { return limid_t{}; }
  [[nodiscard]] uint32_t IndexOf(const std::string&) const override { return 1; }
  [[nodiscard]] std::string MainNameOf(const std::string&) const override { return ""; }
};

std::string SocketPath(const char* name) { return "/tmp/fuzz_mgr_control-" + std::to_string(getpid()) + name; }
common::UniqueFd Listen(const std::string& path) {
  auto listener = common::ListenUnix(path, SOCK_STREAM, 0600);
  Require(listener.ok(), "there is a socket");
  return std::move(listener).value();
}

/// A manager with one port that allows 10.0.0.1, and its control socket.
class Manager final {
 public:
  Manager() {
    mgr::Engine::Request enable, put;
    enable.value = 1;
    put.kind = ip_spoofing_mgr::wire::RequestKind::kPut;
    put.address[0] = 10;
    put.address[3] = 1;
    const mgr::Engine::Request requests[] = {enable, put};
    engine_.Submit(requests, true, mgr::Engine::Clock::now());
    unlink(SocketPath("").c_str());  // the listening socket of the clients is not needed; that of operators is kept
  }
  ~Manager() { unlink(control_path_.c_str()); }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  /// The last answer to one request; nothing when the connection was ended without.
  std::optional<json> Ask(std::string_view request) {
    auto socket = common::ConnectUnix(control_path_, SOCK_STREAM | SOCK_NONBLOCK);
    Require(socket.ok(), "an operator can connect");
    std::optional<json> end;
    bool closed = false;
    Connection connection{*loop_, std::move(socket).value(),
                          Connection::Handlers{
                              .on_frame =
                                  [&](FrameType type, std::string_view payload) {
                                    const json answer = json::parse(payload, nullptr, false);
                                    Require(answer.is_object(), "an answer is an object");
                                    if (type == mgr::kControlEnd) end = answer;
                                  },
                              .on_closed = [&](const auto&) { closed = true; },
                              .on_drained = {},
                          }};
    connection.Send(mgr::kControlRequest, request);
    for (int turn = 0; !end && !closed; ++turn) {
      Require(turn < 1000, "a request is answered");
      Require(loop_->RunOnce(std::chrono::milliseconds{0}) == 0, "the loop turns");
    }
    return end;
  }
  void Settle() {
    for (int turn = 0; turn < 2; ++turn) loop_->RunOnce(std::chrono::milliseconds{0});
  }

 private:
  const std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  OnePort port_;
  mgr::Table table_{port_};
  mgr::MemoryDataplane plane_{100};
  mgr::Engine engine_{table_, plane_, port_, std::chrono::milliseconds{0}};
  mgr::ClientServer clients_{*loop_, Listen(SocketPath("")), {}};
  const std::string control_path_ = SocketPath("-ctl");
  mgr::ControlServer control_{*loop_, Listen(control_path_)};
  mgr::Guard guard_{*loop_, table_, plane_};
  mgr::Commands commands_{{*loop_, table_, engine_, plane_, clients_, guard_}, control_};
};

}  // namespace

/// An operator's request. Whatever it is, it is answered and the next one works.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static Manager manager;
  const auto answer = manager.Ask({reinterpret_cast<const char*>(data), size});
  Require(answer.has_value(), "it is answered");
  Require(manager.Ask(R"({"command": "show status"})") == json::object(), "the next one works");
  manager.Settle();
  return 0;
}
