#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/event_loop.h"
#include "common/paths.h"
#include "ip_spoofing_mgr_client.h"
#include "qmmw_internal.h"
#include "request_text.h"
#include "scripted_manager.h"

namespace ip_spoofing_mgr {

/// An application's callback object; counts, and does what the test says.
class App : public IpSpoofingPreventionMgrClient::CallbackItf {
 public:
  void OnMgrConnected() override {
    ++connected;
    if (on_connected) on_connected();
  }
  void OnAllowedIpList(const std::list<AllowedIpStatusEntry>& list) override {
    sizes.push_back(list.size());
    if (on_list) on_list(list);
  }
  void OnNotification3() override { ++other; }
  void OnNotification4() override { ++other; }
  void OnNotification5() override { ++other; }
  void OnNotification6() override { ++other; }
  void OnNotification7() override { ++other; }
  void OnNotification8() override { ++other; }
  void OnNotification9() override { ++other; }
  void OnNotification10() override { ++other; }
  void OnNotification12() override { ++other; }
  void OnNotification13() override { ++other; }
  void OnNotification14() override { ++other; }
  void OnNotification15() override { ++other; }

  std::function<void()> on_connected;
  std::function<void(const std::list<AllowedIpStatusEntry>&)> on_list;
  int connected = 0;
  std::vector<size_t> sizes;
  int other = 0;
};

/// A client on the real middleware loop, which the test pumps, with a run directory of its own.
class ClientTest : public testing::Test {
 protected:
  ClientTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "mgr-client-XXXXXX").string();
    directory_ = ::mkdtemp(pattern.data());
    ::setenv(common::kRunDirVariable, directory_.c_str(), 1);
    mw_ = qmmw_init("client-test");
    MakeClient();
  }
  ~ClientTest() override {
    client_.reset();
    qmmw_finish(&mw_);
    manager_.reset();
    std::filesystem::remove_all(directory_);
  }

  common::EventLoop& loop() { return qmmw_event_loop(mw_); }
  void MakeClient() {
    client_ = std::make_unique<IpSpoofingPreventionMgrClient>(mw_, &app_);
    status_ = client_->GetConnectionStatus();
  }
  void StartManager() { manager_ = std::make_unique<ScriptedManager>(); }
  /// A manager and a client that is connected to it and has told so.
  void StartConnected() {
    StartManager();
    ASSERT_EQ(client_->Connect(), 0);
    Idle();
  }

  /// Turns the loop until nothing is ready.
  void Idle() {
    for (int i = 0; i < 10; ++i) loop().RunOnce(std::chrono::milliseconds{0});
  }
  bool Until(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{10};
    while (!done() && std::chrono::steady_clock::now() < deadline) loop().RunOnce(std::chrono::milliseconds{5});
    return done();
  }
  /// Runs `work` as one callback of the loop, and what follows from it.
  void InCallback(std::function<void()> work) {
    bool ran = false;
    const common::ScheduledTask task = loop().After(std::chrono::nanoseconds{0}, [&, work = std::move(work)] {
      ran = true;
      work();
    });
    Until([&] { return ran; });
    Idle();
  }
  std::vector<std::string> Heard() {
    Idle();
    return manager_->Take();
  }

  void SendEnable(uint16_t port) {
    const limid_t limid{{port, 0}};
    EXPECT_EQ(client_->SendIpSpoofing(&limid, true), 0);
  }
  void SendMode(uint16_t port, AllowedAllMode mode) {
    const limid_t limid{{port, 0}};
    EXPECT_EQ(client_->SendAllowedIpAll(&limid, mode), 0);
  }
  void SendAdd(uint16_t port, const std::string& address) {
    const AllowedIpEntry entry = Entry(port, 0, address);
    EXPECT_EQ(client_->SendAddEntry(&entry, entry.mac), 0);
  }
  void SendRemove(uint16_t port, const std::string& address) {
    const AllowedIpEntry entry = Entry(port, 0, address);
    EXPECT_EQ(client_->SendRemoveEntry(&entry, entry.mac), 0);
  }

  std::string directory_;
  qmmw_t* mw_ = nullptr;
  App app_;
  const ConnectionStatus* status_ = nullptr;  ///< to look at without asking: asking while connected has a meaning
  std::unique_ptr<IpSpoofingPreventionMgrClient> client_;
  std::unique_ptr<ScriptedManager> manager_;
};

}  // namespace ip_spoofing_mgr
