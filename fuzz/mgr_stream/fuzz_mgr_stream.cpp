#include <sys/socket.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <vector>

#include "ip_spoofing_mgr_wire/connection.h"
#include "require.h"

namespace {

using namespace ip_spoofing_mgr::wire;
using fuzz::Require;
using std::chrono::milliseconds;

struct Frame {
  FrameType type;
  std::string payload;
  bool operator==(const Frame&) const = default;
};
struct Outcome {
  std::vector<Frame> frames;
  std::string end;
  bool operator==(const Outcome&) const = default;
};

/// What stands in the stream, by the definition of a frame.
Outcome Expected(std::string_view stream) {
  Outcome outcome;
  while (stream.size() >= 5) {
    uint32_t size = 0;
    stream.copy(reinterpret_cast<char*>(&size), sizeof size);
    if (size > kMaxPayload) {
      outcome.end = "a frame of " + std::to_string(size) + " bytes is too large";
      return outcome;
    }
    if (stream.size() - 5 < size) break;
    outcome.frames.push_back({static_cast<FrameType>(stream[4]), std::string{stream.substr(5, size)}});
    stream.remove_prefix(5 + size);
  }
  outcome.end = "closed by the peer";
  return outcome;
}

class Wire final {
 public:
  Wire() {
    std::array<int, 2> pair{};
    Require(loop_ && socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair.data()) == 0, "there are two ends");
    near_.reset(pair[0]);
    far_.reset(pair[1]);
  }
  common::EventLoop& loop() { return *loop_; }
  common::UniqueFd& near() { return near_; }
  common::UniqueFd& far() { return far_; }

 private:
  std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  common::UniqueFd near_, far_;
};

enum class Handler { kReads, kThrows };

/// What comes out of a stream of so many frames that arrives in pieces; a handler that throws does so at every other
/// frame.
Outcome Read(std::string_view stream, size_t frames, size_t piece, Handler handler) {
  Wire wire;
  Outcome outcome;
  Connection connection{wire.loop(), std::move(wire.near()),
                        Connection::Handlers{
                            .on_frame =
                                [&](FrameType type, std::string_view payload) {
                                  Require(outcome.end.empty(), "nothing comes after the end");
                                  outcome.frames.push_back({type, std::string{payload}});
                                  if (handler == Handler::kThrows && outcome.frames.size() % 2 == 1)
                                    throw std::runtime_error{"handler"};
                                },
                            .on_closed =
                                [&](const auto& reason) {
                                  Require(outcome.end.empty(), "it ends once");
                                  outcome.end = reason.text;
                                },
                            .on_drained = {},
                        }};
  const auto turn = [&] {
    try {
      Require(wire.loop().RunOnce(milliseconds{0}) == 0, "the loop turns");
    } catch (const std::runtime_error&) {
    }
  };
  while (!stream.empty() && outcome.end.empty()) {
    const ssize_t sent = send(wire.far().get(), stream.data(), std::min(piece, stream.size()), MSG_NOSIGNAL);
    if (sent > 0) stream.remove_prefix(static_cast<size_t>(sent));
    turn();
  }
  // What has come is handled without anything more to come, a frame a turn when the handler throws.
  for (size_t turns = 0; turns < frames + 2; ++turns) turn();
  Require(outcome.frames.size() >= frames, "every frame is handled when it is whole");
  wire.far().reset();
  for (int turns = 0; outcome.end.empty(); ++turns) {
    Require(turns < 10, "the end is seen");
    turn();
  }
  turn();
  return outcome;
}

/// The connection's owner may drop it inside of a handler.
void EndAt(size_t frame, std::string_view stream) {
  Wire wire;
  size_t seen = 0;
  std::unique_ptr<Connection> connection;
  const auto drop = [&] { connection.reset(); };
  connection = std::make_unique<Connection>(wire.loop(), std::move(wire.near()),
                                            Connection::Handlers{
                                                .on_frame =
                                                    [&](FrameType, std::string_view) {
                                                      Require(connection != nullptr, "nothing comes after its end");
                                                      if (++seen > frame) drop();
                                                    },
                                                .on_closed = [&](const auto&) { drop(); },
                                                .on_drained = {},
                                            });
  (void)send(wire.far().get(), stream.data(), stream.size(), MSG_NOSIGNAL);
  wire.far().reset();
  for (int turn = 0; turn < 4; ++turn) Require(wire.loop().RunOnce(milliseconds{0}) == 0, "the loop turns");
  Require(connection == nullptr, "the end is seen");
}

/// What Send() writes.
std::string Written(const std::vector<Frame>& frames) {
  Wire wire;
  Connection connection{wire.loop(), std::move(wire.near()),
                        Connection::Handlers{[](FrameType, std::string_view) {}, [](const auto&) {}, {}}};
  std::string bytes;
  std::array<char, 65536> chunk{};
  for (const Frame& frame : frames) {
    connection.Send(frame.type, frame.payload);
    do {
      const ssize_t size = recv(wire.far().get(), chunk.data(), chunk.size(), 0);
      if (size > 0) bytes.append(chunk.data(), static_cast<size_t>(size));
      connection.Pump(milliseconds{0});
    } while (connection.Queued() > 0);
  }
  while (true) {
    const ssize_t size = recv(wire.far().get(), chunk.data(), chunk.size(), 0);
    if (size <= 0) return bytes;
    bytes.append(chunk.data(), static_cast<size_t>(size));
  }
}

}  // namespace

/// The first byte: size of the pieces, and where the owner drops the connection; the rest: the stream.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view stream{reinterpret_cast<const char*>(data) + 1, size - 1};
  const size_t piece = 1 + (data[0] & 15U) * (data[0] & 15U);
  const Outcome expected = Expected(stream);
  Require(Read(stream, expected.frames.size(), piece, Handler::kReads) == expected, "pieces are read as the whole");
  Require(Read(stream, expected.frames.size(), stream.size(), Handler::kThrows) == expected,
          "an exception of the handler loses nothing");
  EndAt(data[0] >> 4U, stream);
  const std::string written = Written(expected.frames);
  Require(stream.starts_with(written), "what was read is written as it was read");
  Require(Expected(written).frames == expected.frames, "all of it");
  return 0;
}
