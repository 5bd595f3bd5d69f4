#include "ops/params.h"

#include <algorithm>

namespace cdbd {

using netconf::XmlElement;

Params::Params(const XmlElement& operation, std::initializer_list<std::string_view> known) : operation_{operation} {
  for (const XmlElement* child = operation.first_child; child != nullptr; child = child->next) {
    const bool expected = child->name->ns == operation.name->ns &&
                          std::find(known.begin(), known.end(), child->name->local) != known.end();
    const std::string name{child->name->local};
    if (!expected)
      Note("unknown-element", "<" + std::string{operation.name->local} + "> has no parameter '" + name + "'", name);
    else if (Find(child->name->local) != child)
      Note("bad-element", "'" + name + "' is there more than once", name);
  }
}

const XmlElement* Params::Find(std::string_view name) const { return operation_.Child(operation_.name->ns, name); }

std::string_view Params::Text(std::string_view name, std::string_view otherwise) const {
  const XmlElement* element = Find(name);
  return element == nullptr ? otherwise : netconf::Trim(element->text);
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
  return choice;
}

void Params::Invalid(std::string_view name, std::string_view value) {
  Note("invalid-value", "'" + std::string{value} + "' is no value of '" + std::string{name} + "'", name);
}

void Params::Note(const char* tag, std::string message, std::string_view element) {
  if (error_) return;
  error_ = RpcError{.type = "protocol", .tag = tag, .message = std::move(message)};
  error_->info = BadElement(element);
}

}  // namespace cdbd
