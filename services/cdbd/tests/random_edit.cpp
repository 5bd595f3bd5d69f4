#include "random_edit.h"

#include <set>

namespace cdbd::test {
namespace {

using cdb_store::Node;
using cdb_store::NodeKind;
using cdb_store::ValueType;

/// The choices of the test model: for every parent, cases of names.
const std::map<std::string, std::vector<std::vector<std::set<std::string>>>> kChoices = {
    {"shop", {{{"currency", "coin"}, {"card", "full", "part"}, {"barter"}}, {{"full"}, {"part"}}}},
    {"minimum", {{{"this"}, {"that"}}}},
};

std::string BaseName(const std::string& name) { return name.substr(0, name.find('[')); }

/// Names that cannot be beside `name` below `parent`.
std::set<std::string> Rivals(const Node& parent, const std::string& name) {
  std::set<std::string> rivals;
  const auto found = kChoices.find(parent.name);
  if (found == kChoices.end()) return rivals;
  for (const auto& choice : found->second)
    for (const auto& one : choice) {
      if (one.count(name) == 0) continue;
      for (const auto& other : choice)
        if (&other != &one) rivals.insert(other.begin(), other.end());
    }
  return rivals;
}

std::vector<std::string> Values(const cdb_store::Schema& schema, const Node& leaf) {
  const std::string parent = schema.node(leaf.parent).name;
  switch (leaf.type) {
    case ValueType::kEmpty:
      return {""};
    case ValueType::kInt8:
    case ValueType::kInt16:
    case ValueType::kInt32:
      if (leaf.name == "vlan") return {"0", "7", "4094"};
      return {"-3", "-1", "0", "2", "100"};
    case ValueType::kInt64:
      return {"-9000000000", "-1", "0", "5", "9000000000"};
    case ValueType::kUint8:
    case ValueType::kUint16:
    case ValueType::kUint32:
      return {"0", "1", "2", "200"};
    case ValueType::kUint64:
      return {"0", "3", "18446744073709551615"};
    case ValueType::kBool:
      return {"true", "false"};
    case ValueType::kEnum: {
      std::vector<std::string> names;
      for (const auto& name : leaf.enums) names.push_back(name.name);
      return names;
    }
    case ValueType::kDecimal64:
      return {"-1.25", "0.5", "10.0"};
    case ValueType::kIpv4:
      return {"9.0.0.1", "10.0.0.1", "192.168.1.200"};
    case ValueType::kBinary:
      if (leaf.binary_text == cdb_store::BinaryText::kOctets) return {"00:11:22:33:44:55", "aa:bb:cc:dd:ee:ff"};
      return {"", "AA==", "AAE=", "/w=="};
    default:
      break;
  }
  if (leaf.name == "colour" || parent == "of-identity") return {"unlike:red", "unlike:blue"};
  if (leaf.name == "handling") return {"", "cold", "cold wet"};
  if (parent == "of-bits") return {"", "wet cold"};
  if (parent == "of-union" && leaf.name == "k") return {"all", "0", "7"};
  if (parent == "of-union") return {"", "a b", "q'\"{z", "x"};
  if (leaf.name == "interface-name") return {"eth0", "eth1", "ge-1"};
  return {"a", "bb", "c"};
}

struct Failure {
  std::string tag;
};

/// Applies one edit; `way` are the trees above, with their nodes and the name of the step below each.
class Applier final {
 public:
  explicit Applier(const cdb_store::Schema& schema) : schema_{schema} {}

  void Children(const Node& parent, Tree& tree, const std::vector<Edit>& edits, const std::string& inherited) {
    std::set<std::string> seen;
    std::set<std::string> names;
    for (const Edit& edit : edits) {
      if (!edit.node->IsKeyed() && !names.insert(edit.node->name).second) throw Failure{"bad-element"};
      if (Removes(Of(edit, inherited))) continue;
      for (const std::string& rival : Rivals(parent, edit.node->name))
        if (seen.count(rival) != 0) throw Failure{"bad-element"};
      seen.insert(edit.node->name);
    }
    for (const bool removals : {true, false})
      for (const Edit& edit : edits)
        if (Removes(Of(edit, inherited)) == removals) {
          way_.push_back({&parent, &tree, edit.Name()});
          One(tree, edit, Of(edit, inherited));
          way_.pop_back();
        }
  }

 private:
  struct Above {
    const Node* node;
    Tree* tree;
    std::string step;
  };

  static std::string Of(const Edit& edit, const std::string& inherited) {
    return edit.operation.empty() ? inherited : edit.operation;
  }
  static bool Removes(const std::string& operation) { return operation == "delete" || operation == "remove"; }

  // What holds something in the end is created on the way, and decides choices on the way.
  void Created() {
    for (const Above& above : way_)
      for (const std::string& rival : Rivals(*above.node, BaseName(above.step)))
        std::erase_if(above.tree->children, [&](const auto& child) { return BaseName(child.first) == rival; });
  }

