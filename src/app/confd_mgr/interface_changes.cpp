// Interfaces created, deleted and changed by a commit.
#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"
#include "app/confd_mgr/diff_walk.h"
#include "limid.h"
#include "utils/fault.h"

namespace ip_spoofing_app {

int ConfDAppMgr::HandleIpSpoofingIfacesDiff() {
  if (cdb_set_namespace(cdb_sock_, IP_SPOOFING_NS_HASH) != CONFD_OK) {
    LOG_ERROR_LINE(category_, "Cannot set namespace to IP-SPOOFING on loadCfg");
    return -1;
  }
  const int point = subscr_ids_[SUBSCR_IFACE];
  if (cdb_diff_iterate(SubscrSocket(), point, IpSpoofingIfacesDiffItDel, kDeletePassFlags, this) != CONFD_OK) {
    NON_FATAL_FAULT("FAILED in receiving IpSpoofing Ifaces Delete changes from database, Error: %s", confd_lasterr());
  }
  const int result = cdb_diff_iterate(SubscrSocket(), point, IpSpoofingIfacesDiffItCreate, kCreatePassFlags, this);
  if (result != CONFD_OK) {
    NON_FATAL_FAULT("FAILED in receiving IpSpoofing Ifaces Create/Edit changes from database, Error: %s",
                    confd_lasterr());
  }
  return result;
}

confd_iter_ret ConfDAppMgr::IpSpoofingIfacesDiffItDel(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldv,
                                                      confd_value_t* newv, void* state) {
  const std::string name = checked_interface_name(CALL_SITE, kp, state);
  auto* const mgr = static_cast<ConfDAppMgr*>(state);
  if (op != MOP_DELETED) return omit_change(CALL_SITE, mgr->category_, kp, op, name);
  return mgr->IpSpoofingIfacesDiffIt(kp, op, oldv, newv, state);
}

confd_iter_ret ConfDAppMgr::IpSpoofingIfacesDiffItCreate(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldv,
                                                         confd_value_t* newv, void* state) {
  const std::string name = checked_interface_name(CALL_SITE, kp, state);
  auto* const mgr = static_cast<ConfDAppMgr*>(state);
  if (op == MOP_DELETED) return omit_change(CALL_SITE, mgr->category_, kp, op, name);
  return mgr->IpSpoofingIfacesDiffIt(kp, op, oldv, newv, state);
}

confd_iter_ret ConfDAppMgr::IpSpoofingIfacesDiffIt(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* /*oldv*/,
                                                   confd_value_t* /*newv*/, void* state) {
  if (state == nullptr) FATAL_FAULT("%s: pConfDAppMgr is null", __func__);
  const std::string path = keypath_text(kp);
  const std::string name = interface_name_of(kp);
  LOG_DETAIL_LINE(category_, "path[%s] kplen[%d] op[%d] iface: %s", path.c_str(), kp->len, op, name.c_str());

  limid_t limid{};
  limid_from_intfname(&limid, name.c_str());
  limid_type_t type = limid_type_gigabit_ethernet;  // stands where the interface has no type
  limid_to_type(limid, &type);
  const bool qualifies = limid_type_compare(type, limid_type_serviceport) == 0;

  // The allow-all mode is only ever sent while the port is enabled: after its enable, before its disable.
  switch (op) {
    case MOP_CREATED:
      if (qualifies) {
        LOG_DETAIL_LINE(category_, "SendIpSpoofing true for %s", name.c_str());
        mgr_client_->SendIpSpoofing(&limid, true);
      }
      UpdateAllowedIpAllConfig(op, path, name);
      break;
    case MOP_DELETED:
      UpdateAllowedIpAllConfig(op, path, name);
      if (qualifies) {
        LOG_DETAIL_LINE(category_, "SendIpSpoofing false for %s", name.c_str());
        mgr_client_->SendIpSpoofing(&limid, false);
      }
      break;
    case MOP_MODIFIED:
    case MOP_VALUE_SET:
    case MOP_ATTR_SET:
      UpdateAllowedIpAllConfig(op, path, name);
      break;
    case MOP_MOVED_AFTER:
    default:
      break;
  }
  return ITER_CONTINUE;
}

void ConfDAppMgr::UpdateAllowedIpAllConfig(int op, const std::string& path, const std::string& name) {
  const QmConfdCdbSession before(this, CDB_PRE_COMMIT_RUNNING, true);
  const AllowedAllMode old_mode = read_allowed_all_mode([&before] { return before.Socket(); }, path);
  limid_t limid{};
  limid_from_intfname(&limid, name.c_str());

  if (op != MOP_DELETED) {
    const AllowedAllMode new_mode = read_allowed_all_mode([this] { return cdb_sock_; }, path);
    if (new_mode == old_mode) return;
    LOG_DETAIL_LINE(category_, "op[%d] sending allowed-ip[%s] old[%d] for[%s]", op, allowed_all_name(new_mode),
                    static_cast<int>(old_mode), name.c_str());
    mgr_client_->SendAllowedIpAll(&limid, new_mode);
    return;
  }
  if (old_mode == ip_spoofing_mgr::kAllowedAllNone) return;
  mgr_client_->SendAllowedIpAll(&limid, ip_spoofing_mgr::kAllowedAllNone);
  LOG_DETAIL_LINE(category_, "op[%d] sending allowed-ip[%s] old[%d] for[%s]", op,
                  allowed_all_name(ip_spoofing_mgr::kAllowedAllNone), static_cast<int>(old_mode), name.c_str());
}

}  // namespace ip_spoofing_app
