#include "model_tree.h"

#include <set>

namespace confd_model {

using cdb_store::Node;
using cdb_store::NodeId;
using cdb_store::NodeKind;
using cdb_store::Schema;

void Prune(const Schema& schema, const Node& parent, Tree& tree) {
  for (auto it = tree.containers.begin(); it != tree.containers.end();) {
    const Node& node = schema.node(it->first);
    Prune(schema, node, it->second);
    const bool gone = node.kind == NodeKind::kContainer && it->second == Tree{};
    it = gone ? tree.containers.erase(it) : std::next(it);
  }
  for (auto it = tree.lists.begin(); it != tree.lists.end();) {
    for (auto& [keys, instance] : it->second) Prune(schema, parent, instance);
    it = it->second.empty() ? tree.lists.erase(it) : std::next(it);
  }
}

std::string Text(const Schema& schema, const Path& path) {
  std::string text;
  NodeId parent = 0;
  for (const Step& step : path) {
    const bool prefixed = parent == 0 || schema.node(parent).ns != step.node->ns;
    text += "/" + (prefixed ? schema.ns(*step.node).prefix + ":" : "") + step.node->name;
    for (size_t i = 0; i < step.keys.size(); ++i) text += (i == 0 ? "{" : " ") + step.keys[i].text;
    if (!step.keys.empty()) text += "}";
    parent = step.node->id;
  }
  return text.empty() ? "/" : text;
}

void Put(const Schema&, Tree& tree, const Path& path, const std::string& value) {
  Tree* at = &tree;
  for (const Step& step : path) {
    if (step.node->kind == NodeKind::kLeaf) {
      at->leaves[step.node->id] = value;
    } else if (step.node->IsKeyed()) {
      at = &at->lists[step.node->id][step.keys];
    } else {
      at = &at->containers[step.node->id];
    }
  }
}

void Remove(Tree& tree, const Path& path) {
  Tree* at = &tree;
  for (size_t i = 0; i < path.size(); ++i) {
    const Step& step = path[i];
    const bool last = i + 1 == path.size();
    if (step.node->kind == NodeKind::kLeaf) {
      at->leaves.erase(step.node->id);
    } else if (step.node->IsKeyed()) {
      if (last && step.keys.empty()) {
        at->lists.erase(step.node->id);
      } else if (last) {
        at->lists[step.node->id].erase(step.keys);
      } else {
        const auto found = at->lists[step.node->id].find(step.keys);
        if (found == at->lists[step.node->id].end()) return;
        at = &found->second;
      }
    } else if (last) {
      at->containers.erase(step.node->id);
    } else {
      const auto found = at->containers.find(step.node->id);
      if (found == at->containers.end()) return;
      at = &found->second;
    }
  }
}

std::string Call::Text() const { return std::to_string(op) + " " + path + " old " + old_value + " new " + new_value; }

namespace {

const Tree kNothing;

class Walker {
 public:
  Walker(const Schema& schema, const Path& target, int flags, Answer answer, unsigned seed)
      : schema_{schema}, target_{target}, flags_{flags}, answer_{answer}, seed_{seed} {}

  enum class Next { kGoOn, kUp, kStop };

  /// `depth`: how many steps of the target have been passed; the target's size when it is reached.
  Next Children(const Node& parent, const Tree& before, const Tree& after, size_t depth, const std::string& path) {
    for (const NodeId id : parent.children) {
      const Node& node = schema_.node(id);
      if (!node.config) continue;
      if (depth < target_.size() && target_[depth].node != &node) continue;
      const bool prefixed = parent.id == 0 ? node.name == "twin" : parent.ns != node.ns;  // two modules have a twin
      const std::string here = path + "/" + (prefixed ? schema_.ns(node).prefix + ":" : "") + node.name;
      const Next next = Child(node, before, after, depth < target_.size() ? depth + 1 : depth, here);
      if (next == Next::kStop) return next;
      if (next == Next::kUp) return Next::kGoOn;
    }
    return Next::kGoOn;
  }

  std::vector<std::string> calls;

