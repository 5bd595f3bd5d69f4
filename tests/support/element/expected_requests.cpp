#include "expected_requests.h"

namespace test {
namespace {

int Mode(const Interface& interface) {
  if (interface.all) return 3;
  return (interface.ipv4_all ? 1 : 0) + (interface.ipv6_all ? 2 : 0);
}

std::string ModeRequest(const std::string& name, int mode) { return "mode " + name + " " + std::to_string(mode); }

std::string SourceRequest(const std::string& what, const std::string& name, const Source& source,
                          const std::string& mac) {
  return what + " " + name + " " + Dotted(source.first) + " " + std::to_string(source.second) + " " +
         (mac.empty() ? "any" : mac);
}

void InterfaceRequests(const Configuration& before, const Configuration& after, std::vector<std::string>* requests) {
  for (const auto& [name, old] : before) {
    if (after.contains(name)) continue;
    if (Mode(old) != 0) requests->push_back(ModeRequest(name, 0));
    requests->push_back("disable " + name);
  }
  for (const auto& [name, now] : after) {
    const auto old = before.find(name);
    if (old == before.end()) requests->push_back("enable " + name);
    if (Mode(now) != (old == before.end() ? 0 : Mode(old->second))) requests->push_back(ModeRequest(name, Mode(now)));
  }
}

void SourceRequests(const Configuration& before, const Configuration& after, std::vector<std::string>* requests) {
  for (const auto& [name, old] : before) {
    const auto now = after.find(name);
    for (const auto& [source, mac] : old.sources) {
      if (now == after.end()) {
        requests->push_back(SourceRequest("remove", name, source, mac));
      } else if (!now->second.sources.contains(source)) {
        requests->push_back(SourceRequest("remove", name, source, ""));
      }
    }
  }
  static const Interface kNone;
  for (const auto& [name, now] : after) {
    const auto found = before.find(name);
    const Interface& old = found == before.end() ? kNone : found->second;
    for (const auto& [source, mac] : now.sources) {
      const auto was = old.sources.find(source);
      if (was == old.sources.end()) {
        requests->push_back(SourceRequest("add", name, source, mac));
      } else if (was->second != mac) {
        requests->push_back(SourceRequest("update", name, source, mac));
      }
    }
  }
}

}  // namespace

std::vector<std::string> RequestsOf(const Configuration& before, const Configuration& after) {
  std::vector<std::string> requests;
  InterfaceRequests(before, after, &requests);
  SourceRequests(before, after, &requests);
  return requests;
}

std::vector<std::string> RequestsOfLoad(const Configuration& configuration) {
  std::vector<std::string> requests;
  for (const auto& [name, interface] : configuration) {
    requests.push_back("enable " + name);
    for (const auto& [source, mac] : interface.sources) requests.push_back(SourceRequest("add", name, source, mac));
    if (Mode(interface) != 0) requests.push_back(ModeRequest(name, Mode(interface)));
  }
  return requests;
}

}  // namespace test
