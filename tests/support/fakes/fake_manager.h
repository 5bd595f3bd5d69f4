/// @file fake_manager.h
/// Manager client that records every request as a line with its decoded record.
///
/// Lines: "SendIpSpoofing eth3 true", "SendAllowedIpAll eth3 3", "SendAddEntry eth3 10.0.0.1 vlan 100 mac
/// 02:00:00:00:00:01". What a record should not hold is appended: " family 1", " reserved1 5", " dirty" (bytes behind
/// an IPv4 address or in the padding), " state 1", " foreign mac" (the second pointer is not the record's own field).
/// Scripted answer: "Connect".
#pragma once

#include <list>
#include <string>

#include "ip_spoofing_mgr_client.h"

namespace fakes {

struct Manager {
  /// Takes the role of the connection: what GetConnectionStatus() points at, unless `status_is_null`.
  ip_spoofing_mgr::ConnectionStatus status{};
  bool status_is_null = false;

  // What the client object made last was given.
  ip_spoofing_mgr::IpSpoofingPreventionMgrClient* client = nullptr;
  ip_spoofing_mgr::IpSpoofingPreventionMgrClient::CallbackItf* callbacks = nullptr;
  qmmw_t* mw = nullptr;
};

Manager& TheManager();

/// A record as the request lines show it.
std::string Describe(const ip_spoofing_mgr::AllowedIpEntry& entry);

}  // namespace fakes
