#include "state/state_reader.h"

#include <spdlog/spdlog.h>

#include <chrono>
#include <ctime>

#include "netconf/xml.h"

namespace cdbd {
namespace {

using cdb_store::Node;
using netconf::XmlElement;

/// The namespace declarations that the element needs in its start tag.
std::string Declarations(const XmlElement& element, std::string_view outer_ns) {
  std::string out;
  if (element.name->ns != outer_ns) out += " xmlns=\"" + netconf::EscapedAttribute(element.name->ns) + "\"";
  // A prefix that the text uses, as identities do.
  const size_t colon = element.text.find(':');
  if (element.first_child == nullptr && colon != std::string_view::npos) {
    const std::string_view prefix = element.text.substr(0, colon);
    if (const std::string_view ns = element.Namespace(prefix); ns.data() != nullptr && !prefix.empty())
      out += " xmlns:" + std::string{prefix} + "=\"" + netconf::EscapedAttribute(ns) + "\"";
  }
  return out;
}

bool WriteLeaf(const XmlElement& element, std::string_view outer_ns, std::string* out) {
  netconf::AppendTextElement(element.name->local, Declarations(element, outer_ns), element.text, out);
  return true;
}

}  // namespace

void StateReader::Write(const Selection& selection, std::string* out) const {
  for (const Entry& entry : sources_) {
    const Selection candidates = selection.For(entry.ns, entry.name);
    if (candidates.nothing()) continue;
    const int ns = model_.NamespaceIndex(entry.ns);
    const Node* node = ns < 0 ? nullptr : model_.schema().FindChild(model_.schema().root(), entry.name, ns);
    std::string xml;
    entry.source(&xml);
    if (xml.empty()) continue;
    const auto document = netconf::XmlDocument::Parse(xml);
    if (node == nullptr || !document) {
      spdlog::error("state of {}: {}", entry.name, document ? "not in the data model" : document.error().Text());
      continue;
    }
    WriteSelected(model_, *node, document.value()->root(), candidates, {}, out);
  }
}

bool WriteSelected(const Model& model, const Node& node, const XmlElement& element, const Selection& candidates,
                   std::string_view outer_ns, std::string* out) {
  const auto same = [](std::string_view text) {
    return [text](std::string_view asked) { return netconf::Trim(text) == asked; };
  };
  if (node.kind == cdb_store::NodeKind::kLeaf || node.kind == cdb_store::NodeKind::kLeafList)
    return SelectsLeaf(candidates, same(element.text)) && WriteLeaf(element, outer_ns, out);
  const Selection selection = SelectInstance(candidates, [&](const XmlElement& asked) {
    for (const XmlElement* child = element.first_child; child != nullptr; child = child->next) {
      const Selection one = Selection{false, {&asked}}.For(child->name->ns, child->name->local);
      if (!one.nothing() && child->first_child == nullptr && SelectsLeaf(one, same(child->text))) return true;
    }
    return false;
  });
  if (selection.nothing()) return false;
  netconf::OpenElement open{element.name->local, Declarations(element, outer_ns), out};
  bool wrote = selection.all;
  for (const XmlElement* child = element.first_child; child != nullptr; child = child->next) {
    const int ns = model.NamespaceIndex(child->name->ns);
    const Node* child_node = ns < 0 ? nullptr : model.schema().FindChild(node, child->name->local, ns);
    if (child_node == nullptr) continue;
    const Selection asked = selection.For(child->name->ns, child->name->local);
    if (child_node->IsKeyLeaf()) {
      wrote |= !asked.nothing();
      WriteLeaf(*child, element.name->ns, out);
    } else if (!asked.nothing()) {
      wrote |= WriteSelected(model, *child_node, *child, asked, element.name->ns, out);
    }
  }
  return open.CloseIf(wrote);
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
