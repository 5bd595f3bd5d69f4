#include "common/listener.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/unix_socket.h"
#include "temp_dir/temp_dir.h"

namespace common {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// While it lives this process can open nothing: every descriptor below its limit is in use.
class NoDescriptors final {
 public:
  NoDescriptors() {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit limit{.rlim_cur = 200, .rlim_max = before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (UniqueFd fd{::dup(0)}; fd; fd.reset(::dup(0))) used_.push_back(std::move(fd));
  }
  ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit before_{};
  std::vector<UniqueFd> used_;
};

class ListenerTest : public testing::Test {
 protected:
  void Open(const Listener::Options& options = {}) {
    auto socket = ListeningSocket::Unix(path_, SOCK_STREAM, 0600);
    ASSERT_TRUE(socket.ok()) << socket.error().Text();
    listener_ = std::make_unique<Listener>(
        *loop_, std::move(socket).value(), options,
        Listener::Handlers{
            .on_connection = [this](Listener::Connection c) { connections_.push_back(std::move(c)); },
            .on_refused = [this](int socket_fd) { refused_ += ::send(socket_fd, "no", 2, MSG_NOSIGNAL) == 2 ? 1 : 0; },
            .on_trouble = [this](const std::string& text) { trouble_.push_back(text); }});
  }
  UniqueFd Connect() {
    auto connected = ConnectUnix(path_, SOCK_STREAM);
    EXPECT_TRUE(connected.ok()) << connected.error().Text();
    return std::move(connected).value();
  }
  void Run(int turns = 20) {
    for (int i = 0; i < turns; ++i) loop_->RunOnce(milliseconds{0});
  }
  /// What the peer has heard; "" if it was closed without a word, "open" if nothing has come.
  static std::string Heard(const UniqueFd& fd) {
    std::string buffer(16, '\0');
    const ssize_t got = ::recv(fd.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    return got < 0 ? "open" : buffer.substr(0, static_cast<size_t>(got));
  }

  const ::test::TempDir dir_;
  const std::string path_ = dir_.path() + "/socket";
  const std::unique_ptr<EventLoop> loop_ = EventLoop::Create(false);
  std::unique_ptr<Listener> listener_;
  std::vector<Listener::Connection> connections_;
  int refused_ = 0;
  std::vector<std::string> trouble_;
};

TEST_F(ListenerTest, HandsOnConnectionsWithTheirPeer) {
  Open();
  const UniqueFd a = Connect(), b = Connect();
  Run();
  ASSERT_THAT(connections_, SizeIs(2));
  EXPECT_EQ(connections_[0].peer.pid, ::getpid());
  EXPECT_EQ(connections_[0].peer.uid, ::getuid());
  EXPECT_EQ(listener_->connections(), 2U);
  EXPECT_THAT(trouble_, IsEmpty());
}

TEST_F(ListenerTest, ConnectionsAreNonBlocking) {
  Open();
  const UniqueFd a = Connect();
  Run();
  ASSERT_THAT(connections_, SizeIs(1));
  char byte = 0;
  EXPECT_EQ(::recv(connections_[0].socket.get(), &byte, 1, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ListenerTest, RefusesBeyondItsLimitAndFreesPlaces) {
  Open({.max_connections = 2});
  std::vector<UniqueFd> clients;
  for (int i = 0; i < 5; ++i) clients.push_back(Connect());
  Run();
  EXPECT_THAT(connections_, SizeIs(2));
  EXPECT_EQ(refused_, 3);
  EXPECT_EQ(Heard(clients[1]), "open");
  EXPECT_EQ(Heard(clients[2]), "no");
  EXPECT_EQ(Heard(clients[2]), "");
  EXPECT_THAT(trouble_, ElementsAre("a connection was refused: there are 2 connections"));
  connections_.pop_back();
  const UniqueFd again = Connect();
  Run();
  EXPECT_THAT(connections_, SizeIs(2));
}

TEST_F(ListenerTest, WithoutDescriptorsTurnsAwayAndStaysQuiet) {
  Open();
  std::vector<UniqueFd> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(Connect());
  {
    const NoDescriptors none;
    Run();
  }
  EXPECT_THAT(connections_, IsEmpty());
  for (const UniqueFd& client : clients) EXPECT_EQ(Heard(client), "no");
  EXPECT_THAT(trouble_, ElementsAre("accept: Too many open files"));
  const UniqueFd again = Connect();
  Run();
  EXPECT_THAT(connections_, SizeIs(1));
}

// With a limit below every open descriptor, what the reserve frees cannot be used either.
TEST_F(ListenerTest, WithoutItsReservePausesAndResumes) {
  Open({.pause = milliseconds{50}});
  const UniqueFd client = Connect();
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit nothing{.rlim_cur = 3, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &nothing), 0);
  loop_->RunOnce(milliseconds{0});
  const auto begin = std::chrono::steady_clock::now();
  loop_->RunOnce(milliseconds{20});  // waits: a listener that pauses is not ready
  const auto waited = std::chrono::steady_clock::now() - begin;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_GE(waited, milliseconds{20});
  EXPECT_THAT(connections_, IsEmpty());
  EXPECT_THAT(trouble_, ElementsAre("accept: Too many open files"));
  for (int i = 0; i < 100 && connections_.empty(); ++i) loop_->RunOnce(milliseconds{20});
  EXPECT_THAT(connections_, SizeIs(1));
  EXPECT_EQ(Heard(client), "open");
}

TEST_F(ListenerTest, DiesInsideItsHandler) {
  auto socket = ListeningSocket::Unix(path_, SOCK_STREAM, 0600);
  ASSERT_TRUE(socket.ok());
  int calls = 0;
  listener_ = std::make_unique<Listener>(*loop_, std::move(socket).value(), Listener::Options{},
                                         Listener::Handlers{.on_connection = [&](Listener::Connection) {
                                           ++calls;
                                           listener_.reset();
                                         }});
  const UniqueFd a = Connect(), b = Connect();
  Run();
  EXPECT_EQ(calls, 1);
}

TEST_F(ListenerTest, ASlotMayOutliveTheListener) {
  Open();
  const UniqueFd a = Connect();
  Run();
  ASSERT_THAT(connections_, SizeIs(1));
  listener_.reset();
  connections_.clear();
}

TEST_F(ListenerTest, TheSocketsPathGoesWithIt) {
  Open();
  struct stat info {};
  ASSERT_EQ(::stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);
  listener_.reset();
  EXPECT_NE(::stat(path_.c_str(), &info), 0);
}

TEST_F(ListenerTest, AMovedSocketKeepsItsPath) {
  auto opened = ListeningSocket::Unix(path_, SOCK_STREAM, 0600);
  ASSERT_TRUE(opened.ok());
  ListeningSocket moved{std::move(opened).value()};
  { ListeningSocket empty; }
  EXPECT_TRUE(std::filesystem::exists(path_));
  { const ListeningSocket last = std::move(moved); }
  EXPECT_FALSE(std::filesystem::exists(path_));
}

}  // namespace
}  // namespace common
