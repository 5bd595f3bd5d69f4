#include "output.h"

#include <initializer_list>
#include <string>

#include "data_printer.h"
#include "models.h"

namespace cli {
namespace {

const netconf::XmlElement* ChildNamed(const netconf::XmlElement& element, std::string_view name) {
  const netconf::XmlElement* child = element.first_child;
  while (child != nullptr && child->name->local != name) child = child->next;
  return child;
}

}  // namespace

ExitStatus Show(const Target& target, const std::string& operation, Format format, DataReader* table) {
  if (format == Format::kTable) return AskForData(target, operation, *table);
  if (format == Format::kXml) {
    XmlPrinter printer{WriteToStdout};
    return AskForData(target, operation, printer);
  }
  const common::Result<Models> models = LoadModels(target.models_dir);
  if (!models.ok()) return Complain(kBadFile, models.error().Text());
  JsonPrinter printer{*models.value(), WriteToStdout};
  const ExitStatus status = AskForData(target, operation, printer);
  if (status != kDone || printer.error().empty()) return status;
  return Complain(kRefused, "the element's data does not fit the data models here: " + printer.error());
}

std::string ChildText(const netconf::XmlElement& element, std::string_view name) {
  const netconf::XmlElement* child = ChildNamed(element, name);
  return child != nullptr ? std::string{netconf::Trim(child->text)} : "";
}

const netconf::XmlElement* Descend(const netconf::XmlElement& element, std::initializer_list<std::string_view> names) {
  const netconf::XmlElement* found = &element;
  for (const std::string_view name : names) {
    if (found != nullptr) found = ChildNamed(*found, name);
  }
  return found;
}

}  // namespace cli
