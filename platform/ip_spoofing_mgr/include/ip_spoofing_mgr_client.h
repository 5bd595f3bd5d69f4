/// @file ip_spoofing_mgr_client.h
/// Client of the ip-spoofing manager: requests, the connection, and the callbacks. The records are binary interfaces
/// with the manager; the virtual tables have exactly the slots and the order written here.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <list>
#include <memory>
#include <type_traits>

#include "limid.h"
#include "qmmw.h"

namespace ip_spoofing_mgr {

/// Allow-all switch of a port.
using AllowedAllMode = uint32_t;
inline constexpr AllowedAllMode kAllowedAllNone = 0;
inline constexpr AllowedAllMode kAllowedAllIpv4 = 1;
inline constexpr AllowedAllMode kAllowedAllIpv6 = 2;
inline constexpr AllowedAllMode kAllowedAllAll = 3;

/// One allowed source on one interface.
struct AllowedIpEntry {
  uint32_t family;      ///< 0: IPv4, else IPv6
  uint8_t address[16];  ///< network order; IPv4: the first 4 bytes
  uint16_t reserved1;
  uint8_t padding1[2];
  uint16_t vlan;  ///< VLAN id, 0 for untagged
  uint16_t reserved2;
  uint8_t mac[6];  ///< transmission order; all zero: any
  limid_t limid;
  uint8_t padding2[2];
  uint32_t state;
};
static_assert(sizeof(AllowedIpEntry) == 44 && alignof(AllowedIpEntry) == 4);
static_assert(offsetof(AllowedIpEntry, family) == 0 && offsetof(AllowedIpEntry, address) == 4 &&
              offsetof(AllowedIpEntry, reserved1) == 20 && offsetof(AllowedIpEntry, padding1) == 22 &&
              offsetof(AllowedIpEntry, vlan) == 24 && offsetof(AllowedIpEntry, reserved2) == 26 &&
              offsetof(AllowedIpEntry, mac) == 28 && offsetof(AllowedIpEntry, limid) == 34 &&
              offsetof(AllowedIpEntry, padding2) == 38 && offsetof(AllowedIpEntry, state) == 40);
static_assert(std::has_unique_object_representations_v<AllowedIpEntry>);
static_assert(sizeof(limid_t) == 4 && alignof(limid_t) == 2);

/// One row of the manager's list of installed entries: an entry behind three fields of its own.
struct AllowedIpStatusEntry {
  uint32_t type;      ///< 0: one allowed address, else the allow-all mode of the port
  uint16_t all_vlan;  ///< VLAN of an allow-all row
  uint8_t flag;
  uint8_t padding0;
  uint32_t family;
  uint8_t address[16];
  uint16_t reserved1;
  uint8_t padding1[2];
  uint16_t vlan;
  uint16_t reserved2;
  uint8_t mac[6];
  limid_t limid;
  uint8_t padding2[2];
  uint32_t state;  ///< 1: in force
};
static_assert(sizeof(AllowedIpStatusEntry) == 52 && alignof(AllowedIpStatusEntry) == 4);
static_assert(offsetof(AllowedIpStatusEntry, type) == 0 && offsetof(AllowedIpStatusEntry, all_vlan) == 4 &&
              offsetof(AllowedIpStatusEntry, flag) == 6 && offsetof(AllowedIpStatusEntry, padding0) == 7 &&
              offsetof(AllowedIpStatusEntry, family) == 8 && offsetof(AllowedIpStatusEntry, address) == 12 &&
              offsetof(AllowedIpStatusEntry, reserved1) == 28 && offsetof(AllowedIpStatusEntry, padding1) == 30 &&
              offsetof(AllowedIpStatusEntry, vlan) == 32 && offsetof(AllowedIpStatusEntry, reserved2) == 34 &&
              offsetof(AllowedIpStatusEntry, mac) == 36 && offsetof(AllowedIpStatusEntry, limid) == 42 &&
              offsetof(AllowedIpStatusEntry, padding2) == 46 && offsetof(AllowedIpStatusEntry, state) == 48);
static_assert(std::has_unique_object_representations_v<AllowedIpStatusEntry>);

/// What GetConnectionStatus() points at.
struct ConnectionStatus {
  int32_t connected;         ///< nonzero while the client is connected to the manager
  uint32_t connections;      ///< connections made so far
  uint32_t pending_objects;  ///< objects with a request that the manager has not acknowledged yet
};

/// Every call is made on the loop's thread and never blocks, Connect() excepted. Requests made while the connection is
/// down, or not acknowledged when it went, are kept (the latest per object) and delivered first on the next connection.
/// All requests made in one callback of the loop travel as one batch, after the callback has returned.
class IpSpoofingPreventionMgrClient {
 public:
  /// Called by the client from the loop. Slot numbers count the destructor pair as 0 and 1.
  class CallbackItf {
   public:
    virtual ~CallbackItf() = default;    // slots 0, 1
    virtual void OnMgrConnected() = 0;   // slot 2: on every connection, the first included
    virtual void OnNotification3() = 0;  // slots 3 to 10: not used on this platform
    virtual void OnNotification4() = 0;
    virtual void OnNotification5() = 0;
    virtual void OnNotification6() = 0;
    virtual void OnNotification7() = 0;
    virtual void OnNotification8() = 0;
    virtual void OnNotification9() = 0;
    virtual void OnNotification10() = 0;
    virtual void OnAllowedIpList(const std::list<AllowedIpStatusEntry>& list) = 0;  // slot 11
    virtual void OnNotification12() = 0;  // slots 12 to 15: not used on this platform
    virtual void OnNotification13() = 0;
    virtual void OnNotification14() = 0;
    virtual void OnNotification15() = 0;
  };

  /// Both are borrowed and outlive the client.
  IpSpoofingPreventionMgrClient(qmmw_t* mw, CallbackItf* cb);
  IpSpoofingPreventionMgrClient(const IpSpoofingPreventionMgrClient&) = delete;
  IpSpoofingPreventionMgrClient& operator=(const IpSpoofingPreventionMgrClient&) = delete;

  virtual ~IpSpoofingPreventionMgrClient();                                      // slots 0, 1
  virtual int SendIpSpoofing(const limid_t* limid, bool enable);                 // slot 2
  virtual int SendAllowedIpAll(const limid_t* limid, AllowedAllMode mode);       // slot 3
  virtual int SendAddEntry(const AllowedIpEntry* entry, const uint8_t* mac);     // slot 4
  virtual int SendRemoveEntry(const AllowedIpEntry* entry, const uint8_t* mac);  // slot 5
  virtual int SendUpdateEntry(const AllowedIpEntry* entry, const uint8_t* mac);  // slot 6
  virtual int RequestAllowedIpList();                                            // slot 7
  /// Tries for a few seconds. 0 when the link is up, and also when SIGTERM or SIGINT ends the wait: that is not a
  /// failure of the manager, and the middleware's loop then returns at once with its normal end. Else -1.
  virtual int32_t Connect();  // slot 8
  virtual void Disconnect();  // slot 9: stops reconnecting too
  /// Owned by the client. Never null on this platform.
  virtual const ConnectionStatus* GetConnectionStatus();  // slot 10

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ip_spoofing_mgr
