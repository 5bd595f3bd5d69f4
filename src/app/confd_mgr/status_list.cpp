// The status list: fetched from the manager at the start of each traversal, kept sorted, served by position.
#include <array>
#include <cstring>

#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"
#include "limid.h"
#include "utils/fault.h"
#include "utils/merge_sort.h"

namespace ip_spoofing_app {
namespace {

constexpr long kTraversalStart = -1;
constexpr uint32_t kTypeAddress = 0;  // row of one allowed address; every other type is an allow-all mode

// Hashes of the list's leaves.
constexpr uint32_t kTagMac = 0x1c4b7396;
constexpr uint32_t kTagAddress = 0x4b843099;
constexpr uint32_t kTagVlan = 0x0442b85d;
constexpr uint32_t kTagState = 0x3363fe59;
constexpr uint32_t kTagInterface = 0x0d34ee32;
constexpr uint32_t kTagFlag = 0x74470328;

// Numbers of the enumerations that stand in for a value.
constexpr int32_t kNoMac = 0;
constexpr int32_t kAnyVlan = 0;
constexpr int32_t kAddressAll = 0;
constexpr int32_t kAddressIpv4All = 1;
constexpr int32_t kAddressIpv6All = 2;

constexpr size_t kInterfaceNameSize = 64;

void reply_end_of_list(confd_trans_ctx* tctx) { confd_data_reply_next_key(tctx, nullptr, -1, -1); }

void reply_key(confd_trans_ctx* tctx, long position) {
  confd_value_t key;
  CONFD_SET_INT64(&key, position);
  confd_data_reply_next_key(tctx, &key, 1, position + 1);
}

/// The first four bytes of the address as the machine reads them. IPv6 rows are compared by these too.
uint32_t raw_address(const AllowedIpStatusEntry& row) {
  uint32_t raw = 0;
  std::memcpy(&raw, row.address, sizeof raw);
  return raw;
}

/// The values of one row, in the order they are reported. Points into the row and the name, which outlive it.
class RowReply {
 public:
  RowReply(const AllowedIpStatusEntry& row, const char* interface_name) {
    AddMac(row);
    AddAddress(row);
    AddVlan(row);
    AddEnum(kTagState, row.state == 1 ? 1 : 0);
    confd_value_t* const name = Add(kTagInterface);
    CONFD_SET_STR(name, interface_name);
    AddEnum(kTagFlag, row.flag ^ 1);
  }

  int Send(confd_trans_ctx* tctx) const { return confd_data_reply_tag_value_array(tctx, values_.data(), count_); }

 private:
  // The setter macros evaluate their argument twice, so it is never a call.
  confd_value_t* Add(uint32_t tag) {
    confd_tag_value_t* const value = &values_[static_cast<size_t>(count_++)];
    CONFD_SET_TAG_XMLTAG(value, tag, 0);
    return &value->v;
  }

  void AddEnum(uint32_t tag, int32_t number) {
    confd_value_t* const value = Add(tag);
    CONFD_SET_ENUM_VALUE(value, number);
  }

  void AddMac(const AllowedIpStatusEntry& row) {
    static constexpr uint8_t kZeroMac[sizeof row.mac] = {};
    if (std::memcmp(row.mac, kZeroMac, sizeof row.mac) == 0) return AddEnum(kTagMac, kNoMac);
    confd_value_t* const value = Add(kTagMac);
    CONFD_SET_BINARY(value, row.mac, sizeof row.mac);
  }

  void AddAddress(const AllowedIpStatusEntry& row) {
    switch (row.type) {
      case kTypeAddress:
        return AddPlainAddress(row);
      case ip_spoofing_mgr::kAllowedAllIpv4:
        return AddEnum(kTagAddress, kAddressIpv4All);
      case ip_spoofing_mgr::kAllowedAllIpv6:
        return AddEnum(kTagAddress, kAddressIpv6All);
      case ip_spoofing_mgr::kAllowedAllAll:
        return AddEnum(kTagAddress, kAddressAll);
      default:
        return;  // no text for it: the column is left out
    }
  }

