#include "app/confd_mgr/config_model.h"

#include <cassert>

#include "confd_cdb.h"
#include "limid.h"

namespace ip_spoofing_app {
namespace {

constexpr int kKeypathTextSize = 8192;

bool leaf_exists(int socket, const std::string& interface, const char* leaf) {
  return cdb_exists(socket, "%s/%s", interface.c_str(), leaf) == 1;
}

}  // namespace

std::string interface_path(const std::string& name) { return std::string(kInterfacePath) + "{\"" + name + "\"}"; }

std::string instance_path(const std::string& list_path, int position) {
  const std::string number = std::to_string(position);
  std::string path;
  path.reserve(list_path.size() + number.size() + 2);  // one allocation: the load makes a path for every entry
  path.append(list_path).append("[").append(number).append("]");
  return path;
}

std::string keypath_text(const confd_hkeypath_t* kp) {
  char text[kKeypathTextSize] = {};
  confd_pp_kpath(text, sizeof text, kp);
  return text;
}

std::string interface_name_of(const confd_hkeypath_t* kp) {
  assert(kp->len >= kInterfaceEntryLength && "the keypath of a change ends above the interface entry");
  // A key of another type fails the assertion of CONFD_GET_BUFPTR, whose text is this argument as it is spelt here. So
  // the number stands in it, not its name.
  static_assert(kInterfaceEntryLength == 4);
  return reinterpret_cast<const char*>(CONFD_GET_BUFPTR(&kp->v[kp->len - 4][0]));
}

const char* allowed_all_name(AllowedAllMode mode) {
  switch (mode) {
    case ip_spoofing_mgr::kAllowedAllIpv4:
      return "IPV4_ALL";
    case ip_spoofing_mgr::kAllowedAllIpv6:
      return "IPV6_ALL";
    case ip_spoofing_mgr::kAllowedAllAll:
      return "ALL";
    default:
      return "NONE";
  }
}

AllowedAllMode read_allowed_all_mode(const std::function<int()>& socket, const std::string& interface) {
  if (leaf_exists(socket(), interface, kAllowedAll)) return ip_spoofing_mgr::kAllowedAllAll;
  const bool ipv6 = leaf_exists(socket(), interface, kAllowedIpv6All);
  const bool ipv4 = leaf_exists(socket(), interface, kAllowedIpv4All);
  if (ipv6 && ipv4) return ip_spoofing_mgr::kAllowedAllAll;
  if (ipv6) return ip_spoofing_mgr::kAllowedAllIpv6;
  return ipv4 ? ip_spoofing_mgr::kAllowedAllIpv4 : ip_spoofing_mgr::kAllowedAllNone;
}

AllowedIpEntry new_entry() {
  AllowedIpEntry entry{};
  limid_from_ifindex(&entry.limid, 0);
  return entry;
}

AddressText address_text(const AllowedIpEntry& entry) {
  AddressText text{};
  if (entry.family != 0) {
    inet_ntop(AF_INET6, entry.address, text.data(), INET6_ADDRSTRLEN);
  } else {
    inet_ntop(AF_INET, entry.address, text.data(), INET_ADDRSTRLEN);
  }
  return text;
}

}  // namespace ip_spoofing_app