 private:
  Next Child(const Node& node, const Tree& before, const Tree& after, size_t depth, const std::string& path) {
    if (node.kind == NodeKind::kLeaf) return Leaf(node, before, after, path);
    if (node.IsKeyed()) return List(node, before, after, depth, path);
    const auto old_it = before.containers.find(node.id);
    const auto new_it = after.containers.find(node.id);
    const Tree* const old_tree = old_it == before.containers.end() ? nullptr : &old_it->second;
    const Tree* const new_tree = new_it == after.containers.end() ? nullptr : &new_it->second;
    if (node.kind == NodeKind::kPresenceContainer) return Instance(node, old_tree, new_tree, depth, path);
    return Children(node, old_tree ? *old_tree : kNothing, new_tree ? *new_tree : kNothing, depth, path);
  }

  Next List(const Node& node, const Tree& before, const Tree& after, size_t depth, const std::string& path) {
    const auto old_list = before.lists.find(node.id);
    const auto new_list = after.lists.find(node.id);
    std::set<Keys> all;
    if (old_list != before.lists.end()) {
      for (const auto& [keys, tree] : old_list->second) all.insert(keys);
    }
    if (new_list != after.lists.end()) {
      for (const auto& [keys, tree] : new_list->second) all.insert(keys);
    }
    for (const Keys& keys : all) {
      const bool named = depth <= target_.size() && depth > 0 && target_[depth - 1].node == &node;
      if (named && !target_[depth - 1].keys.empty() && target_[depth - 1].keys != keys) continue;
      const auto find = [&](const auto& list, const Tree& tree) -> const Tree* {
        if (list == tree.lists.end()) return nullptr;
        const auto found = list->second.find(keys);
        return found == list->second.end() ? nullptr : &found->second;
      };
      std::string text;
      for (const Key& key : keys) text += (text.empty() ? "{" : " ") + key.text;
      const Next next = Instance(node, find(old_list, before), find(new_list, after), depth, path + text + "}");
      if (next != Next::kGoOn) return next;
    }
    return Next::kGoOn;
  }

  Next Instance(const Node& node, const Tree* before, const Tree* after, size_t depth, const std::string& path) {
    if (before == nullptr && after == nullptr) return Next::kGoOn;
    if (before != nullptr && after != nullptr && *before == *after) return Next::kGoOn;
    if (depth < target_.size()) {
      if (after != nullptr) return Children(node, before != nullptr ? *before : kNothing, *after, depth, path);
      if ((flags_ & ITER_WANT_ANCESTOR_DELETE) == 0) return Next::kGoOn;
      return Reduce(Tell({path, MOP_DELETED, "-", "-"}));
    }
    const confd_iter_op op = before == nullptr ? MOP_CREATED : after == nullptr ? MOP_DELETED : MOP_MODIFIED;
    const confd_iter_ret answer = Tell({path, op, "-", "-"});
    if (answer != ITER_RECURSE || after == nullptr) return Reduce(answer);
    return Children(node, before != nullptr ? *before : kNothing, *after, depth, path);
  }

  Next Leaf(const Node& node, const Tree& before, const Tree& after, const std::string& path) {
    const auto old_it = before.leaves.find(node.id);
    const auto new_it = after.leaves.find(node.id);
    const bool had = old_it != before.leaves.end();
    const bool has = new_it != after.leaves.end();
    if (had == has && (!had || old_it->second == new_it->second)) return Next::kGoOn;
    Call call{path, MOP_VALUE_SET, "-", "-"};
    if (!has) call.op = MOP_DELETED;
    if (has && node.type == cdb_store::ValueType::kEmpty) call.op = MOP_CREATED;
    if (had && (flags_ & ITER_WANT_PREV) != 0) call.old_value = old_it->second;
    if (has) call.new_value = new_it->second;
    return Reduce(Tell(call));
  }

  confd_iter_ret Tell(const Call& call) {
    calls.push_back(call.Text());
    return answer_(call, seed_);
  }

  static Next Reduce(confd_iter_ret answer) {
    return answer == ITER_STOP ? Next::kStop : answer == ITER_UP ? Next::kUp : Next::kGoOn;
  }

  const Schema& schema_;
  const Path& target_;
  const int flags_;
  const Answer answer_;
  const unsigned seed_;
};

}  // namespace

std::vector<std::string> ExpectedCalls(const Schema& schema, const Tree& before, const Tree& after, const Path& target,
                                       int flags, Answer answer, unsigned seed) {
  Walker walker(schema, target, flags, answer, seed);
  walker.Children(schema.root(), before, after, 0, "");
  return walker.calls;
}

}  // namespace confd_model
