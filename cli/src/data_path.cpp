#include "data_path.h"

#include <cctype>
#include <charconv>
#include <string>
#include <vector>

namespace cli {
namespace {

struct Predicate {
  std::string_view name;  ///< "" for a position, "." for the node itself
  std::string_view value;
};
struct Step {
  std::string_view name;
  std::vector<Predicate> predicates;
};

std::string_view WithoutPrefix(std::string_view name) {
  const size_t colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

/// Takes `[...]` off the front of `rest`; quotes hide a bracket. Returns nullopt if it does not end.
std::optional<Predicate> TakePredicate(std::string_view* rest) {
  const size_t quote = rest->find_first_of("'\"]");
  if (quote == std::string_view::npos) return std::nullopt;
  if ((*rest)[quote] == ']') {
    const Predicate position{{}, rest->substr(1, quote - 1)};
    rest->remove_prefix(quote + 1);
    return position;
  }
  const size_t end = rest->find((*rest)[quote], quote + 1);
  const size_t equals = rest->find('=');
  if (end == std::string_view::npos || equals > quote) return std::nullopt;
  const size_t close = rest->find(']', end);
  if (close == std::string_view::npos) return std::nullopt;
  const std::string_view name = netconf::Trim(rest->substr(1, equals - 1));
  const Predicate key{name == "." ? name : WithoutPrefix(name), rest->substr(quote + 1, end - quote - 1)};
  rest->remove_prefix(close + 1);
  return key;
}

std::vector<Step> ParseSteps(std::string_view path) {
  std::vector<Step> steps;
  while (!path.empty() && path.front() == '/') {
    path.remove_prefix(1);
    const size_t end = path.find_first_of("/[");
    Step step{WithoutPrefix(path.substr(0, end)), {}};
    path.remove_prefix(end == std::string_view::npos ? path.size() : end);
    while (!path.empty() && path.front() == '[') {
      const std::optional<Predicate> predicate = TakePredicate(&path);
      if (!predicate) return steps;
      step.predicates.push_back(*predicate);
    }
    steps.push_back(std::move(step));
  }
  return steps;
}

bool HasValue(const netconf::XmlElement& element, const Predicate& predicate) {
  if (predicate.name == ".") return netconf::Trim(element.text) == predicate.value;
  for (const netconf::XmlElement* child = element.first_child; child != nullptr; child = child->next) {
    if (child->name->local == predicate.name) return netconf::Trim(child->text) == predicate.value;
  }
  return false;
}

/// `*position` counts the elements of the step's name seen so far.
bool Matches(const netconf::XmlElement& element, const Step& step, unsigned* position) {
  if (element.name->local != step.name) return false;
  ++*position;
  for (const Predicate& predicate : step.predicates) {
    if (!predicate.name.empty()) {
      if (!HasValue(element, predicate)) return false;
      continue;
    }
    unsigned wanted = 0;
    std::from_chars(predicate.value.data(), predicate.value.data() + predicate.value.size(), wanted);
    if (wanted != *position) return false;
  }
  return true;
}

}  // namespace

std::optional<unsigned> LineOfData(const netconf::XmlElement& first_sibling, std::string_view path) {
  std::optional<unsigned> line;
  const netconf::XmlElement* sibling = &first_sibling;
  for (const Step& step : ParseSteps(path)) {
    unsigned position = 0;
    while (sibling != nullptr && !Matches(*sibling, step, &position)) sibling = sibling->next;
    if (sibling == nullptr) break;
    line = sibling->line;
    sibling = sibling->first_child;
  }
  return line;
}

}  // namespace cli
