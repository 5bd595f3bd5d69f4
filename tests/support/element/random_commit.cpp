#include "random_commit.h"

#include <iterator>
#include <vector>

#include "netconf/xml.h"

namespace test {
namespace {

/// One of the presence leaves: set, left alone or taken away.
std::string EditLeaf(Random& random, const std::string& name, bool* value) {
  switch (Below(random, 6)) {
    case 0:
      *value = true;
      return "<" + name + "/>";
    case 1: {
      const std::string operation = *value ? "delete" : "remove";
      *value = false;
      return "<" + name + Operation(operation) + "/>";
    }
    default:
      return "";
  }
}

/// The MAC of a source that is there: changed, or taken away.
std::string EditMac(Random& random, const Source& source, std::string* mac) {
  std::string xml =
      "<ipv4><address>" + Dotted(source.first) + "</address><vlan>" + std::to_string(source.second) + "</vlan>";
  if (const std::string changed = RandomMac(random); !changed.empty()) {
    *mac = changed;
    xml += "<mac>" + changed + "</mac>";
  } else {
    xml += "<mac" + Operation(mac->empty() ? "remove" : "delete") + "/>";
    mac->clear();
  }
  return xml + "</ipv4>";
}

std::string EditSources(Random& random, Interface* interface) {
  std::string xml;
  std::set<Source> touched;
  for (int left = Below(random, 6); left > 0; --left) {
    Source source = RandomSource(random);
    if (!interface->sources.empty() && Below(random, 3) > 0) {
      source = std::next(interface->sources.begin(), Below(random, static_cast<int>(interface->sources.size())))->first;
    }
    if (!touched.insert(source).second) continue;
    const auto found = interface->sources.find(source);
    if (found == interface->sources.end()) {
      const std::string mac = RandomMac(random);
      interface->sources[source] = mac;
      xml += ToXml(source, mac, Below(random, 2) == 0 ? "create" : "");
    } else if (const int choice = Below(random, 4); choice == 0) {
      found->second = RandomMac(random);
      xml += ToXml(source, found->second, "replace");
    } else if (choice == 1) {
      xml += EditMac(random, source, &found->second);
    } else {
      interface->sources.erase(found);
      xml += ToXml(source, "", choice == 2 ? "delete" : "remove");
    }
  }
  return xml;
}

std::string EditInside(Random& random, Interface* interface) {
  std::string attribute;
  std::string inside;
  if (Below(random, 10) == 0) {
    *interface = Interface{};
    attribute = Operation("remove");
  } else if (Below(random, 10) == 0) {
    *interface = RandomInterface(random, 6);
    attribute = Operation("replace");
    if (interface->all) inside += "<all/>";
    if (interface->ipv4_all) inside += "<ipv4-all/>";
    if (interface->ipv6_all) inside += "<ipv6-all/>";
    for (const auto& [source, mac] : interface->sources) inside += ToXml(source, mac);
  } else {
    inside += EditLeaf(random, "all", &interface->all);
    inside += EditLeaf(random, "ipv4-all", &interface->ipv4_all);
    inside += EditLeaf(random, "ipv6-all", &interface->ipv6_all);
    inside += EditSources(random, interface);
  }
  return "<allowed-ip" + attribute + ">" + inside + "</allowed-ip>";
}

std::string EditInterface(Random& random, const std::string& name, Configuration* configuration) {
  const auto found = configuration->find(name);
  if (found == configuration->end()) {
    const Interface& added = (*configuration)[name] = RandomInterface(random, 6);
    return ToXml(name, added, Below(random, 2) == 0 ? "create" : "");
  }
  switch (Below(random, 6)) {
    case 0:
      configuration->erase(found);
      return ToXml(name, {}, Below(random, 2) == 0 ? "delete" : "remove");
    case 1:
      found->second = RandomInterface(random, 6);
      return ToXml(name, found->second, "replace");
    default:
      return "<interface><interface-name>" + netconf::Escaped(name) + "</interface-name>" +
             EditInside(random, &found->second) + "</interface>";
  }
}

}  // namespace

std::string RandomCommit(Random& random, Configuration* configuration) {
  const int choice = Below(random, 40);
  if (choice == 0) {
    configuration->clear();
    return InContainers("", "remove");
  }
  std::string inside;
  if (choice <= 2) {
    *configuration = RandomConfiguration(random, 5, 6);
    for (const auto& [name, interface] : *configuration) inside += ToXml(name, interface);
    return InContainers(inside, "replace");
  }
  std::set<std::string> touched;
  for (int left = 1 + Below(random, 3); left > 0; --left) {
    const std::string name = RandomInterfaceName(random);
    if (touched.insert(name).second) inside += EditInterface(random, name, configuration);
  }
  return InContainers(inside);
}

}  // namespace test
