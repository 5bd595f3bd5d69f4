#include "element.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "common/paths.h"

namespace fm_impl {
namespace {

using nlohmann::json;

constexpr const char* kFileVariable = "IP_SPOOFING_ELEMENT_FILE";

/// Thrown and caught in this file only.
struct Wrong {
  std::string text;
};

void CheckMembers(const json& object, const std::string& where, std::initializer_list<std::string_view> known) {
  if (!object.is_object()) throw Wrong{(where.empty() ? "the whole" : where) + " is not an object"};
  for (const auto& [name, value] : object.items()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      throw Wrong{std::string("unknown member ").append(where).append("/").append(name)};
    }
  }
}

/// The member as a number, `otherwise` when it is left out.
uint32_t Number(const json& object, const std::string& where, const char* name, uint32_t otherwise) {
  const auto it = object.find(name);
  if (it == object.end()) return otherwise;
  if (!it->is_number_unsigned() || it->get<uint64_t>() > std::numeric_limits<uint32_t>::max()) {
    throw Wrong{where + "/" + name + " is not a number from 0 to 4294967295"};
  }
  return it->get<uint32_t>();
}

uint32_t RequiredNumber(const json& object, const std::string& where, const char* name) {
  if (!object.contains(name)) throw Wrong{where + "/" + name + " is missing"};
  return Number(object, where, name, 0);
}

std::vector<FmClientResource> Resources(const json& array, const std::string& where) {
  if (!array.is_array()) throw Wrong{where + " is not an array"};
  std::vector<FmClientResource> resources;
  for (const json& record : array) {
    const std::string here = where + "/" + std::to_string(resources.size());
    CheckMembers(record, here, {"client", "stage", "kind", "count"});
    resources.push_back({Number(record, here, "client", 0), RequiredNumber(record, here, "stage"),
                         RequiredNumber(record, here, "kind"), RequiredNumber(record, here, "count")});
  }
  return resources;
}

Element FromJson(const json& root) {
  Element element;
  CheckMembers(root, "", {"card", "slot", "ip-manager-installs-filters", "filter-clients"});
  element.local.card = Number(root, "", "card", element.local.card);
  element.local.slot = Number(root, "", "slot", element.local.slot);
  if (const auto it = root.find("ip-manager-installs-filters"); it != root.end()) {
    if (!it->is_boolean()) throw Wrong{"/ip-manager-installs-filters is neither true nor false"};
    element.ip_manager_installs_filters = it->get<bool>();
  }
  if (const auto it = root.find("filter-clients"); it != root.end()) {
    if (!it->is_object()) throw Wrong{"/filter-clients is not an object"};
    element.clients.clear();
    for (const auto& [name, array] : it->items()) element.clients[name] = Resources(array, "/filter-clients/" + name);
  }
  return element;
}

}  // namespace

common::Result<Element> ParseElement(std::string_view text) {
  try {
    return FromJson(json::parse(text));
  } catch (const Wrong& wrong) {
    return common::Error{"", "", wrong.text};
  } catch (const json::parse_error& error) {
    return common::Error{"", "", "not JSON at byte " + std::to_string(error.byte)};
  }
}

namespace {

/// kNotFound if the file does not exist.
common::Result<Element> ReadFile(const std::string& path) {
  errno = 0;
  std::ifstream file{path};
  if (!file) return common::SystemError("open", path, errno);
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad() || text.bad()) return common::Error{"read", path, "input error"};
  auto element = ParseElement(text.str());
  if (!element) return common::Error{path, "", element.error().Text()};
  return element;
}

}  // namespace

common::Result<Element> ReadElement() {
  const char* named = std::getenv(kFileVariable);
  const bool must_exist = named != nullptr && *named != '\0';
  const std::vector<std::string> paths =
      must_exist ? std::vector<std::string>{named}
                 : std::vector<std::string>{common::StateDir() + "/element.json", kSystemFile};
  for (const std::string& path : paths) {
    auto element = ReadFile(path);
    if (element || must_exist || !element.error().IsNotFound()) return element;
  }
  return Element{};
}

}  // namespace fm_impl
