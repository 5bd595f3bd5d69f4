// The full load: whether there is something new, and the walk over the interfaces.
#include <cstdio>
#include <cstring>

#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"
#include "limid.h"
#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

constexpr int kReadTimeoutSeconds = 5;

}  // namespace

int ConfDAppMgr::LoadConfDCfg(bool force) {
  if (!IsInitialized()) {
    NON_FATAL_FAULT("ConfDAppMgr was not initialized it. please call InitConfd()");
    return -1;
  }
  const QmConfdCdbSession session(this, CDB_RUNNING, true);
  if (session.Socket() < 0) {
    LOG_ERROR_LINE(category_, "Could not start CDB session.");
    return -1;
  }
  // The test comes first, so that a forced load too remembers what it loads.
  if (IsNewConfiguration(session.Socket(), &last_txid_) || force) {
    LOG_DETAIL_LINE(category_, "Received new configuration. Loading config...");
    if (LoadConfdIpSpoof(session) != 0) {
      LOG_ERROR_LINE(category_, "Could not load %s from CDB configuration.", kConfigName);
      return -1;
    }
  }
  LOG_INFO_LINE(category_, "All LoadConfDCfg executed successfully!");
  return 0;
}

bool ConfDAppMgr::IsNewConfiguration(int socket, cdb_txid* last) {
  cdb_txid current{};
  cdb_get_txid(socket, &current);  // on failure the zeroed value counts, like any other
  if (current.s1 == last->s1 && current.s2 == last->s2 && current.s3 == last->s3 &&
      std::strncmp(current.primary, last->primary, sizeof current.primary) == 0) {
    return false;
  }
  last->s1 = current.s1;
  last->s2 = current.s2;
  last->s3 = current.s3;
  std::snprintf(last->primary, sizeof last->primary, "%.*s", static_cast<int>(sizeof last->primary) - 1,
                current.primary);
  return true;
}

int ConfDAppMgr::LoadConfdIpSpoof(const QmConfdCdbSession& session) {
  if (cdb_set_namespace(session.Socket(), IP_SPOOFING_NS_HASH) != CONFD_OK) {
    LOG_ERROR_LINE(category_, "Cannot set namespace to IP-SPOOFING on loadCfg");
    return -1;
  }
  if (cdb_exists(session.Socket(), kConfigPath) == 0) return 0;
  return LoadConfdIpSpoofAllowedIfaces(session);
}

int ConfDAppMgr::LoadConfdIpSpoofAllowedIfaces(const QmConfdCdbSession& session) {
  const int count = cdb_num_instances(session.Socket(), kInterfacePath);
  if (count < 0) {
    LOG_ERROR_LINE(category_,
                   "Failed getting number of anti-ip-spoofing interface instances from ConfD database (error %d) ",
                   count);
    return -1;
  }
  limid_type_t type = limid_type_gigabit_ethernet;  // kept from one interface to the next where there is no type
  for (int i = 0; i < count; ++i) {
    limid_t limid{};
    cdb_set_timeout(session.Socket(), kReadTimeoutSeconds);
    const std::string path = instance_path(kInterfacePath, i);
    std::string name;
    if (GetFromConfd(session.Socket(), path, kInterfaceNameLeaf, &name, LEAF_STRING, false) != 0) {
      NON_FATAL_FAULT("%s error reading %s/interface-name", __func__, path.c_str());
    }
    limid_from_intfname(&limid, name.c_str());
    limid_to_type(limid, &type);
    if (limid_type_compare(type, limid_type_serviceport) == 0) {
      LOG_DETAIL_LINE(category_, "Enable anti-ip-spoofing for: %s", name.c_str());
      mgr_client_->SendIpSpoofing(&limid, true);
    }
    const int result = LoadConfdIpSpoofAllowedIp(session, name);
    if (result != 0) return result;
  }
  return 0;
}

int ConfDAppMgr::LoadConfdIpSpoofAllowedIp(const QmConfdCdbSession& session, const std::string& name) {
  const int result = LoadConfdIpSpoofAllowedIpIPv4(session, name);
  return result != 0 ? result : LoadConfdIpSpoofAllowedIpAll(session, name);
}

int ConfDAppMgr::LoadConfdIpSpoofAllowedIpIPv4(const QmConfdCdbSession& session, const std::string& name) {
  const std::string list_path = interface_path(name) + "/" + kAllowedIpv4;
  if (cdb_exists(session.Socket(), list_path.c_str()) != 1) {
    LOG_DETAIL_LINE(category_, "There is no allowed-ip ipv4 rules for path: %s ", list_path.c_str());
    return 0;
  }
  const int count = cdb_num_instances(session.Socket(), list_path.c_str());
  if (count < 0) {
    LOG_ERROR_LINE(category_,
                   "Failed getting number of anti-ip-spoofing allowed-ip ipv4 instances from ConfD database (error %d)",
                   count);
    return -1;
  }
  AllowedIpEntry entry = new_entry();
  for (int i = 0; i < count; ++i) {
    entry = {};
    cdb_set_timeout(session.Socket(), kReadTimeoutSeconds);
    ReadEntry(CALL_SITE, session, instance_path(list_path, i), name, &entry);
    LOG_DETAIL_LINE(category_, "SendAddEntry for [%s] ip[%s] vlan[%d]", name.c_str(), address_text(entry).data(),
                    entry.vlan);
    mgr_client_->SendAddEntry(&entry, entry.mac);
  }
  return 0;
}

int ConfDAppMgr::LoadConfdIpSpoofAllowedIpAll(const QmConfdCdbSession& session, const std::string& name) {
  cdb_set_timeout(session.Socket(), kReadTimeoutSeconds);
  const AllowedAllMode mode = read_allowed_all_mode([&session] { return session.Socket(); }, interface_path(name));
  limid_t limid{};
  limid_from_intfname(&limid, name.c_str());
  const bool send = mode != ip_spoofing_mgr::kAllowedAllNone;
  LOG_INFO_LINE(category_, "%s allowedAll[%s] for[%s]", send ? "sending" : "omitting", allowed_all_name(mode),
                name.c_str());
  if (send) mgr_client_->SendAllowedIpAll(&limid, mode);
  return 0;
}

}  // namespace ip_spoofing_app
