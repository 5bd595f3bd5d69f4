// Allowed IPv4 entries created, deleted and changed by a commit.
#include <cstring>
#include <sstream>

#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"
#include "app/confd_mgr/diff_walk.h"
#include "limid.h"
#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

void fill_keys(const confd_hkeypath_t* kp, AllowedIpEntry* entry) {
  // Spelt with the number for the text of the failed assertion, as in interface_name_of().
  static_assert(kIpv4EntryLength == 7);
  const struct in_addr address = CONFD_GET_IPV4(&kp->v[kp->len - 7][0]);
  std::memcpy(entry->address, &address, sizeof address);
  entry->vlan = static_cast<uint16_t>(CONFD_GET_INT32(&kp->v[kp->len - 7][1]));
  entry->family = 0;
  entry->reserved1 = 0;
  entry->state = 0;
}

}  // namespace

int ConfDAppMgr::HandleIpSpoofingAllowedIpIPv4Diff() {
  if (cdb_set_namespace(cdb_sock_, IP_SPOOFING_NS_HASH) != CONFD_OK) {
    LOG_ERROR_LINE(category_, "Cannot set namespace to IP-SPOOFING on loadCfg");
    return -1;
  }
  const int point = subscr_ids_[SUBSCR_ALLOWED_IPV4];
  if (cdb_diff_iterate(SubscrSocket(), point, IpSpoofingAllowedIpIPv4DiffItDel, kDeletePassFlags, this) != CONFD_OK) {
    NON_FATAL_FAULT("FAILED in receiving AllowedIP-Addresses Delete changes from database");
  }
  const int result =
      cdb_diff_iterate(SubscrSocket(), point, IpSpoofingAllowedIpIPv4DiffItCreate, kCreatePassFlags, this);
  if (result != CONFD_OK) {
    NON_FATAL_FAULT("FAILED in receiving AllowedIP-Addresses Create/Edit changes from database");
  }
  return result;
}

confd_iter_ret ConfDAppMgr::IpSpoofingAllowedIpIPv4DiffItDel(confd_hkeypath_t* kp, confd_iter_op op,
                                                             confd_value_t* oldv, confd_value_t* newv, void* state) {
  const std::string name = checked_interface_name(CALL_SITE, kp, state);
  auto* const mgr = static_cast<ConfDAppMgr*>(state);
  if (op != MOP_DELETED) return omit_change(CALL_SITE, mgr->category_, kp, op, name);
  return mgr->IpSpoofingAllowedIpIPv4DiffIt(kp, op, oldv, newv, state);
}

confd_iter_ret ConfDAppMgr::IpSpoofingAllowedIpIPv4DiffItCreate(confd_hkeypath_t* kp, confd_iter_op op,
                                                                confd_value_t* oldv, confd_value_t* newv, void* state) {
  const std::string name = checked_interface_name(CALL_SITE, kp, state);
  auto* const mgr = static_cast<ConfDAppMgr*>(state);
  if (op == MOP_DELETED) return omit_change(CALL_SITE, mgr->category_, kp, op, name);
  return mgr->IpSpoofingAllowedIpIPv4DiffIt(kp, op, oldv, newv, state);
}

confd_iter_ret ConfDAppMgr::IpSpoofingAllowedIpIPv4DiffIt(confd_hkeypath_t* kp, confd_iter_op op,
                                                          confd_value_t* /*oldv*/, confd_value_t* /*newv*/,
                                                          void* /*state*/) {
  std::ostringstream path;
  path << keypath_text(kp);
  AllowedIpEntry entry = new_entry();
  const std::string name = interface_name_of(kp);
  LOG_DETAIL_LINE(category_, "called kplen[%d] op[%d] iface: %s", kp->len, op, name.c_str());

  if (kp->len < kIpv4EntryLength) {
    if (kp->len <= kInterfaceEntryLength && op == MOP_DELETED) {
      path << "/" << kAllowedIpv4;
      DeleteEntireAllowedIpIpv4List(path.str(), name);
    }
    return ITER_CONTINUE;
  }

  fill_keys(kp, &entry);
  limid_from_intfname(&entry.limid, name.c_str());
  // From the configuration after the commit: the remove of an entry carries no MAC.
  ReadEntryMac(CALL_SITE, cdb_sock_, path.str(), &entry);
  switch (op) {
    case MOP_CREATED:
      LOG_DETAIL_LINE(category_, "SendAddEntry for [%s] ip[%s] vlan[%d]", name.c_str(), address_text(entry).data(),
                      entry.vlan);
      mgr_client_->SendAddEntry(&entry, entry.mac);
      return ITER_CONTINUE;
    case MOP_DELETED:
      LOG_DETAIL_LINE(category_, "SendRemoveEntry for [%s] ip[%s] vlan[%d]", name.c_str(), address_text(entry).data(),
                      entry.vlan);
      mgr_client_->SendRemoveEntry(&entry, entry.mac);
      return ITER_CONTINUE;
    case MOP_MODIFIED:
    case MOP_VALUE_SET:
      LOG_DETAIL_LINE(category_, "SendUpdateEntry for [%s] ip[%s] vlan[%d]", name.c_str(), address_text(entry).data(),
                      entry.vlan);
      mgr_client_->SendUpdateEntry(&entry, entry.mac);
      return ITER_CONTINUE;
    case MOP_MOVED_AFTER:
    case MOP_ATTR_SET:
    default:
      LOG_ERROR_LINE(category_, "Invalid operation = %d.", op);
      return ITER_STOP;
  }
}

}  // namespace ip_spoofing_app
