#include "state/state_reader.h"

#include <spdlog/spdlog.h>

#include <ctime>

#include "netconf/xml.h"
#include "state/xml_instance.h"

namespace cdbd {

void StateReader::Add(std::string_view ns, std::string_view name, Source source) {
  const cdb_store::Schema& schema = model_.schema();
  const int index = model_.NamespaceIndex(ns);
  const cdb_store::Node* node = index < 0 ? nullptr : schema.FindChild(schema.root(), name, index);
  if (node == nullptr) return spdlog::error("state of {}: not in the data model", name);
  sources_.emplace(node->id, std::move(source));
}

bool StateReader::Visit(const cdb_store::Node& node, DataInstance::VisitInstance visit) const {
  const auto found = sources_.find(node.id);
  if (found == sources_.end()) return false;
  std::string xml;
  found->second(&xml);
  if (xml.empty()) return true;
  const auto document = netconf::XmlDocument::Parse(xml);
  if (document)
    visit(XmlInstance{model_, document.value()->root()});
  else
    spdlog::error("state of {}: {}", node.name, document.error().Text());
  return true;
}

std::string DateAndTime(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

}  // namespace cdbd
