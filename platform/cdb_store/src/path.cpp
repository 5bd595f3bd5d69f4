#include "cdb_store/path.h"

#include <algorithm>
#include <charconv>

namespace cdb_store {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool EndsName(char c) { return c == '/' || c == '{' || c == '[' || c == '}' || c == ']' || c == '"' || IsBlank(c); }

/// More than one module has a top node of that name.
bool IsAmbiguous(const Schema& schema, std::string_view name) {
  const auto has_name = [&](NodeId id) { return schema.node(id).name == name; };
  return std::ranges::count_if(schema.root().children, has_name) > 1;
}

}  // namespace

PathReader::PathReader(std::string_view path) : rest_{path}, path_size_{path.size()} {
  if (rest_.empty()) {
    problem_ = "is empty";
  } else if (rest_.front() == '/') {
    rest_.remove_prefix(1);
    if (rest_.empty()) problem_ = "names no node";
  }
}

PathReader::PathReader(std::string_view path, size_t from) : PathReader{path} {
  if (from == 0) return;
  rest_ = path.substr(from);
  end_ = from;
  if (!rest_.empty()) SkipSlash();
}

bool PathReader::Fail(const char* problem) {
  problem_ = problem;
  return false;
}

bool PathReader::SkipSlash() {
  if (rest_.front() != '/') return Fail("has something other than '/' after a node");
  rest_.remove_prefix(1);
  return rest_.empty() ? Fail("ends in '/'") : true;
}

bool PathReader::Next(PathStep& step) {
  if (problem_ != nullptr || rest_.empty()) return false;
  unescaped_.clear();
  step.prefix = {};
  step.selector = PathStep::Selector::kNone;
  step.key_count = 0;
  if (!ReadName(step)) return false;
  if (!rest_.empty() && rest_.front() == '{' && !ReadKeys(step)) return false;
  if (!rest_.empty() && rest_.front() == '[' && !ReadPosition(step)) return false;
  end_ = path_size_ - rest_.size();
  return rest_.empty() || SkipSlash();
}

bool PathReader::ReadName(PathStep& step) {
  size_t at = 0;
  size_t colon = std::string_view::npos;
  for (; at < rest_.size() && !EndsName(rest_[at]); ++at) {
    if (rest_[at] == ':' && colon == std::string_view::npos) colon = at;
  }
  step.name = rest_.substr(0, at);
  rest_.remove_prefix(at);
  if (colon != std::string_view::npos) {
    step.prefix = step.name.substr(0, colon);
    step.name.remove_prefix(colon + 1);
    if (step.prefix.empty()) return Fail("has an empty prefix");
  }
  return step.name.empty() ? Fail("has an empty node name") : true;
}

bool PathReader::ReadKeys(PathStep& step) {
  step.selector = PathStep::Selector::kKeys;
  rest_.remove_prefix(1);
  while (true) {
    while (!rest_.empty() && IsBlank(rest_.front())) rest_.remove_prefix(1);
    if (rest_.empty()) return Fail("has a '{' without its '}'");
    if (rest_.front() == '}') break;
    if (step.key_count == PathStep::kMaxKeys) return Fail("has more keys than a list can have");
    std::string_view& key = step.keys[step.key_count++];
    if (rest_.front() == '"') {
      if (!ReadQuotedKey(key)) return false;
    } else {
      size_t at = 0;
      while (at < rest_.size() && !IsBlank(rest_[at]) && rest_[at] != '}' && rest_[at] != '{' && rest_[at] != '"') ++at;
      key = rest_.substr(0, at);
      rest_.remove_prefix(at);
      if (at == 0 || (!rest_.empty() && (rest_.front() == '{' || rest_.front() == '"'))) {
        return Fail("has a key with a brace or quote in it that is not quoted");
      }
    }
  }
  rest_.remove_prefix(1);
  return step.key_count > 0 ? true : Fail("has no key between '{' and '}'");
}

