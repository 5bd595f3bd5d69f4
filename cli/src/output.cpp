#include "output.h"

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

#include "models.h"

namespace cli {
namespace {

const netconf::XmlElement* ChildNamed(const netconf::XmlElement& element, std::string_view name) {
  const netconf::XmlElement* child = element.first_child;
  while (child != nullptr && child->name->local != name) child = child->next;
  return child;
}

}  // namespace

ExitStatus PrintData(const Target& target, const netconf::XmlElement& data, Format format) {
  const common::Result<Models> models = LoadModels(target.models_dir);
  if (!models.ok()) return Complain(kBadFile, models.error().Text());
  std::string xml;
  for (const netconf::XmlElement* child = data.first_child; child != nullptr; child = child->next) {
    netconf::AppendXml(*child, &xml);
  }
  lyd_node* raw = nullptr;
  const LY_ERR parsed =
      lyd_parse_data_mem(models.value().get(), xml.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &raw);
  const DataTree tree{raw};
  if (parsed != LY_SUCCESS) {
    const ly_err_item* item = ly_err_first(models.value().get());
    return Complain(kRefused, std::string{"the element's data does not fit the data models here: "} +
                                  (item != nullptr ? item->msg : "unknown reason"));
  }
  char* text = nullptr;
  const LYD_FORMAT printed = format == Format::kJson ? LYD_JSON : LYD_XML;
  if (lyd_print_mem(&text, tree.get(), printed, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
    return Complain(kRefused, "the data cannot be printed");
  }
  std::fputs(text != nullptr ? text : "", stdout);
  std::free(text);  // NOLINT(cppcoreguidelines-no-malloc): libyang hands it over
  return kDone;
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
