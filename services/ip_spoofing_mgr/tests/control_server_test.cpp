// The operators' socket, frame by frame.
#include "control/control_server.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "common/unix_socket.h"

namespace mgr {
namespace {

using ip_spoofing_mgr::wire::Connection;
using ip_spoofing_mgr::wire::FrameType;
using nlohmann::json;

struct Asked {
  std::string name;
  std::string request;
  std::vector<std::string> heard;
};
void PrintTo(const Asked& asked, std::ostream* out) { *out << asked.name; }

class ControlServerTest : public testing::TestWithParam<Asked> {
 protected:
  ControlServerTest() {
    auto listener = common::ListenUnix(path_, SOCK_STREAM, 0600);
    EXPECT_TRUE(listener);
    server_ = std::make_unique<ControlServer>(*loop_, std::move(listener).value());
    server_->Register("tell", [](const json& arguments, const std::shared_ptr<ControlServer::Reply>& reply) {
      reply->Part({{"type", arguments.type_name()}, {"members", arguments.size()}});
      reply->End();
    });
  }
  ~ControlServerTest() override { unlink(path_.c_str()); }

  /// Sends the frames, and notes what comes until the end: "part {..}", "end {..}", "closed".
  std::vector<std::string> Ask(const std::vector<std::pair<FrameType, std::string>>& frames) {
    auto socket = common::ConnectUnix(path_, SOCK_STREAM | SOCK_NONBLOCK);
    EXPECT_TRUE(socket);
    std::vector<std::string> heard;
    bool done = false;
    Connection connection{*loop_, std::move(socket).value(),
                          Connection::Handlers{
                              .on_frame =
                                  [&](FrameType type, std::string_view payload) {
                                    done = type == kControlEnd;
                                    heard.push_back((done ? "end " : "part ") + std::string{payload});
                                  },
                              .on_closed =
                                  [&](const auto&) {
                                    done = true;
                                    heard.emplace_back("closed");
                                  },
                              .on_drained = {},
                          }};
    for (const auto& [type, payload] : frames) connection.Send(type, payload);
    for (int turn = 0; turn < 1000 && !done; ++turn) loop_->RunOnce(std::chrono::milliseconds{10});
    return heard;
  }

  const std::string path_ = testing::TempDir() + "control-" + std::to_string(getpid());
  const std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  std::unique_ptr<ControlServer> server_;
};

TEST_P(ControlServerTest, AnswersTheRequest) {
  EXPECT_EQ(Ask({{kControlRequest, GetParam().request}}), GetParam().heard);
  const std::vector<std::string> served = {R"(part {"members":1,"type":"object"})", "end {}"};
  EXPECT_EQ(Ask({{kControlRequest, R"({"command": "tell", "arguments": {"port": "eth1"}})"}}), served)
      << "the next one";
}

TEST_F(ControlServerTest, EndsAConnectionThatSaysAnythingElse) {
  EXPECT_EQ(Ask({{kControlPart, "{}"}}), std::vector<std::string>{"closed"});
}

/// As deep as a frame has room for, so deep that nothing may follow it by recursion.
std::string Deep() {
  constexpr size_t kDepth = 500'000;
  return std::string(kDepth, '[') + std::string(kDepth, ']');
}

const std::vector<std::string> kNotUnderstood = {R"(end {"error":"the request is not understood"})"};
const std::vector<Asked> kAsked{
    {"WithoutArguments", R"({"command": "tell"})", {R"(part {"members":0,"type":"object"})", "end {}"}},
    {"WithOtherArguments",
     R"({"command": "tell", "arguments": 3})",
     {R"(part {"members":1,"type":"number"})", "end {}"}},
    {"WithDeepArguments",
     R"({"command": "tell", "arguments": )" + Deep() + "}",
     {R"(part {"members":1,"type":"array"})", "end {}"}},
    {"WithADeepCommand", R"({"command": )" + Deep() + "}", kNotUnderstood},
    {"WithoutACommand", "{}", kNotUnderstood},
    {"OfAnotherType", R"(["command"])", kNotUnderstood},
    {"ThatIsDeep", Deep(), kNotUnderstood},
    {"ThatIsCutShort", R"({"command": "te)", kNotUnderstood},
    {"ThatIsEmpty", "", kNotUnderstood},
    {"OfACommandThatThereIsNot", R"({"command": "tall"})", {R"(end {"error":"unknown command: tall"})"}},
    {"InBytesThatAreNoText", "{\"command\": \"\xff\"}", kNotUnderstood},
};
INSTANTIATE_TEST_SUITE_P(Request, ControlServerTest, testing::ValuesIn(kAsked),
                         [](const auto& asked) { return asked.param.name; });

}  // namespace
}  // namespace mgr