  void AddPlainAddress(const AllowedIpStatusEntry& row) {
    confd_value_t* const value = Add(kTagAddress);
    if (row.family != 0) {
      struct in6_addr address {};
      std::memcpy(&address, row.address, sizeof address);
      CONFD_SET_IPV6(value, address);
    } else {
      struct in_addr address {};
      std::memcpy(&address, row.address, sizeof address);
      CONFD_SET_IPV4(value, address);
    }
  }

  void AddVlan(const AllowedIpStatusEntry& row) {
    if (row.type != kTypeAddress && limid_is_from_type(row.limid, limid_type_serviceport) == 0) {
      return AddEnum(kTagVlan, kAnyVlan);
    }
    confd_value_t* const value = Add(kTagVlan);
    CONFD_SET_UINT32(value, row.type == kTypeAddress ? row.vlan : row.all_vlan);
  }

  std::array<confd_tag_value_t, 6> values_{};
  int count_ = 0;
};

}  // namespace

int ConfDAppMgr::handle_get_next_allowed_ip(confd_trans_ctx* tctx, confd_hkeypath_t* /*kp*/, long next) {
  if (tctx == nullptr) FATAL_FAULT("%s", "");
  ConfDAppMgr* const mgr = ManagerOf(tctx);
  const auto position = static_cast<int32_t>(next);
  const auto rows = static_cast<int32_t>(mgr->entry_list_.size());

  if (position == kTraversalStart && !mgr->waiting_response_) {
    mgr->trans_ctx_ = tctx;
    mgr->list_received_ = false;
    mgr->waiting_response_ = true;
    mgr->mgr_client_->RequestAllowedIpList();
    LOG_DETAIL_LINE(mgr->category_, "allowed-ip all entries status list requested.");
    return CONFD_DELAYED_RESPONSE;
  }
  if (!mgr->list_received_) {
    reply_end_of_list(tctx);
    return CONFD_OK;
  }
  mgr->trans_ctx_ = nullptr;
  const long row = position == kTraversalStart ? 0 : next;
  if (static_cast<int32_t>(row) < rows) {
    reply_key(tctx, row);
  } else {
    reply_end_of_list(tctx);
  }
  return CONFD_OK;
}

int ConfDAppMgr::handle_get_obj_allowed_ip(confd_trans_ctx* tctx, confd_hkeypath_t* keypath) {
  ConfDAppMgr* const mgr = ManagerOf(tctx);
  // Read without a sign: a negative key is beyond every list too.
  const auto key = static_cast<uint64_t>(CONFD_GET_INT64(&keypath->v[0][0]));
  AllowedIpStatusEntry row{};
  limid_from_ifindex(&row.limid, 0);
  if (key < mgr->entry_list_.size()) row = mgr->entry_list_[key];

  char interface_name[kInterfaceNameSize] = {};
  limid_to_intfname(row.limid, interface_name, sizeof interface_name);
  RowReply(row, interface_name).Send(tctx);
  return CONFD_OK;
}

void ConfDAppMgr::SetEntryList(const std::vector<AllowedIpStatusEntry>& list) {
  entry_list_ = list;
  merge_sort(entry_list_, CompareStatusEntries);
  LOG_DETAIL_LINE(category_, "allowed-ip list received list_size: %zu. trans_ctx_[%p]", list.size(),
                  static_cast<void*>(trans_ctx_));
  list_received_ = true;
  waiting_response_ = false;
  if (trans_ctx_ != nullptr) handle_get_next_allowed_ip(trans_ctx_, nullptr, 0);
}

bool CompareStatusEntries(const AllowedIpStatusEntry& a, const AllowedIpStatusEntry& b) {
  if (limid_compare(a.limid, b.limid) != 0) return limid_compare(a.limid, b.limid) < 0;
  if (a.type == b.type) {
    if (a.type != kTypeAddress) return a.all_vlan < b.all_vlan;
    if (a.vlan != b.vlan) return a.vlan < b.vlan;
    return raw_address(a) < raw_address(b);
  }
  if (a.type == kTypeAddress) return a.vlan < b.all_vlan;
  if (b.type == kTypeAddress) return a.all_vlan < b.vlan;
  return static_cast<int32_t>(a.type) < static_cast<int32_t>(b.type);
}

}  // namespace ip_spoofing_app
