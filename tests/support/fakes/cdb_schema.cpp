#include "fakes/cdb_schema.h"

#include <arpa/inet.h>

#include <charconv>

#include "fakes/trace.h"

namespace fakes {
namespace {

constexpr char kModulePrefix[] = "ais:";

SchemaNode Leaf(std::string name, confd_vtype type) { return {std::move(name), NodeKind::kLeaf, type, {}, {}}; }

SchemaNode Container(std::string name, std::vector<SchemaNode> children) {
  return {std::move(name), NodeKind::kContainer, C_NOEXISTS, {}, std::move(children)};
}

SchemaNode List(std::string name, std::vector<std::string> keys, std::vector<SchemaNode> children) {
  return {std::move(name), NodeKind::kList, C_NOEXISTS, std::move(keys), std::move(children)};
}

SchemaNode BuildModel() {
  SchemaNode ipv4 =
      List("ipv4", {"address", "vlan"}, {Leaf("address", C_IPV4), Leaf("vlan", C_INT32), Leaf("mac", C_BINARY)});
  SchemaNode allowed = Container(
      "allowed-ip", {Leaf("all", C_XMLTAG), Leaf("ipv4-all", C_XMLTAG), Leaf("ipv6-all", C_XMLTAG), std::move(ipv4)});
  SchemaNode interface = List("interface", {"interface-name"}, {Leaf("interface-name", C_BUF), std::move(allowed)});
  return Container("", {Container("config", {Container("anti-ip-spoofing", {std::move(interface)})})});
}

/// Takes the text of a path from left to right.
class PathReader {
 public:
  explicit PathReader(const std::string& text) : text_{text} {}

  ParsedPath Read() {
    const SchemaNode* parent = &ModelRoot();
    if (Peek() == '/') ++at_;
    if (text_.compare(at_, sizeof kModulePrefix - 1, kModulePrefix) == 0) at_ += sizeof kModulePrefix - 1;
    while (path_.error.empty()) {
      ReadStep(parent);
      if (!path_.error.empty() || at_ == text_.size()) break;
      parent = path_.steps.back().node;
      if (Peek() != '/') {
        Fail("a slash is missing");
      } else {
        ++at_;
      }
    }
    return std::move(path_);
  }

 private:
  char Peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }

  void Fail(const std::string& what) {
    if (path_.error.empty()) path_.error = Format("Bad path %s: %s", text_.c_str(), what.c_str());
  }

  void ReadStep(const SchemaNode* parent) {
    if (!path_.steps.empty() && parent->kind == NodeKind::kList && !path_.steps.back().IsInstance()) {
      return Fail("no instance of \"" + parent->name + "\" is named");
    }
    const size_t end = std::min(text_.find_first_of("/{[", at_), text_.size());
    const std::string name = text_.substr(at_, end - at_);
    at_ = end;
    PathStep step;
    step.node = parent->Child(name);
    if (step.node == nullptr) return Fail("no node \"" + name + "\"");
    if (Peek() == '[') ReadPosition(&step);
    if (Peek() == '{') ReadKeys(&step);
    if (step.IsInstance() && step.node->kind != NodeKind::kList) return Fail("\"" + name + "\" is not a list");
    path_.steps.push_back(std::move(step));
  }

  void ReadPosition(PathStep* step) {
    const char* const begin = text_.data() + at_ + 1;
    const auto [end, error] = std::from_chars(begin, text_.data() + text_.size(), step->position);
    if (error != std::errc() || end == begin || *end != ']' || step->position < 0) return Fail("bad position");
    at_ = static_cast<size_t>(end - text_.data()) + 1;
  }

  void ReadKeys(PathStep* step) {
    ++at_;
    while (path_.error.empty() && Peek() != '}') {
      if (Peek() == '\0') return Fail("the keys do not end");
      if (Peek() == ' ') {
        ++at_;
        continue;
      }
      step->keys.push_back(Peek() == '"' ? ReadQuoted() : ReadBare());
    }
    ++at_;
    const SchemaNode& list = *step->node;
    if (step->keys.size() != list.keys.size()) return Fail("wrong number of keys");
    for (size_t i = 0; i < list.keys.size(); ++i) {
      if (!Canonical(list.Child(list.keys[i])->type, &step->keys[i])) return Fail("bad key \"" + step->keys[i] + "\"");
    }
  }

  std::string ReadBare() {
    const size_t end = std::min(text_.find_first_of(" }", at_), text_.size());
    std::string key = text_.substr(at_, end - at_);
    at_ = end;
    return key;
  }

  std::string ReadQuoted() {
    std::string key;
    for (++at_; Peek() != '"'; ++at_) {
      if (Peek() == '\0') {
        Fail("a quote does not end");
        return key;
      }
      if (Peek() == '\\') ++at_;
      key += Peek();
    }
    ++at_;
    if (Peek() != ' ' && Peek() != '}') Fail("text after a quote");
    return key;
  }

  const std::string& text_;
  size_t at_ = 0;
  ParsedPath path_;
};

}  // namespace

const SchemaNode* SchemaNode::Child(const std::string& child_name) const {
  for (const SchemaNode& child : children) {
    if (child.name == child_name) return &child;
  }
  return nullptr;
}

const SchemaNode& ModelRoot() {
  static const SchemaNode* const root = new SchemaNode(BuildModel());
  return *root;
}

ParsedPath ParsePath(const std::string& text) { return PathReader(text).Read(); }

bool Canonical(confd_vtype type, std::string* text) {
  if (type == C_INT32) {
    int32_t number = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (error != std::errc() || end != text->data() + text->size()) return false;
    *text = std::to_string(number);
    return true;
  }
  struct in_addr address {};
  return type != C_IPV4 || inet_pton(AF_INET, text->c_str(), &address) == 1;
}

int CompareKeys(confd_vtype type, const std::string& a, const std::string& b) {
  const auto sign = [](auto x, auto y) { return x < y ? -1 : x > y ? 1 : 0; };
  if (type == C_INT32) return sign(std::stol(a), std::stol(b));
  if (type == C_IPV4) return sign(ntohl(inet_addr(a.c_str())), ntohl(inet_addr(b.c_str())));
  return sign(a, b);
}

}  // namespace fakes
