#include "app/confd_mgr/diff_walk.h"

#include "app/app_log.h"
#include "utils/fault.h"

namespace ip_spoofing_app {

std::string checked_interface_name(const CallSite& site, const confd_hkeypath_t* kp, const void* state) {
  if (kp == nullptr) FATAL_FAULT_AT(site, "%s kp is null", site.function);
  if (state == nullptr) FATAL_FAULT_AT(site, "%s pConfDAppMgr is null", site.function);
  return interface_name_of(kp);
}

confd_iter_ret omit_change(const CallSite& site, zlog_category_t* category, const confd_hkeypath_t* kp,
                           confd_iter_op op, const std::string& name) {
  LOG_DETAIL_LINE_AT(site, category, "Omitting kplen[%d] op[%d] iface: %s", kp->len, op, name.c_str());
  return ITER_CONTINUE;
}

}  // namespace ip_spoofing_app
