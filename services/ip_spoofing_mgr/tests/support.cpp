#include "support.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "control/text.h"

namespace mgr::test {
namespace {

constexpr uint16_t kGhosts = 900;

Request PortRequest(const std::string& port, ip_spoofing_mgr::wire::RequestKind kind, uint8_t value) {
  Request request{};
  request.limid = LimidOf(port);
  request.kind = kind;
  request.value = value;
  return request;
}

Request EntryRequest(const std::string& port, uint16_t vlan, const std::string& address) {
  Request request{};
  request.limid = LimidOf(port);
  request.vlan = vlan;
  request.family = address.find(':') == std::string::npos ? 0 : 1;
  ::inet_pton(request.family == 0 ? AF_INET : AF_INET6, address.c_str(), request.address);
  return request;
}

std::string MacSuffix(const MacAddress& mac) { return mac[5] == 0 ? "" : " mac " + std::to_string(mac[5]); }

}  // namespace

limid_t LimidOf(const std::string& port) {
  const auto digits = port.find_first_of("0123456789");
  const auto number = static_cast<uint16_t>(std::stoi(port.substr(digits)));
  return {{number, 0}};
}

std::optional<std::string> FakeNames::NameOf(limid_t limid) {
  if (limid.word[0] >= kGhosts) return std::nullopt;
  return "eth" + std::to_string(limid.word[0]);
}

std::optional<limid_t> FakeNames::IdOf(const std::string& name) { return LimidOf(name); }

uint32_t FakeInterfaces::IndexOf(const std::string& name) const {
  const auto it = special.find(name);
  return it != special.end() ? it->second : 100U + LimidOf(name).word[0];
}

Request Enable(const std::string& port) { return PortRequest(port, ip_spoofing_mgr::wire::RequestKind::kPort, 1); }
Request Disable(const std::string& port) { return PortRequest(port, ip_spoofing_mgr::wire::RequestKind::kPort, 0); }
Request Mode(const std::string& port, AllowAll mode) {
  return PortRequest(port, ip_spoofing_mgr::wire::RequestKind::kMode, TypeOf(mode));
}
Request Put(const std::string& port, uint16_t vlan, const std::string& address, uint8_t mac) {
  Request request = EntryRequest(port, vlan, address);
  request.kind = ip_spoofing_mgr::wire::RequestKind::kPut;
  request.mac[5] = mac;
  return request;
}
Request Remove(const std::string& port, uint16_t vlan, const std::string& address) {
  Request request = EntryRequest(port, vlan, address);
  request.kind = ip_spoofing_mgr::wire::RequestKind::kRemove;
  return request;
}

std::string PortText(const PortConfig& config) {
  return config.name + (config.enabled ? " on " : " off ") + ModeText(config.mode) +
         (config.monitor ? " monitor" : "") + (config.ifindex == 0 ? " absent" : "");
}

std::string RecordingDataplane::KeyText(const EntryKey& key) const {
  return names_.at(key.port) + "/" + std::to_string(key.vlan) + "/" + AddressText(key.address_be);
}

common::Status RecordingDataplane::ReleaseHeld() {
  calls.emplace_back("release held");
  return refused.contains(calls.back()) ? common::Error{"release", "", "refused"} : common::Ok();
}

std::vector<Failure> RecordingDataplane::Apply(const Changes& changes) {
  for (const PortConfig& port : left_behind.ports) names_.emplace(port.id, port.name);
  for (const PortConfig& port : changes.ports) names_[port.id] = port.name;
  std::vector<std::string> parts;
  std::vector<Failure> failures;
  Changes made;
  const auto judge = [&](Failure::Of of, size_t index, const std::string& what) {
    if (!refused.contains(what)) return true;
    failures.push_back({of, index, {"apply", what, "refused"}});
    return false;
  };
  for (size_t i = 0; i < changes.puts.size(); ++i) {
    const Entry& entry = changes.puts[i];
    parts.push_back("put " + KeyText(entry.key) + MacSuffix(entry.mac));
    if (judge(Failure::Of::kPut, i, KeyText(entry.key))) made.puts.push_back(entry);
  }
  for (size_t i = 0; i < changes.ports.size(); ++i) {
    parts.push_back("port " + PortText(changes.ports[i]));
    if (judge(Failure::Of::kPort, i, changes.ports[i].name)) made.ports.push_back(changes.ports[i]);
  }
  for (size_t i = 0; i < changes.removes.size(); ++i) {
    parts.push_back("remove " + KeyText(changes.removes[i]));
    if (judge(Failure::Of::kRemove, i, KeyText(changes.removes[i]))) made.removes.push_back(changes.removes[i]);
  }
  for (size_t i = 0; i < changes.drop_ports.size(); ++i) {
    parts.push_back("drop " + names_.at(changes.drop_ports[i]));
    if (judge(Failure::Of::kDropPort, i, names_.at(changes.drop_ports[i]))) {
      made.drop_ports.push_back(changes.drop_ports[i]);
    }
  }
  std::string call;
  for (const std::string& part : parts) call += (call.empty() ? "" : ", ") + part;
  calls.push_back(call);
  EXPECT_TRUE(memory.Apply(made).empty());
  return failures;
}

std::vector<std::string> RecordingDataplane::InForce() const {
  std::vector<std::string> lines;
  for (const auto& [id, port] : memory.ports()) lines.push_back(PortText(port));
  for (const auto& [key, mac] : memory.entries()) lines.push_back(KeyText(key) + MacSuffix(mac));
  std::sort(lines.begin(), lines.end());
  return lines;
}

void Bench::Wait(milliseconds time) {
  const auto end = now + time;
  for (auto deadline = engine.Deadline(); deadline && *deadline <= end; deadline = engine.Deadline()) {
    now = std::max(now, *deadline);
    engine.Advance(now);
  }
  now = end;
}

std::vector<std::string> Bench::Rows() const {
  std::vector<std::string> lines;
  for (const auto& row : StatusRows(table, engine)) {
    std::string line = "eth" + std::to_string(row.limid.word[0]);
    if (row.type != 0) {
      line += " " + ModeText(ModeOfRequest(static_cast<uint8_t>(row.type)));
    } else {
      std::array<char, INET6_ADDRSTRLEN> address{};
      ::inet_ntop(row.family == 0 ? AF_INET : AF_INET6, row.address, address.data(), address.size());
      line += "/" + std::to_string(row.vlan) + "/" + address.data();
      if (row.mac[5] != 0) line += " mac " + std::to_string(row.mac[5]);
    }
    lines.push_back(line + " state " + std::to_string(row.state) + " flag " + std::to_string(row.flag));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

}  // namespace mgr::test
