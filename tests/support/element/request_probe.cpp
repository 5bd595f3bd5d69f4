/// Loaded into the daemon in front of its libraries (LD_PRELOAD): writes down every request that it makes of the
/// manager, and then makes it.
///   REQUEST_PROBE_LOG        the file that gets a line for each request
///   REQUEST_PROBE_STOP_AT    the process stops itself (SIGSTOP) before its step of this number, from 1; the requests
///   and
///                            the acknowledgements of subscription messages are the steps
///   REQUEST_PROBE_FAIL_WALK  the difference walk of this number, from 1, fails without having begun
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "confd_cdb.h"
#include "ip_spoofing_mgr_client.h"

namespace {

using ip_spoofing_mgr::AllowedIpEntry;

std::string NameOf(const limid_t& limid) {
  std::array<char, 64> name{};
  return ::limid_to_intfname(limid, name.data(), name.size()) == 0 ? name.data() : "(no interface)";
}

std::string MacText(const uint8_t* mac) {
  std::array<char, 18> text{};
  std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return std::string{text.data()} == "00:00:00:00:00:00" ? "any" : text.data();
}

std::string EntryText(const AllowedIpEntry& entry, const uint8_t* mac) {
  std::array<char, INET_ADDRSTRLEN> address{};
  ::inet_ntop(AF_INET, entry.address, address.data(), address.size());
  return NameOf(entry.limid) + " " + address.data() + " " + std::to_string(entry.vlan) + " " + MacText(mac);
}

int NumberIn(const char* variable) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::atoi(text) : 0;
}

/// Requests under way. One that the library makes while it serves another is no step of the daemon.
int depth = 0;

void Step() {
  static const int stop_at = NumberIn("REQUEST_PROBE_STOP_AT");
  static int steps = 0;
  if (++steps == stop_at) ::raise(SIGSTOP);
}

void Write(const std::string& line) {
  static const int log = ::open(std::getenv("REQUEST_PROBE_LOG"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  Step();
  const std::string text = line + "\n";
  if (::write(log, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
}

/// The function that this library stands in front of. A member function takes its object as the first argument.
template <class... Args>
int Next(const char* symbol, Args... args) {
  using Function = int (*)(Args...);
  const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, symbol));
  if (next == nullptr) std::abort();
  return next(args...);
}

template <class... Args>
int Request(const std::string& line, const char* symbol, Args... args) {
  if (depth == 0) Write(line);
  ++depth;
  const int result = Next(symbol, args...);
  --depth;
  return result;
}

#define MEMBER(name, arguments) "_ZN15ip_spoofing_mgr29IpSpoofingPreventionMgrClient" name arguments

}  // namespace

int ip_spoofing_mgr::IpSpoofingPreventionMgrClient::SendIpSpoofing(const limid_t* limid, bool enable) {
  return Request((enable ? "enable " : "disable ") + NameOf(*limid), MEMBER("14SendIpSpoofing", "EPK5limidb"), this,
                 limid, enable);
}

int ip_spoofing_mgr::IpSpoofingPreventionMgrClient::SendAllowedIpAll(const limid_t* limid,
                                                                     ip_spoofing_mgr::AllowedAllMode mode) {
  return Request("mode " + NameOf(*limid) + " " + std::to_string(mode), MEMBER("16SendAllowedIpAll", "EPK5limidj"),
                 this, limid, mode);
}

int ip_spoofing_mgr::IpSpoofingPreventionMgrClient::SendAddEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  return Request("add " + EntryText(*entry, mac), MEMBER("12SendAddEntry", "EPKNS_14AllowedIpEntryEPKh"), this, entry,
                 mac);
}

int ip_spoofing_mgr::IpSpoofingPreventionMgrClient::SendRemoveEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  return Request("remove " + EntryText(*entry, mac), MEMBER("15SendRemoveEntry", "EPKNS_14AllowedIpEntryEPKh"), this,
                 entry, mac);
}

int ip_spoofing_mgr::IpSpoofingPreventionMgrClient::SendUpdateEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  return Request("update " + EntryText(*entry, mac), MEMBER("15SendUpdateEntry", "EPKNS_14AllowedIpEntryEPKh"), this,
                 entry, mac);
}

int cdb_sync_subscription_socket(int sock, cdb_subscription_sync_type type) {
  Step();
  return Next("cdb_sync_subscription_socket", sock, type);
}

int cdb_diff_iterate(int sock, int subid, cdb_iter_fn iter, int flags, void* state) {
  static const int fail_walk = NumberIn("REQUEST_PROBE_FAIL_WALK");
  static int walks = 0;
  if (++walks == fail_walk) return CONFD_ERR;
  return Next("cdb_diff_iterate", sock, subid, iter, flags, state);
}
