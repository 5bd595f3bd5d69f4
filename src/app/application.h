/// @file application.h
/// The application object: one per process, owner of everything else.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "app/app_log.h"
#include "app/mgr_callbacks.h"
#include "ip_spoofing_mgr_client.h"
#include "qmmw.h"

namespace ip_spoofing_app {

class ConfDAppMgr;

/// Owns the middleware handle, the log, the manager client and the ConfD manager. Loop thread only.
class Application {
 public:
  /// The one application, built on the first call; destroyed by the process-exit handlers.
  static Application* Instance();

  /// Builds everything but connects to nothing. What the daemon cannot run without is a fatal fault.
  explicit Application(std::string name);
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  virtual ~Application();

  /// Runs the middleware's loop until it ends; 0 is its normal end. Wraps `qmmw_loop_while`.
  int Run();

  const std::string& Name() const { return name_; }
  /// Both are owned here and null once destruction has reached them.
  ip_spoofing_mgr::IpSpoofingPreventionMgrClient* MgrClient() const { return mgr_client_.get(); }
  ConfDAppMgr* ConfdManager() const { return p_confd_mgr_.get(); }

 private:
  [[maybe_unused]] int32_t pid_;
  bool running_ = false;  // the loop's flag; nothing in the daemon clears it
  std::string name_;
  IpSpoofingMgrClientCbItf mgr_client_cb_;
  std::unique_ptr<ip_spoofing_mgr::IpSpoofingPreventionMgrClient> mgr_client_;
  std::unique_ptr<ConfDAppMgr> p_confd_mgr_;
  qmmw_t* mw_ = nullptr;
  std::unique_ptr<IpSpoofAppLog> log_;
};

}  // namespace ip_spoofing_app
