/// @file mgr_callbacks.h
/// What the ip-spoofing manager's client tells the daemon.
#pragma once

#include <list>

#include "ip_spoofing_mgr_client.h"

namespace ip_spoofing_app {

/// Reacts to the manager's connection and to its status list; every other notification is of no interest here.
/// Stateless: it finds the rest of the daemon through the application. Called on the loop's thread.
class IpSpoofingMgrClientCbItf : public ip_spoofing_mgr::IpSpoofingPreventionMgrClient::CallbackItf {
 public:
  /// Sends the whole configuration anew, unless ConfD is not connected: then its connection will.
  void OnMgrConnected() override;
  /// Takes the rows to the status provider; drops them while ConfD is not connected.
  /// Throws std::length_error or std::bad_alloc for a list that no memory holds; the rows served so far then stay.
  void OnAllowedIpList(const std::list<ip_spoofing_mgr::AllowedIpStatusEntry>& list) override;

  void OnNotification3() override {}
  void OnNotification4() override {}
  void OnNotification5() override {}
  void OnNotification6() override {}
  void OnNotification7() override {}
  void OnNotification8() override {}
  void OnNotification9() override {}
  void OnNotification10() override {}
  void OnNotification12() override {}
  void OnNotification13() override {}
  void OnNotification14() override {}
  void OnNotification15() override {}
};

}  // namespace ip_spoofing_app
