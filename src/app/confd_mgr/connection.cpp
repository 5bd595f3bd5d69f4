// Construction, and the ConfD connection coming and going.
#include <utility>

#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"
#include "utils/fault.h"
#include "utils/ip_spoofing_utils.h"

namespace ip_spoofing_app {
namespace {

constexpr char kTraceCategory[] = "ip-spoofing-app";

}  // namespace

ConfDAppMgr::ConfDAppMgr(qmmw_t* mw, ip_spoofing_mgr::IpSpoofingPreventionMgrClient* client, std::string name)
    : QmConfdInterface(false, std::move(name), mw, ELEM_CONFD_PHASE_2, 0),
      mgr_client_{client},
      category_{qmmw_trace_register_category(kTraceCategory)},
      max_entries_{get_max_ip_spoofing_entries()} {
  if (mgr_client_ == nullptr) FATAL_FAULT("qmos-ip-spoofing-app confD initialization error: client is null.");
  Init(0);
}

ConfDAppMgr::~ConfDAppMgr() = default;

void ConfDAppMgr::AppConnect() {
  LOG_INFO_LINE(category_, "ConfD AppConnect started");
  ip_spoofing_register_status_callbacks();
  if (confd_register_done(DaemonContext()) != CONFD_OK) FATAL_FAULT("%s", confd_lasterr());
  ConfDSubscribe();
  // With the manager away the load waits for its connection.
  if (mgr_client_->GetConnectionStatus() != nullptr && mgr_client_->GetConnectionStatus()->connected != 0) {
    if (LoadConfDCfg(false) != 0) FATAL_FAULT("Failed to load ConfD Configuration");
  }
  qmmw_fd_register(Middleware(), SubscrSocket(), this, TreatSubscriptionMsg);
}

void ConfDAppMgr::AppDisconnect() {
  if (waiting_response_) {
    NON_FATAL_FAULT("ConfD disconnected while waiting for delayed response");
    waiting_response_ = false;
    trans_ctx_ = nullptr;
  }
  qmmw_fd_deregister(Middleware(), SubscrSocket());
}

}  // namespace ip_spoofing_app
