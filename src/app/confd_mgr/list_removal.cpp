// The IPv4 entries of an interface that a commit deleted.
#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"

namespace ip_spoofing_app {

void ConfDAppMgr::DeleteEntireAllowedIpIpv4List(const std::string& path, const std::string& name) {
  AllowedIpEntry entry = new_entry();
  const QmConfdCdbSession before(this, CDB_PRE_COMMIT_RUNNING, true);
  if (cdb_exists(before.Socket(), path.c_str()) != 1) {
    LOG_DETAIL_LINE(category_, "There is no allowed-ip ipv4 rules for path: %s ", path.c_str());
    return;
  }
  int count = cdb_num_instances(before.Socket(), path.c_str());
  if (count < 0) {
    LOG_ERROR_LINE(category_, "Failed getting number allowed-ip ipv4 instances from ConfD (error %d)", count);
    return;
  }
  // A list that exists without being counted is probed position by position, as far as the hardware could hold it.
  if (count == 0) count = max_entries_;
  for (int i = 0; i < count; ++i) {
    const std::string instance = instance_path(path, i);
    if (cdb_exists(before.Socket(), instance.c_str()) != 1) {
      LOG_DETAIL_LINE(category_, "End of allowed-ip ipv4 list for iface: %s index[%d]", name.c_str(), i);
      break;
    }
    entry = {};
    ReadEntry(CALL_SITE, before, instance, name, &entry);
    LOG_DETAIL_LINE(category_, "SendRemoveEntry for [%s] ip[%s] vlan[%d]", name.c_str(), address_text(entry).data(),
                    entry.vlan);
    mgr_client_->SendRemoveEntry(&entry, entry.mac);
  }
  LOG_DETAIL_LINE(category_, "exiting iface: %s", name.c_str());
}

}  // namespace ip_spoofing_app
