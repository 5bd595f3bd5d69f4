/// The ConfD wrapper, in this process, against a database server that is killed and started again.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/paths.h"
#include "qm_confd_cdb_session.h"
#include "qm_confd_interface.h"
#include "qmmw.h"
#include "qmmw_internal.h"
#include "support/element/checks.h"

namespace test {
namespace {

using testing::ElementsAre;

constexpr int kNamespace = 0x41fef11b;
constexpr const char* kInterfaces = "/config/anti-ip-spoofing/interface";

/// Subscribes to the interface list, and records what happens.
class Subscriber final : public QmConfdInterface {
 public:
  explicit Subscriber(qmmw_t* mw) : QmConfdInterface(false, "wrapper-test", mw, ELEM_CONFD_PHASE_2, 0) {}

  void AppConnect() override {
    trace.emplace_back("connect");
    EXPECT_EQ(confd_register_done(DaemonContext()), CONFD_OK) << confd_lasterr();
    int point = 0;
    EXPECT_EQ(cdb_subscribe(SubscrSocket(), 0, kNamespace, &point, kInterfaces), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(cdb_subscribe_done(SubscrSocket()), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(qmmw_fd_register(Middleware(), SubscrSocket(), this, &Subscriber::Message), 0);
    trace.push_back("interfaces " + std::to_string(Interfaces()));
  }
  void AppDisconnect() override {
    trace.emplace_back("disconnect");
    EXPECT_EQ(qmmw_fd_deregister(Middleware(), SubscrSocket()), 0);
  }

  /// Their number in a session of its own; -1 without a session.
  int Interfaces() {
    const QmConfdCdbSession session(this, CDB_RUNNING, true);
    if (session.Socket() < 0) return -1;
    EXPECT_EQ(cdb_set_namespace(session.Socket(), kNamespace), CONFD_OK) << confd_lasterr();
    return cdb_num_instances(session.Socket(), kInterfaces);
  }

  std::vector<std::string> trace;

 private:
  static void Message(qmmw_t*, int fd, void* ctx) {
    auto* self = static_cast<Subscriber*>(ctx);
    std::array<int, 1> points{};
    int count = 0;
    EXPECT_EQ(cdb_read_subscription_socket(fd, points.data(), &count), CONFD_OK) << confd_lasterr();
    self->trace.push_back("message, interfaces " + std::to_string(self->Interfaces()));
    EXPECT_EQ(cdb_sync_subscription_socket(fd, CDB_DONE_PRIORITY), CONFD_OK) << confd_lasterr();
  }
};

Configuration WithInterfaces(int count) {
  Configuration configuration;
  for (int i = 0; i < count; ++i) configuration["sp" + std::to_string(i)];
  return configuration;
}

class ConfdWrapper : public testing::Test {
 protected:
  ConfdWrapper() {
    ::setenv(common::kRunDirVariable, element_.RunDir().c_str(), 1);
    ::setenv(common::kStateDirVariable, element_.StateDir().c_str(), 1);
    mw_ = qmmw_init("wrapper-test");
    subscriber_ = std::make_unique<Subscriber>(mw_);
    subscriber_->Init(0);
  }
  ~ConfdWrapper() override {
    subscriber_.reset();
    qmmw_finish(&mw_);
  }
  void StartServer() {
    element_.Start(Part::kCdbd);
    ASSERT_TRUE(element_.WaitForSocket(Part::kCdbd));
  }
  /// Runs the loop until `done`.
  void Pump(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + Element::kLimit;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
      ASSERT_EQ(qmmw_event_loop(mw_).RunOnce(std::chrono::milliseconds{20}), 0);
    }
    ASSERT_TRUE(done());
  }
  /// Commits in a session of its own while the loop runs.
  void Commit(int interfaces) {
    std::atomic<bool> done = false;
    std::thread author([&] {
      CommitInPlace(element_, WithInterfaces(interfaces));
      done = true;
    });
    Pump([&] { return done.load(); });
    author.join();
  }
  [[nodiscard]] ptrdiff_t Count(const std::string& entry) const {
    return std::count(subscriber_->trace.begin(), subscriber_->trace.end(), entry);
  }

  Element element_;
  qmmw_t* mw_ = nullptr;
  std::unique_ptr<Subscriber> subscriber_;
};

TEST_F(ConfdWrapper, FollowsTheServerThroughItsDeathAndRestart) {
  StartServer();
  Pump([&] { return Count("interfaces 0") == 1; });
  Commit(2);
  element_.Kill(Part::kCdbd);
  Pump([&] { return !subscriber_->IsInitialized(); });
  EXPECT_EQ(subscriber_->Interfaces(), -1) << "the kept session's connection is not taken without its server";
  StartServer();
  Pump([&] { return subscriber_->IsInitialized(); });
  Commit(5);
  EXPECT_THAT(subscriber_->trace, ElementsAre("connect", "interfaces 0", "message, interfaces 2", "disconnect",
                                              "connect", "interfaces 2", "message, interfaces 5"));
}

TEST_F(ConfdWrapper, NoDeathOfTheServerReachesTheSubscriptionCallback) {
  const int rounds = Rounds(9);
  for (int round = 0; round < rounds; ++round) {
    StartServer();
    Pump([&] { return subscriber_->IsInitialized(); });
    element_.Kill(Part::kCdbd);
    Pump([&] { return !subscriber_->IsInitialized(); });
  }
  EXPECT_EQ(Count("connect"), rounds);
  EXPECT_EQ(Count("disconnect"), rounds);
}

TEST_F(ConfdWrapper, AResetGivesANewConnectionWithItsSubscriptions) {
  StartServer();
  Pump([&] { return subscriber_->IsInitialized(); });
  subscriber_->ResetConnection();
  Pump([&] { return Count("connect") == 2; });
  Commit(1);
  EXPECT_THAT(subscriber_->trace,
              ElementsAre("connect", "interfaces 0", "disconnect", "connect", "interfaces 0", "message, interfaces 1"));
}

}  // namespace
}  // namespace test
