#include "app/application.h"

#include <unistd.h>

#include <utility>

#include "app/confd_mgr/confd_app_mgr.h"
#include "utils/fault.h"

namespace ip_spoofing_app {

Application* Application::Instance() {
  static Application application("ip-spoofing-app");
  return &application;
}

Application::Application(std::string name) : pid_{getpid()}, name_{std::move(name)} {
  mw_ = qmmw_init(name_.c_str());
  if (mw_ == nullptr) FATAL_FAULT("ip_spoofing_app could not instantiate qmmw_");
  log_ = std::make_unique<IpSpoofAppLog>(mw_);
  mgr_client_ = std::make_unique<ip_spoofing_mgr::IpSpoofingPreventionMgrClient>(mw_, &mgr_client_cb_);
  p_confd_mgr_ = std::make_unique<ConfDAppMgr>(mw_, mgr_client_.get(), name_);
  if (p_confd_mgr_ == nullptr) FATAL_FAULT("p_confd_mgr_ could not instantiate ConfDAppMgr");
  running_ = true;
}

// The order is fixed: the ConfD manager borrows the client, both use the middleware.
Application::~Application() {
  p_confd_mgr_.reset();
  mgr_client_.reset();
  log_.reset();
  qmmw_finish(&mw_);
}

int Application::Run() { return qmmw_loop_while(mw_, &running_); }

}  // namespace ip_spoofing_app