bool PathReader::ReadQuotedKey(std::string_view& key) {
  constexpr const char* kOpen = "has a quote without its end";
  rest_.remove_prefix(1);
  const size_t stop = rest_.find_first_of("\"\\");
  if (stop == std::string_view::npos) return Fail(kOpen);
  if (rest_[stop] == '"') {
    key = rest_.substr(0, stop);
    rest_.remove_prefix(stop + 1);
  } else {
    unescaped_.reserve(path_size_);  // more than all keys take: earlier ones stay where they are
    const size_t start = unescaped_.size();
    size_t at = 0;
    for (; at < rest_.size() && rest_[at] != '"'; ++at) {
      char c = rest_[at];
      if (c == '\\') {
        if (++at == rest_.size()) return Fail(kOpen);
        switch (rest_[at]) {
          case 'n':
            c = '\n';
            break;
          case 'r':
            c = '\r';
            break;
          case 't':
            c = '\t';
            break;
          case '0':
            c = '\0';
            break;
          case '"':
          case '\\':
            c = rest_[at];
            break;
          default:
            return Fail("has an unknown escape in a key");
        }
      }
      unescaped_.push_back(c);
    }
    if (at == rest_.size()) return Fail(kOpen);
    rest_.remove_prefix(at + 1);
    key = std::string_view(unescaped_).substr(start);
  }
  if (!rest_.empty() && rest_.front() != '}' && !IsBlank(rest_.front())) {
    return Fail("has something after a key's closing quote");
  }
  return true;
}

bool PathReader::ReadPosition(PathStep& step) {
  if (step.selector != PathStep::Selector::kNone) return Fail("has both keys and a position");
  step.selector = PathStep::Selector::kPosition;
  rest_.remove_prefix(1);
  const auto [end, code] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), step.position);
  if (code != std::errc{}) return Fail("has a position that is no number");
  rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
  if (rest_.empty() || rest_.front() != ']') return Fail("has a '[' without its ']'");
  rest_.remove_prefix(1);
  return true;
}

const Node* ResolveStep(const Schema& schema, const Node& parent, const PathStep& step, int default_ns,
                        std::string& problem) {
  int ns = -1;
  if (!step.prefix.empty()) {
    ns = schema.FindNamespaceByPrefix(step.prefix);
    if (ns < 0) {
      problem = "there is no module with the prefix \"" + std::string(step.prefix) + "\"";
      return nullptr;
    }
  } else if (parent.id == kRootId) {
    ns = default_ns;
    if (ns < 0 && IsAmbiguous(schema, step.name)) {
      problem = "several modules have a top node \"" + std::string(step.name) + "\": it needs its prefix";
      return nullptr;
    }
  }
  const Node* node = schema.FindChild(parent, step.name, ns);
  if (node == nullptr) {
    problem = "there is no node \"" + std::string(step.name) + "\" below " + schema.PathOf(parent);
    if (ns >= 0) problem += " in module " + schema.namespaces()[static_cast<size_t>(ns)].module;
  }
  return node;
}

bool AppendStepKeys(const Schema& schema, const Node& node, const PathStep& step, InstanceKey& key,
                    std::string& problem) {
  const size_t wanted = node.kind == NodeKind::kLeafList ? 1 : node.keys.size();
  if (!node.IsKeyed() || step.key_count != wanted) {
    problem = node.name + " has " + std::to_string(wanted) + " keys, not " + std::to_string(step.key_count);
    if (!node.IsKeyed()) problem = node.name + " is no list and has no keys";
    return false;
  }
  for (size_t i = 0; i < wanted; ++i) {
    const Node& leaf = node.kind == NodeKind::kLeafList ? node : schema.node(node.keys[i]);
    bool fits = false;
    if (leaf.type == ValueType::kString) {
      fits = key.Append(leaf.type, step.keys[i]);
    } else {
      const common::Result<std::string> stored = ValueFromText(leaf, step.keys[i]);
      if (!stored) {
        problem = "key " + leaf.name + " of " + node.name + ": " + stored.error().Text();
        return false;
      }
      fits = key.Append(leaf.type, stored.value());
    }
    if (!fits) {
      problem = "the keys down to " + node.name + " are longer than " + std::to_string(kMaxKeys) + " bytes";
      return false;
    }
  }
  return true;
}

common::Result<Located> LocatePath(const Schema& schema, std::string_view path, int default_ns) {
  const auto fail = [&](std::string problem) {
    return common::Error{"path", "\"" + std::string(path) + "\"", std::move(problem)};
  };
  PathReader reader(path);
  PathStep step;
  InstanceKey key;
  Located found{&schema.root(), "", true};
  std::string problem;
  while (reader.Next(step)) {
    found.node = ResolveStep(schema, *found.node, step, default_ns, problem);
    if (found.node == nullptr) return fail(problem);
    if (step.selector == PathStep::Selector::kPosition) return fail("has a position where keys are wanted");
    if (step.selector == PathStep::Selector::kKeys) {
      if (!found.all_keys) return fail("has keys below a list without keys");
      if (!AppendStepKeys(schema, *found.node, step, key, problem)) return fail(problem);
    } else if (found.node->IsKeyed()) {
      found.all_keys = false;
    }
  }
  if (reader.problem() != nullptr) return fail(reader.problem());
  found.keys = key.keys();
  return found;
}

}  // namespace cdb_store