  void One(Tree& parent, const Edit& edit, const std::string& operation) {
    const Node& node = *edit.node;
    const std::string name = edit.Name();
    const auto found = parent.children.find(name);
    const bool plain = node.kind == NodeKind::kContainer;
    const bool exists = found != parent.children.end() && (!plain || !found->second.children.empty());
    if (operation == "create" && exists) throw Failure{"data-exists"};
    if (operation == "delete" && !exists) throw Failure{"data-missing"};
    if (operation == "none" && !exists && !plain) throw Failure{"data-missing"};
    if (Removes(operation)) {
      parent.children.erase(name);
      return;
    }
    if (operation == "replace") parent.children.erase(name);
    if (operation != "none" && !plain) {
      Created();
      parent.children[name];
      if (node.kind == NodeKind::kLeaf) parent.children[name].value = edit.value;
      for (size_t i = 0; i < node.keys.size(); ++i)
        parent.children[name].children[schema_.node(node.keys[i]).name].value = edit.keys[i];
    }
    if (node.kind == NodeKind::kLeaf || node.kind == NodeKind::kLeafList) return;
    Tree& tree = parent.children[name];
    Children(node, tree, edit.children, operation);
    if (plain && parent.children[name].children.empty()) parent.children.erase(name);
  }

  const cdb_store::Schema& schema_;
  std::vector<Above> way_;
};

void AppendEditXml(const cdb_store::Schema& schema, const Edit& edit, bool top, std::string* out) {
  const cdb_store::Namespace& ns = schema.ns(*edit.node);
  *out += "<" + edit.node->name;
  if (top) *out += " xmlns=\"" + ns.uri + "\" xmlns:" + ns.module + "=\"" + ns.uri + "\"";
  if (!edit.operation.empty())
    *out += " nc:operation=\"" + edit.operation + "\" xmlns:nc=\"" + std::string{netconf::kBaseNs} + "\"";
  *out += ">";
  if (edit.node->kind == NodeKind::kLeaf) *out += netconf::Escaped(edit.value);
  if (edit.node->kind == NodeKind::kLeafList) *out += netconf::Escaped(edit.keys[0]);
  for (size_t i = 0; i < edit.node->keys.size(); ++i) {
    const std::string& name = schema.node(edit.node->keys[i]).name;
    *out += "<" + name + ">" + netconf::Escaped(edit.keys[i]) + "</" + name + ">";
  }
  for (const Edit& child : edit.children) AppendEditXml(schema, child, false, out);
  *out += "</" + edit.node->name + ">";
}

}  // namespace

std::string Tree::Text(int depth) const {
  std::string text = value.empty() ? "\n" : " = " + value + "\n";
  for (const auto& [name, child] : children)
    text += std::string(static_cast<size_t>(depth) * 2, ' ') + name + child.Text(depth + 1);
  return text;
}

Tree TreeOf(const cdb_store::Schema& schema, const Node& node, const netconf::XmlElement& element) {
  Tree tree;
  if (node.kind == NodeKind::kLeaf) tree.value = element.text;
  for (const auto* child = element.first_child; child != nullptr; child = child->next) {
    const Node* below = schema.FindChild(node, child->name->local);
    if (below == nullptr) continue;
    std::string name = below->name;
    for (const cdb_store::NodeId key : below->keys)
      name += "[" + std::string{child->Child(child->name->ns, schema.node(key).name)->text} + "]";
    if (below->kind == NodeKind::kLeafList) name += "[" + std::string{child->text} + "]";
    tree.children[name] = TreeOf(schema, *below, *child);
  }
  return tree;
}

std::string Edit::Name() const {
  std::string name = node->name;
  for (const std::string& key : keys) name += "[" + key + "]";
  return name;
}

std::string EditMaker::Pick(const Node& leaf) {
  const std::vector<std::string> values = Values(schema_, leaf);
  return values[Below(values.size())];
}

Edit EditMaker::MakeOne(const Node& node) {
  Edit edit;
  edit.node = &node;
  if (Below(5) == 0) {
    const char* operations[] = {"merge", "replace", "create", "delete", "remove", "remove"};
    edit.operation = operations[Below(6)];
  }
  if (node.kind == NodeKind::kLeaf) edit.value = Pick(node);
  if (node.kind == NodeKind::kLeafList) edit.keys.push_back(Pick(node));
  for (const cdb_store::NodeId key : node.keys) edit.keys.push_back(Pick(schema_.node(key)));
  if (node.kind != NodeKind::kLeaf && node.kind != NodeKind::kLeafList) edit.children = MakeChildren(node);
  return edit;
}

std::vector<Edit> EditMaker::MakeChildren(const Node& parent) {
  std::vector<Edit> edits;
  std::vector<const Node*> possible;
  for (const cdb_store::NodeId id : parent.children)
    if (schema_.node(id).config && !schema_.node(id).IsKeyLeaf()) possible.push_back(&schema_.node(id));
  if (possible.empty()) return edits;
  std::set<std::string> seen;
  for (size_t n = Below(4); n > 0; --n) {
    const Node& node = *possible[Below(possible.size())];
    if (!node.IsKeyed() && !seen.insert(node.name).second && Below(20) != 0) continue;
    edits.push_back(MakeOne(node));
  }
  return edits;
}

std::vector<Edit> EditMaker::Make() {
  while (true) {
    std::vector<Edit> edits = MakeChildren(schema_.root());
    if (!edits.empty()) return edits;
  }
}

std::string ToXml(const cdb_store::Schema& schema, const std::vector<Edit>& edits) {
  std::string xml;
  for (const Edit& edit : edits) AppendEditXml(schema, edit, true, &xml);
  return xml;
}

std::string Apply(const cdb_store::Schema& schema, const std::vector<Edit>& edits, const std::string& default_operation,
                  Tree* tree) {
  try {
    if (default_operation == "replace") tree->children.clear();
    Applier{schema}.Children(schema.root(), *tree, edits, default_operation == "replace" ? "merge" : default_operation);
  } catch (const Failure& failure) {
    return failure.tag;
  }
  return "";
}

}  // namespace cdbd::test
