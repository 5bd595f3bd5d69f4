/// @file confd_app_mgr.h
/// The daemon's ConfD side: its connection, subscriptions, configuration load, change handling and status provider.
///
/// One class, with one source file per concern: connection, subscriptions, leaf_readers, load, interface_changes,
/// ipv4_changes, list_removal, status_provider, status_list.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/confd_mgr/config_model.h"
#include "confd_cdb.h"
#include "confd_dp.h"
#include "ip_spoofing_mgr_client.h"
#include "qm_confd_cdb_session.h"
#include "qm_confd_interface.h"
#include "qmmw.h"
#include "utils/call_site.h"
#include "zlog.h"

namespace ip_spoofing_app {

/// Row of the subscription table, index in the table of points, priority of the subscription and dispatch index.
enum SubscriptionId : int32_t { SUBSCR_IFACE = 0, SUBSCR_ALLOWED_IPV4 = 1, SUBSCR_MAX = 2 };

/// What GetFromConfd() reads, and what its destination points at.
enum ConfdLeafType : int {
  LEAF_INT32 = 0,   ///< int32_t
  LEAF_STRING = 1,  ///< std::string
  LEAF_MAC = 2,     ///< bytes, as many as the leaf has
  LEAF_IPV4 = 3,    ///< struct in_addr
};

/// Loop thread only; takes no lock. Read sessions are opened and closed within one callback.
class ConfDAppMgr : public QmConfdInterface {
 public:
  /// `client` is borrowed and outlives the object; a null one is a fatal fault.
  ConfDAppMgr(qmmw_t* mw, ip_spoofing_mgr::IpSpoofingPreventionMgrClient* client, std::string name);
  ~ConfDAppMgr() override;

  // ------------------------------------------------------------------------------------------------- connection
  /// Registers the status provider, subscribes, loads the configuration if the manager is connected, and puts the
  /// subscription socket into the loop. Every failure is fatal.
  void AppConnect() override;
  /// Drops a pending status request and takes the subscription socket out of the loop.
  void AppDisconnect() override;

  // ---------------------------------------------------------------------------------------------- subscriptions
  /// Makes every subscription of the table and ends the subscription phase. Every failure is fatal.
  void ConfDSubscribe();
  /// One subscription; its point goes to the table of points. 0; a failure is fatal.
  int SubscribeConfD(int id, uint32_t nspace, const char* path);
  /// The loop's callback for the subscription socket: handles one message and acknowledges it. A message that is not
  /// handled to its end is not acknowledged. A null `ctx` aborts.
  static void TreatSubscriptionMsg(qmmw_t* mw, int fd, void* ctx);
  /// Handles the changes of one triggered point; the handler's result, -1 for an unknown point.
  int FindSubscription(int point);
  int HdlSubscriptionDiff(int id);

  // ----------------------------------------------------------------------------------------------- leaf readers
  /// Reads the leaf at `prefix` followed by `suffix`. 0, also for an absent optional leaf, whose destination then
  /// stays as it was; else the error of the read. An absent mandatory leaf, a failed test for existence and an unknown
  /// kind are fatal faults.
  int GetFromConfd(int socket, const std::string& prefix, const std::string& suffix, void* destination,
                   ConfdLeafType kind, bool optional);
  /// Reads at most 63 characters; `destination` stays as it was on failure.
  int GetStrFromConfd(int socket, const std::string& path, std::string* destination);
  /// Copies the whole value, at most 256 bytes: the caller's buffer holds that many, or the longest value that the
  /// model allows. A failure is a non-fatal fault too.
  int GetMacFromConfd(int socket, const std::string& path, uint8_t* destination);
  int GetInt32FromConfd(int socket, const std::string& path, int32_t* destination);
  int GetIpv4FromConfd(int socket, const std::string& path, struct in_addr* destination);

  // ----------------------------------------------------------------------------------------- configuration load
  /// Sends the whole configuration to the manager: per interface the enable, its IPv4 entries, its allow-all mode.
  /// Does nothing, and succeeds, while the transaction id is the one loaded last, unless `force` is set.
  /// 0, or -1 (or the first non-zero result below) when the load ended early; what was sent stays sent.
  int LoadConfDCfg(bool force);

  // ---------------------------------------------------------------------------------------------------- changes
  /// Both walk the difference of the commit being handled, deletions first, and send a request per change.
  /// 0, or -1 when there is no namespace, or the result of the second walk.
  int HandleIpSpoofingIfacesDiff();
  int HandleIpSpoofingAllowedIpIPv4Diff();

