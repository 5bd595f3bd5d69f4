// The two subscriptions, and the way of a message from its socket to the handler of each point.
#include <cstdlib>

#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"
#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

struct SubscriptionInfo {
  int32_t id;
  uint32_t ns_hash;
  const char* path;
  const char* name;
};

// The id is the priority too, so the changes of interfaces are handled before those of their entries.
constexpr SubscriptionInfo kSubscriptions[] = {
    {SUBSCR_IFACE, IP_SPOOFING_NS_HASH, kInterfacePath, "interface"},
    {SUBSCR_ALLOWED_IPV4, IP_SPOOFING_NS_HASH, kAllowedIpv4Path, "allowed-ip/ipv4"},
    {SUBSCR_MAX, 0, nullptr, nullptr},
};

}  // namespace

void ConfDAppMgr::ConfDSubscribe() {
  for (const SubscriptionInfo* row = kSubscriptions; row->id < SUBSCR_MAX; ++row) {
    if (SubscribeConfD(row->id, row->ns_hash, row->path) != 0) FATAL_FAULT("%s", confd_lasterr());
  }
  if (cdb_subscribe_done(SubscrSocket()) != CONFD_OK) FATAL_FAULT("%s", confd_lasterr());
  LOG_INFO_LINE(category_, "Register ConfD Subscription OK");
}

int ConfDAppMgr::SubscribeConfD(int id, uint32_t nspace, const char* path) {
  if (cdb_subscribe(SubscrSocket(), id, nspace, &subscr_ids_[id], path) != CONFD_OK) {
    FATAL_FAULT("%s", confd_lasterr());
  }
  return 0;
}

void ConfDAppMgr::TreatSubscriptionMsg(qmmw_t* /*mw*/, int fd, void* ctx) {
  if (ctx == nullptr) std::abort();
  auto* const mgr = static_cast<ConfDAppMgr*>(ctx);
  int points[SUBSCR_MAX] = {};
  int count = 0;
  if (cdb_read_subscription_socket(fd, points, &count) != CONFD_OK) FATAL_FAULT("%s", confd_lasterr());

  if (count > 0) {
    QmConfdCdbSession session(mgr, CDB_RUNNING, true);
    if (session.Socket() < 0) {
      LOG_ERROR_LINE(mgr->category_, "Cannot start session");
      return;
    }
    mgr->cdb_sock_ = session.Socket();
    for (int i = 0; i < count; ++i) {
      if (mgr->FindSubscription(points[i]) != 0) {
        // Left without an acknowledgement on purpose: ConfD keeps waiting for a change that was not handled.
        LOG_ERROR_LINE(mgr->category_, "Not found subscription!");
        mgr->cdb_sock_ = -1;
        return;
      }
    }
    cdb_txid txid = mgr->last_txid_;
    cdb_get_txid(session.Socket(), &txid);
    mgr->last_txid_ = txid;
    mgr->cdb_sock_ = -1;
  }

  const int result = cdb_sync_subscription_socket(fd, CDB_DONE_PRIORITY);
  if (result != CONFD_OK) LOG_ERROR_LINE(mgr->category_, "Failed to sync subscription: %d", result);
}

int ConfDAppMgr::FindSubscription(int point) {
  int id = SUBSCR_MAX;
  if (point == subscr_ids_[SUBSCR_IFACE]) {
    id = SUBSCR_IFACE;
  } else if (point == subscr_ids_[SUBSCR_ALLOWED_IPV4]) {
    id = SUBSCR_ALLOWED_IPV4;
  } else {
    NON_FATAL_FAULT("%s: Unknown subscription id %d", __func__, point);
  }
  const int result = HdlSubscriptionDiff(id);
  if (result != 0) {
    NON_FATAL_FAULT("%s: Unknown subscriber ID(%d) when treating ip-spoofing-app ConfD message", __func__, point);
  }
  return result;
}

int ConfDAppMgr::HdlSubscriptionDiff(int id) {
  switch (id) {
    case SUBSCR_IFACE:
      return HandleIpSpoofingIfacesDiff();
    case SUBSCR_ALLOWED_IPV4:
      return HandleIpSpoofingAllowedIpIPv4Diff();
    default:
      LOG_ERROR_LINE(category_, "Not found subscriptionID(%d)", id);
      return -1;
  }
}

}  // namespace ip_spoofing_app
