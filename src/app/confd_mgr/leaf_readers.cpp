// Typed reads of single leaves.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "app/app_log.h"
#include "app/confd_mgr/confd_app_mgr.h"
#include "limid.h"
#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

constexpr int kStringBufferSize = 64;  // longer values are cut to 63 characters

// A MAC leaf that is longer than the six bytes of the data model is copied whole up to this size, which every
// destination has. What lies beyond it is not a MAC in any model, and is cut.
constexpr size_t kMacBufferSize = 256;

}  // namespace

int ConfDAppMgr::GetFromConfd(int socket, const std::string& prefix, const std::string& suffix, void* destination,
                              ConfdLeafType kind, bool optional) {
  const std::string& path = leaf_path_.assign(prefix).append(suffix);
  const int exists = cdb_exists(socket, path.c_str());
  if (exists == CONFD_EOF) {
    LOG_ERROR_LINE(category_, "path[%s] socket error[%d] %s", path.c_str(), exists, confd_lasterr());
  }
  if (exists == 0 && optional) return 0;
  if (exists != 1) FATAL_FAULT("%s error[%d] reading leaf: %s", __func__, exists, path.c_str());

  switch (kind) {
    case LEAF_INT32:
      return cdb_get_int32(socket, static_cast<int32_t*>(destination), path.c_str());
    case LEAF_STRING:
      return GetStrFromConfd(socket, path, static_cast<std::string*>(destination));
    case LEAF_MAC:
      return GetMacFromConfd(socket, path, static_cast<uint8_t*>(destination));
    case LEAF_IPV4:
      return GetIpv4FromConfd(socket, path, static_cast<struct in_addr*>(destination));
  }
  FATAL_FAULT("IpSpoofingAppValid::GetCaseFromConfd must be implemented");
}

int ConfDAppMgr::GetStrFromConfd(int socket, const std::string& path, std::string* destination) {
  char text[kStringBufferSize] = {};
  const int result = cdb_get_str(socket, text, kStringBufferSize, path.c_str());
  if (result == CONFD_OK) *destination = text;
  return result;
}

int ConfDAppMgr::GetMacFromConfd(int socket, const std::string& path, uint8_t* destination) {
  unsigned char* data = nullptr;
  int length = 0;
  const int result = cdb_get_binary(socket, &data, &length, path.c_str());
  if (result != CONFD_OK) {
    NON_FATAL_FAULT("%s\n", confd_lasterr());
    return result;
  }
  if (data == nullptr) {
    NON_FATAL_FAULT("Null pointer\n");
    return -1;
  }
  if (length > 0) std::memcpy(destination, data, std::min(static_cast<size_t>(length), kMacBufferSize));
  std::free(data);
  return CONFD_OK;
}

int ConfDAppMgr::GetInt32FromConfd(int socket, const std::string& path, int32_t* destination) {
  return cdb_get_int32(socket, destination, path.c_str());
}

int ConfDAppMgr::GetIpv4FromConfd(int socket, const std::string& path, struct in_addr* destination) {
  const int result = cdb_get_ipv4(socket, destination, path.c_str());
  if (result == CONFD_OK) {
    char text[INET_ADDRSTRLEN] = {};  // rendered for a debugger's eye only
    inet_ntop(AF_INET, destination, text, sizeof text);
  }
  return result;
}

void ConfDAppMgr::ReadEntry(const CallSite& site, const QmConfdCdbSession& session, const std::string& path,
                            const std::string& name, AllowedIpEntry* entry) {
  struct in_addr address {};
  if (GetFromConfd(session.Socket(), path, kAddressLeaf, &address, LEAF_IPV4, false) != 0) {
    raise_fault(site, "%s error reading %s/address", site.function, path.c_str());
  }
  std::memcpy(entry->address, &address, sizeof address);
  entry->reserved1 = 0;

  int32_t vlan = 0;
  if (GetFromConfd(session.Socket(), path, kVlanLeaf, &vlan, LEAF_INT32, false) != 0) {
    raise_fault(site, "%s error reading %s/vlan", site.function, path.c_str());
  }
  entry->vlan = static_cast<uint16_t>(vlan);  // the low 16 bits, whatever the configuration holds
  entry->state = 0;

  ReadEntryMac(site, session.Socket(), path, entry);
  limid_from_intfname(&entry->limid, name.c_str());
}

void ConfDAppMgr::ReadEntryMac(const CallSite& site, int socket, const std::string& path, AllowedIpEntry* entry) {
  uint8_t mac[kMacBufferSize] = {};
  if (GetFromConfd(socket, path, kMacLeaf, mac, LEAF_MAC, true) != 0) {
    raise_fault(site, "%s error reading %s/mac", site.function, path.c_str());
  }
  std::memcpy(entry->mac, mac, sizeof entry->mac);
}

}  // namespace ip_spoofing_app