  static confd_iter_ret IpSpoofingIfacesDiffItDel(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldv,
                                                  confd_value_t* newv, void* state);
  static confd_iter_ret IpSpoofingIfacesDiffItCreate(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldv,
                                                     confd_value_t* newv, void* state);
  confd_iter_ret IpSpoofingIfacesDiffIt(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldv,
                                        confd_value_t* newv, void* state);
  static confd_iter_ret IpSpoofingAllowedIpIPv4DiffItDel(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldv,
                                                         confd_value_t* newv, void* state);
  static confd_iter_ret IpSpoofingAllowedIpIPv4DiffItCreate(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldv,
                                                            confd_value_t* newv, void* state);
  confd_iter_ret IpSpoofingAllowedIpIPv4DiffIt(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* oldv,
                                               confd_value_t* newv, void* state);

  /// Sends the allow-all mode of the interface entry at `path` if the commit being handled changed it.
  void UpdateAllowedIpAllConfig(int op, const std::string& path, const std::string& name);
  /// Sends a remove for every entry that the list at `path` had before the commit being handled.
  void DeleteEntireAllowedIpIpv4List(const std::string& path, const std::string& name);

  // ---------------------------------------------------------------------------------------------------- status
  /// Registers the callpoint and the transaction callbacks. Every failure is fatal.
  void ip_spoofing_register_status_callbacks();
  static int show_allowed_ip_trans_init(confd_trans_ctx* tctx);
  static int show_allowed_ip_trans_finish(confd_trans_ctx* tctx);
  /// The first position of a traversal asks the manager for its list and leaves the request open; the others are
  /// answered from the list received.
  static int handle_get_next_allowed_ip(confd_trans_ctx* tctx, confd_hkeypath_t* kp, long next);
  static int handle_get_obj_allowed_ip(confd_trans_ctx* tctx, confd_hkeypath_t* keypath);
  /// Keeps a sorted copy of the manager's list and answers the open request.
  void SetEntryList(const std::vector<AllowedIpStatusEntry>& list);

 private:
  bool IsNewConfiguration(int socket, cdb_txid* last);
  int LoadConfdIpSpoof(const QmConfdCdbSession& session);
  int LoadConfdIpSpoofAllowedIfaces(const QmConfdCdbSession& session);
  int LoadConfdIpSpoofAllowedIp(const QmConfdCdbSession& session, const std::string& name);
  int LoadConfdIpSpoofAllowedIpIPv4(const QmConfdCdbSession& session, const std::string& name);
  int LoadConfdIpSpoofAllowedIpAll(const QmConfdCdbSession& session, const std::string& name);

  /// Fills a zeroed entry from the list instance at `path`. The session is asked for its socket before each read. What
  /// cannot be read is a non-fatal fault of `site` and stays zero.
  void ReadEntry(const CallSite& site, const QmConfdCdbSession& session, const std::string& path,
                 const std::string& name, AllowedIpEntry* entry);
  /// Reads the optional MAC of the entry at `path`, with the same reaction to failure.
  void ReadEntryMac(const CallSite& site, int socket, const std::string& path, AllowedIpEntry* entry);

  /// The manager that registered the callbacks of this transaction.
  static ConfDAppMgr* ManagerOf(const confd_trans_ctx* tctx);

  cdb_txid last_txid_{};                  // configuration loaded or handled last; all zero: none yet
  int32_t cdb_sock_ = -1;                 // read session of the message being handled, -1 at all other times
  confd_trans_ctx* trans_ctx_ = nullptr;  // whose first get_next is open
  bool waiting_response_ = false;         // the manager owes a list
  ip_spoofing_mgr::IpSpoofingPreventionMgrClient* mgr_client_;
  int32_t subscr_ids_[SUBSCR_MAX] = {};  // points, by SubscriptionId
  std::vector<AllowedIpStatusEntry> entry_list_;
  bool list_received_ = false;  // since the last request to the manager
  zlog_category_t* category_;
  int32_t max_entries_;    // hardware capacity
  std::string leaf_path_;  // of the leaf being read; kept for its room, since a load reads every leaf of every entry
};

/// Order of the status list; true when `a` comes first. No consistent order: rows of one port that differ in type are
/// compared by whatever VLAN field each has.
bool CompareStatusEntries(const AllowedIpStatusEntry& a, const AllowedIpStatusEntry& b);

}  // namespace ip_spoofing_app
