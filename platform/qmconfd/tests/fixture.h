#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/paths.h"
#include "fake_confd.h"
#include "qm_confd_interface.h"
#include "qmmw.h"
#include "qmmw_internal.h"

/// Records what it is called with, and then does what the test wants.
class App : public QmConfdInterface {
 public:
  explicit App(qmmw_t* mw) : QmConfdInterface(false, "the-app", mw, ELEM_CONFD_PHASE_2, 0) {}

  void AppConnect() override {
    TheFake().trace.push_back(std::string("AppConnect") + (IsInitialized() ? "" : " uninitialised"));
    if (on_connect) on_connect();
  }
  void AppDisconnect() override {
    TheFake().trace.push_back(std::string("AppDisconnect") + (IsInitialized() ? "" : " uninitialised") +
                              (SubscrSocket() >= 0 ? "" : " without sockets"));
    if (on_disconnect) on_disconnect();
  }
  void AppConnectPhase(ELEM_CONFD_PHASE_ET phase) override {
    TheFake().trace.push_back("AppConnectPhase " + std::to_string(phase));
  }

  std::function<void()> on_connect;
  std::function<void()> on_disconnect;
};

class InterfaceTest : public testing::Test {
 protected:
  using Trace = std::vector<std::string>;
  /// One whole connection, as the library and the application see it.
  static inline const Trace kUp = {"init daemon the-app", "connect control",
                                   "connect worker",      "connect subscription as the-app",
                                   "AppConnect",          "AppConnectPhase 2"};
  static inline const Trace kDown = {"AppDisconnect", "release daemon", "cdb_close"};

  InterfaceTest() {
    std::string name = (std::filesystem::temp_directory_path() / "qmconfd-test-XXXXXX").string();
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    folder_ = name;
    ::setenv(common::kRunDirVariable, name.c_str(), 1);
    ::setenv(common::kStateDirVariable, name.c_str(), 1);
    mw_ = qmmw_init("qmconfd-test");
    app_ = std::make_unique<App>(mw_);
  }
  ~InterfaceTest() override {
    app_.reset();
    qmmw_finish(&mw_);
    std::filesystem::remove_all(folder_);
  }

  /// Turns the loop until `done`, or until a deadline that no working code reaches.
  void Pump(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{20};
    while (!done() && std::chrono::steady_clock::now() < deadline) {
      ASSERT_EQ(qmmw_event_loop(mw_).RunOnce(std::chrono::milliseconds{20}), 0);
    }
    ASSERT_TRUE(done());
  }
  /// Turns the loop until nothing is ready.
  void PumpIdle() {
    for (int turn = 0; turn < 10; ++turn) ASSERT_EQ(qmmw_event_loop(mw_).RunOnce(std::chrono::milliseconds{0}), 0);
  }
  [[nodiscard]] ptrdiff_t Count(const std::string& entry) const {
    return std::count(fake_.trace.begin(), fake_.trace.end(), entry);
  }
  /// Init(), and the loop until the application is connected; the trace is empty then.
  void ConnectApp() {
    fake_.Start();
    app_->Init(0);
    Pump([&] { return Count("AppConnectPhase 2") == 1; });
    fake_.trace.clear();
  }

  std::filesystem::path folder_;
  FakeConfd fake_;
  qmmw_t* mw_ = nullptr;
  std::unique_ptr<App> app_;
};
