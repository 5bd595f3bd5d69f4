#include "ops/params.h"

#include <algorithm>

#include "model/model.h"

namespace cdbd {

using netconf::XmlAttribute;
using netconf::XmlElement;

namespace {

/// The attributes of <filter> (RFC 6241, section 6.2), which some clients write in the namespace of NETCONF.
bool IsOfFilter(const XmlAttribute& attribute, std::string_view name) {
  return attribute.name->local == name && (attribute.name->ns.empty() || attribute.name->ns == netconf::kBaseNs);
}

}  // namespace

Params::Params(const XmlElement& operation, std::initializer_list<std::string_view> known,
               std::initializer_list<std::string_view> added)
    : operation_{operation} {
  const auto holds = [](std::initializer_list<std::string_view> names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };
  CheckAttributes(operation);
  CheckOnlyElements(operation);
  for (const XmlElement* child = operation.first_child; child != nullptr; child = child->next) {
    const netconf::XmlName& full = *child->name;
    const bool expected = (full.ns == operation.name->ns && holds(known, full.local)) ||
                          (full.ns == kMonitorNs && holds(added, full.local));
    const std::string name{full.local};
    if (!expected)
      Note("unknown-element", "<" + std::string{operation.name->local} + "> has no parameter '" + name + "'", name);
    else if (operation.Child(full.ns, full.local) != child)
      Note("bad-element", "'" + name + "' is there more than once", name);
    if (name != "filter") CheckAttributes(*child);  // Filter() looks at its attributes
  }
}

const XmlElement* Params::Find(std::string_view name) const { return operation_.Child(operation_.name->ns, name); }

const XmlElement* Params::FindAdded(std::string_view name) const { return operation_.Child(kMonitorNs, name); }

std::string_view Params::Text(std::string_view name, std::string_view otherwise) {
  const XmlElement* element = Find(name);
  if (element == nullptr) return otherwise;
  CheckNoElements(*element);
  return netconf::Trim(element->text);
}

const XmlElement* Params::Require(std::string_view name) {
  const XmlElement* element = Find(name);
  if (element == nullptr)
    Note("missing-element", "<" + std::string{operation_.name->local} + "> needs '" + std::string{name} + "'", name);
  return element;
}

const XmlElement* Params::RequireOneOf(std::string_view name, std::initializer_list<std::string_view> allowed) {
  const XmlElement* element = Require(name);
  if (element == nullptr) return nullptr;
  CheckOnlyElements(*element);
  const XmlElement* choice = element->first_child;
  if (choice == nullptr) {
    Note("missing-element", "'" + std::string{name} + "' is empty", name);
    return nullptr;
  }
  const bool known = choice->name->ns == operation_.name->ns && choice->next == nullptr &&
                     std::find(allowed.begin(), allowed.end(), choice->name->local) != allowed.end();
  if (!known) {
    const XmlElement& bad = choice->next != nullptr ? *choice->next : *choice;
    Note("unknown-element", "'" + std::string{bad.name->local} + "' is not supported as " + std::string{name},
         bad.name->local);
    return nullptr;
  }
  CheckAttributes(*choice);
  if (choice->name->local != "config") {
    CheckNoElements(*choice);
    CheckOnlyElements(*choice);
  }
  return choice;
}

const XmlElement* Params::Filter() {
  const XmlElement* filter = Find("filter");
  if (filter == nullptr) return nullptr;
  for (const XmlAttribute* a = filter->attributes; a != nullptr; a = a->next) {
    if (!IsOfFilter(*a, "type"))
      NoteAttribute("unknown-attribute", "unexpected attribute '" + std::string{a->name->local} + "'", *a, *filter);
    else if (a->value != "subtree")
      NoteAttribute("bad-attribute",
                    "filters of type '" + std::string{a->value} + "' are not supported, only 'subtree'", *a, *filter);
  }
  return filter;
}

void Params::Invalid(std::string_view name, std::string_view value) {
  Note("invalid-value", "'" + std::string{value} + "' is not a value of '" + std::string{name} + "'", name);
}

void Params::Invalid(std::string_view name, const DataError& error) {
  if (error_) return;
  Note("invalid-value", "'" + std::string{name} + "': " + error.message, name);
  error_->app_tag = error.app_tag;
}

void Params::CheckAttributes(const XmlElement& element) {
  for (const XmlAttribute* a = element.attributes; a != nullptr; a = a->next)
    NoteAttribute("unknown-attribute", "unexpected attribute '" + std::string{a->name->local} + "'", *a, element);
}

void Params::CheckOnlyElements(const XmlElement& element) {
  if (!netconf::Trim(element.text).empty())
    Note("bad-element", "text where only elements are expected", element.name->local);
}

void Params::CheckNoElements(const XmlElement& element) {
  if (element.first_child != nullptr)
    Note("unknown-element", "<" + std::string{element.name->local} + "> holds no elements",
         element.first_child->name->local);
}

void Params::NoteAttribute(const char* tag, std::string message, const XmlAttribute& attribute,
                           const XmlElement& element) {
  if (error_) return;
  error_ = RpcError{.type = "protocol", .tag = tag, .message = std::move(message)};
  error_->info = BadAttribute(attribute.name->local, element.name->local);
}

void Params::Note(const char* tag, std::string message, std::string_view element) {
  if (error_) return;
  error_ = RpcError{.type = "protocol", .tag = tag, .message = std::move(message)};
  error_->info = BadElement(element);
}

}  // namespace cdbd
