#include "fakes/fake_manager.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>

#include "fakes/fake_limid.h"
#include "fakes/script.h"
#include "fakes/trace.h"

namespace fakes {
namespace {

using ip_spoofing_mgr::AllowedIpEntry;

void Add(std::string line) { TheTrace().Add(Kind::kRequest, std::move(line)); }

std::string NameOf(limid_t id) {
  const std::string name = TheLimid().Name(id);
  return name.empty() ? "(no interface)" : name;
}

bool AllZero(const uint8_t* begin, const uint8_t* end) {
  return std::all_of(begin, end, [](uint8_t byte) { return byte == 0; });
}

int AddEntryLine(const char* request, const AllowedIpEntry* entry, const uint8_t* mac) {
  Add(std::string(request) + " " + Describe(*entry) + (mac == entry->mac ? "" : " foreign mac"));
  return ScriptedResult(request);
}

}  // namespace

std::string Describe(const AllowedIpEntry& entry) {
  char address[INET6_ADDRSTRLEN] = {};
  inet_ntop(entry.family == 0 ? AF_INET : AF_INET6, entry.address, address, sizeof address);
  const uint8_t* const m = entry.mac;
  std::string text = Format("%s %s vlan %u mac %02x:%02x:%02x:%02x:%02x:%02x", NameOf(entry.limid).c_str(), address,
                            entry.vlan, m[0], m[1], m[2], m[3], m[4], m[5]);
  if (entry.family != 0) text += Format(" family %u", entry.family);
  if (entry.reserved1 != 0) text += Format(" reserved1 %u", entry.reserved1);
  if (entry.reserved2 != 0) text += Format(" reserved2 %u", entry.reserved2);
  const bool clean = AllZero(std::begin(entry.padding1), std::end(entry.padding1)) &&
                     AllZero(std::begin(entry.padding2), std::end(entry.padding2)) &&
                     (entry.family != 0 || AllZero(entry.address + 4, std::end(entry.address)));
  if (!clean) text += " dirty";
  if (entry.state != 0) text += Format(" state %u", entry.state);
  return text;
}

Manager& TheManager() {
  static Manager* const manager = new Manager;
  return *manager;
}

}  // namespace fakes

namespace ip_spoofing_mgr {

class IpSpoofingPreventionMgrClient::Impl {};

IpSpoofingPreventionMgrClient::IpSpoofingPreventionMgrClient(qmmw_t* mw, CallbackItf* cb) {
  fakes::Add("IpSpoofingPreventionMgrClient");
  fakes::TheManager().client = this;
  fakes::TheManager().callbacks = cb;
  fakes::TheManager().mw = mw;
}

IpSpoofingPreventionMgrClient::~IpSpoofingPreventionMgrClient() {
  fakes::Add("~IpSpoofingPreventionMgrClient");
  if (fakes::TheManager().client == this) fakes::TheManager().client = nullptr;
}

int IpSpoofingPreventionMgrClient::SendIpSpoofing(const limid_t* limid, bool enable) {
  fakes::Add("SendIpSpoofing " + fakes::NameOf(*limid) + (enable ? " true" : " false"));
  return fakes::ScriptedResult("SendIpSpoofing");
}

int IpSpoofingPreventionMgrClient::SendAllowedIpAll(const limid_t* limid, AllowedAllMode mode) {
  fakes::Add("SendAllowedIpAll " + fakes::NameOf(*limid) + " " + std::to_string(mode));
  return fakes::ScriptedResult("SendAllowedIpAll");
}

int IpSpoofingPreventionMgrClient::SendAddEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  return fakes::AddEntryLine("SendAddEntry", entry, mac);
}

int IpSpoofingPreventionMgrClient::SendRemoveEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  return fakes::AddEntryLine("SendRemoveEntry", entry, mac);
}

int IpSpoofingPreventionMgrClient::SendUpdateEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  return fakes::AddEntryLine("SendUpdateEntry", entry, mac);
}

int IpSpoofingPreventionMgrClient::RequestAllowedIpList() {
  fakes::Add("RequestAllowedIpList");
  return fakes::ScriptedResult("RequestAllowedIpList");
}

int32_t IpSpoofingPreventionMgrClient::Connect() {
  fakes::Add("Connect");
  return fakes::ScriptedResult("Connect");
}

void IpSpoofingPreventionMgrClient::Disconnect() { fakes::Add("Disconnect"); }

const ConnectionStatus* IpSpoofingPreventionMgrClient::GetConnectionStatus() {
  fakes::Add("GetConnectionStatus");
  return fakes::TheManager().status_is_null ? nullptr : &fakes::TheManager().status;
}

}  // namespace ip_spoofing_mgr
