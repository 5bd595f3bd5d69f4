// A daemon for tests: configures the manager from a file, the way the real one does from its database. The file's first
// line is its version; then "port N", "mode N M", "entry N VLAN ADDRESS MAC" (MAC: its last byte). A version that
// differs is a commit: interfaces go in one callback and entries in the next, removals before additions.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "common/config_reads.h"
#include "ip_spoofing_mgr_client.h"
#include "limid.h"
#include "qmmw_internal.h"

namespace {

using ip_spoofing_mgr::AllowedIpEntry;
using ip_spoofing_mgr::AllowedIpStatusEntry;
using ip_spoofing_mgr::IpSpoofingPreventionMgrClient;

struct Configuration {
  long version = -1;
  std::set<std::string> ports;
  std::map<std::string, uint32_t> modes;
  std::map<std::string, int> entries;  ///< "PORT VLAN ADDRESS" to the MAC's last byte
};

limid_t LimidOf(const std::string& port) {
  limid_t limid{};
  if (limid_from_intfname(&limid, ("eth" + port).c_str()) != 0) std::abort();
  return limid;
}

AllowedIpEntry EntryOf(const std::string& key, int mac) {
  std::istringstream words{key};
  std::string port;
  std::string address;
  AllowedIpEntry entry{};
  words >> port >> entry.vlan >> address;
  ::inet_pton(AF_INET, address.c_str(), entry.address);
  entry.mac[5] = static_cast<uint8_t>(mac);
  entry.limid = LimidOf(port);
  return entry;
}

class App final : public IpSpoofingPreventionMgrClient::CallbackItf {
 public:
  App(qmmw_t* mw, std::string path) : loop_{qmmw_event_loop(mw)}, path_{std::move(path)}, client_{mw, this} {}

  bool Connect() { return client_.Connect() == 0; }
  void Begin() {
    task_ = loop_.After(std::chrono::milliseconds{1}, [this] {
      database_ = true;
      if (client_.GetConnectionStatus()->connected != 0) Load();
      Poll();
    });
  }

  void OnMgrConnected() override {
    if (database_) Load();
  }
  void OnAllowedIpList(const std::list<AllowedIpStatusEntry>&) override {}
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

 private:
  Configuration Read() const {
    Configuration read;
    std::ifstream file{path_};
    file >> read.version;
    for (std::string kind; file >> kind;) {
      std::string port;
      file >> port;
      if (kind == "port") read.ports.insert(port);
      if (kind == "mode") file >> read.modes[port];
      if (kind != "entry") continue;
      std::string vlan;
      std::string address;
      file >> vlan >> address;
      file >> read.entries[port + " " + vlan + " " + address];
    }
    return read;
  }

  void Load() {
    ++common::ProcessConfigReads().reads;
    held_ = Read();
    for (const std::string& port : held_.ports) Enable(port, true);
    for (const auto& [key, mac] : held_.entries) Add(key, mac);
    for (const auto& [port, mode] : held_.modes) Mode(port, mode);
  }

  void Poll() {
    task_ = loop_.After(std::chrono::milliseconds{1}, [this] {
      Configuration next = Read();
      if (next.version == held_.version) return Poll();
      const Configuration old = std::exchange(held_, next);
      CommitPorts(old, next);
      task_ = loop_.After(std::chrono::milliseconds{1}, [this, old, next] {
        if (held_.version == next.version) CommitEntries(old, next);
        Poll();
      });
    });
  }

  void CommitPorts(const Configuration& old, const Configuration& next) {
    for (const std::string& port : old.ports) {
      if (!next.ports.contains(port)) Enable(port, false);
    }
    for (const std::string& port : next.ports) {
      if (!old.ports.contains(port)) Enable(port, true);
    }
    for (const auto& [port, mode] : old.modes) {
      if (!next.modes.contains(port)) Mode(port, 0);
    }
    for (const auto& [port, mode] : next.modes) Mode(port, mode);
  }

  void CommitEntries(const Configuration& old, const Configuration& next) {
    for (const auto& [key, mac] : old.entries) {
      if (next.entries.contains(key)) continue;
      const AllowedIpEntry entry = EntryOf(key, 0);
      client_.SendRemoveEntry(&entry, entry.mac);
    }
    for (const auto& [key, mac] : next.entries) Add(key, mac);
  }

  void Enable(const std::string& port, bool on) {
    const limid_t limid = LimidOf(port);
    client_.SendIpSpoofing(&limid, on);
  }
  void Mode(const std::string& port, uint32_t mode) {
    const limid_t limid = LimidOf(port);
    client_.SendAllowedIpAll(&limid, mode);
  }
  void Add(const std::string& key, int mac) {
    const AllowedIpEntry entry = EntryOf(key, mac);
    client_.SendAddEntry(&entry, entry.mac);
  }

  common::EventLoop& loop_;
  const std::string path_;
  bool database_ = false;
  Configuration held_;
  IpSpoofingPreventionMgrClient client_;
  common::ScheduledTask task_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  qmmw_t* mw = qmmw_init("mgr-test-app");
  if (mw == nullptr) return 1;
  int status = 1;
  {
    App app{mw, argv[1]};
    if (app.Connect()) {
      app.Begin();
      bool running = true;
      status = qmmw_loop_while(mw, &running);
    }
  }
  qmmw_finish(&mw);
  return status;
}
