#include "app/mgr_callbacks.h"

#include <cstring>
#include <vector>

#include "app/application.h"
#include "app/confd_mgr/confd_app_mgr.h"

namespace ip_spoofing_app {
namespace {

using ip_spoofing_mgr::AllowedIpStatusEntry;

constexpr size_t kIpv4Size = 4;

/// The ConfD manager, or null while there is none that is connected.
ConfDAppMgr* ready_confd_manager() {
  Application* const app = Application::Instance();
  if (app == nullptr) return nullptr;
  ConfDAppMgr* const confd = app->ConfdManager();
  return confd != nullptr && confd->IsInitialized() ? confd : nullptr;
}

/// The row without its padding, and without what lies behind an IPv4 address.
AllowedIpStatusEntry copy_row(const AllowedIpStatusEntry& row) {
  AllowedIpStatusEntry copy{};
  copy.type = row.type;
  copy.all_vlan = row.all_vlan;
  copy.flag = row.flag;
  copy.family = row.family;
  std::memcpy(copy.address, row.address, row.family != 0 ? sizeof copy.address : kIpv4Size);
  copy.reserved1 = row.reserved1;
  copy.vlan = row.vlan;
  copy.reserved2 = row.reserved2;
  std::memcpy(copy.mac, row.mac, sizeof copy.mac);
  copy.limid = row.limid;
  copy.state = row.state;
  return copy;
}

}  // namespace

void IpSpoofingMgrClientCbItf::OnMgrConnected() {
  if (ConfDAppMgr* const confd = ready_confd_manager()) confd->LoadConfDCfg(true);
}

void IpSpoofingMgrClientCbItf::OnAllowedIpList(const std::list<AllowedIpStatusEntry>& list) {
  ConfDAppMgr* const confd = ready_confd_manager();
  if (confd == nullptr) return;
  std::vector<AllowedIpStatusEntry> rows;
  rows.reserve(list.size());
  for (const AllowedIpStatusEntry& row : list) rows.push_back(copy_row(row));
  confd->SetEntryList(rows);
}

}  // namespace ip_spoofing_app
