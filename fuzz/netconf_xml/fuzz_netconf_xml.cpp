#include "netconf/xml.h"
#include "require.h"

namespace {

size_t CheckAndCount(const netconf::XmlElement& element) {
  size_t count = 1;
  fuzz::Require(!element.name->local.empty() && element.line > 0, "an element has a name and a line");
  for (const auto* child = element.first_child; child != nullptr; child = child->next) count += CheckAndCount(*child);
  return count;
}

std::string Written(const netconf::XmlElement& element) {
  std::string out;
  netconf::AppendXml(element, &out);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const std::string_view text{reinterpret_cast<const char*>(data), size};
  const auto document = netconf::XmlDocument::Parse(text);
  if (!document) {
    fuzz::Require(!document.error().Text().empty(), "an error says why");
    return 0;
  }
  fuzz::Require(CheckAndCount(document.value()->root()) <= size, "there are not more elements than bytes");
  const std::string once = Written(document.value()->root());
  const auto again = netconf::XmlDocument::Parse(once);
  fuzz::Require(again.ok(), "what was read can be written and read");
  fuzz::Require(Written(again.value()->root()) == once, "and is the same");
  return 0;
}
