// Registration of the status list with ConfD, and the transactions around its reads.
#include <cstdio>

#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"
#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

constexpr char kCallpoint[] = "show-allowed-ip";

}  // namespace

ConfDAppMgr* ConfDAppMgr::ManagerOf(const confd_trans_ctx* tctx) {
  return static_cast<ConfDAppMgr*>(tctx->dx->d_opaque);
}

void ConfDAppMgr::ip_spoofing_register_status_callbacks() {
  confd_daemon_ctx* const daemon = DaemonContext();
  daemon->d_opaque = this;

  confd_trans_cbs transaction{};
  transaction.init = show_allowed_ip_trans_init;
  transaction.finish = show_allowed_ip_trans_finish;
  const int result = confd_register_trans_cb(daemon, &transaction);
  if (result != CONFD_OK) FATAL_FAULT("Failed to register status transaction. Ret[%d]", result);

  confd_data_cbs data{};
  std::snprintf(data.callpoint, sizeof data.callpoint, "%s", kCallpoint);
  data.get_next = handle_get_next_allowed_ip;
  data.get_object = handle_get_obj_allowed_ip;
  if (confd_register_data_cb(daemon, &data) != CONFD_OK) FATAL_FAULT("Couldn't register status callback");
  LOG_DETAIL_LINE(category_, "Register ConfD status callback OK");
}

int ConfDAppMgr::show_allowed_ip_trans_init(confd_trans_ctx* tctx) {
  ConfDAppMgr* const mgr = ManagerOf(tctx);
  LOG_INFO_LINE(mgr->category_, "Trans init session[%d]", tctx->thandle);
  confd_trans_set_fd(tctx, mgr->WorkerSocket());
  return CONFD_OK;
}

int ConfDAppMgr::show_allowed_ip_trans_finish(confd_trans_ctx* tctx) {
  LOG_INFO_LINE(ManagerOf(tctx)->category_, "Trans finish session[%d]", tctx->thandle);
  return CONFD_OK;
}

}  // namespace ip_spoofing_app
