// Random commits: the callbacks of every walk equal those that a comparison of whole trees expects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "cdb_store_testing/models.h"
#include "confd_testing/sockets.h"
#include "model_tree.h"

namespace {

using cdb_store::Node;
using cdb_store::NodeKind;
using cdb_store::Schema;
using cdb_store::ValueType;
using confd_model::Call;
using confd_model::Key;
using confd_model::Keys;
using confd_model::Path;
using confd_model::Tree;

constexpr int kCommits = 1500;

confd_iter_ret AlwaysRecurse(const Call&, unsigned) { return ITER_RECURSE; }
confd_iter_ret AlwaysContinue(const Call&, unsigned) { return ITER_CONTINUE; }
/// The same for the same call and seed.
confd_iter_ret Whatever(const Call& call, unsigned seed) {
  static const confd_iter_ret kAnswers[] = {ITER_RECURSE,  ITER_RECURSE,  ITER_RECURSE, ITER_RECURSE,
                                            ITER_CONTINUE, ITER_CONTINUE, ITER_UP,      ITER_STOP};
  return kAnswers[std::hash<std::string>{}(call.Text() + std::to_string(seed)) % std::size(kAnswers)];
}

std::string ValueText(const confd_value_t* value) {
  if (value == nullptr) return "-";
  if (value->type == C_BUF && CONFD_GET_BUFPTR(value)[CONFD_GET_BUFSIZE(value)] != '\0') return "not terminated";
  char text[256];
  if (value->type == C_XMLTAG) return "";
  EXPECT_GE(confd_pp_value(text, sizeof text, value), 0);
  return text;
}

struct Recorder {
  confd_model::Answer answer;
  unsigned seed;
  std::vector<std::string> calls;
};

confd_iter_ret Record(confd_hkeypath_t* kp, confd_iter_op op, confd_value_t* old_value, confd_value_t* new_value,
                      void* state) {
  auto& recorder = *static_cast<Recorder*>(state);
  char path[1024];
  EXPECT_GT(confd_pp_kpath(path, sizeof path, kp), 0) << confd_lasterr();
  const Call call{path, op, ValueText(old_value), ValueText(new_value)};
  recorder.calls.push_back(call.Text());
  return recorder.answer(call, recorder.seed);
}

/// Random paths, keys and values from small domains, so that they meet.
class Dice {
 public:
  Dice(const Schema& schema, unsigned seed) : schema_{schema}, random_{seed} {}

  size_t Pick(size_t n) { return random_() % n; }

  /// A way down to a node that can be put: a leaf, an instance or a presence container.
  Path PutPath() {
    while (true) {
      Path path = Descend(5);
      while (!path.empty() && path.back().node->kind == NodeKind::kContainer) path.pop_back();
      if (!path.empty()) return path;
    }
  }
  /// Any node; a list's instance or the whole list.
  Path RemovePath() {
    Path path = Descend(6);
    if (path.back().node->IsKeyed() && Pick(3) == 0) path.back().keys.clear();
    return path;
  }
  std::string Value(const Node& leaf) {
    switch (leaf.type) {
      case ValueType::kEmpty:
        return "";
      case ValueType::kString:
        return std::string(1, static_cast<char>('p' + Pick(3)));
      case ValueType::kDecimal64:
        return std::to_string(Pick(3)) + ".5";
      case ValueType::kIpv6:
        return "2001:db8::" + std::to_string(1 + Pick(3));
      default:
        return std::to_string(Pick(3));
    }
  }

 private:
  Path Descend(size_t stop_one_in) {
    Path path;
    const Node* node = &schema_.root();
    while (!node->children.empty()) {
      const Node& child = schema_.node(node->children[Pick(node->children.size())]);
      if (child.children.empty() && Pick(3) != 0) continue;  // rather deeper
      if (!child.config || child.IsKeyLeaf() || child.name == "number" || child.name == "other") continue;
      path.push_back({&child, KeysOf(child)});
      node = &child;
      if (child.id != 1 && Pick(stop_one_in) == 0) break;
    }
    return path;
  }
  Keys KeysOf(const Node& node) {
    Keys keys;
    if (node.kind == NodeKind::kLeafList) keys.push_back(KeyOf(node));
    for (const auto id : node.keys) keys.push_back(KeyOf(schema_.node(id)));
    return keys;
  }
  Key KeyOf(const Node& leaf) {
    switch (leaf.type) {
      case ValueType::kString:
        return {false, 0, std::array{"a", "ab", "b"}[Pick(3)]};
      case ValueType::kEnum:
        return Pick(2) == 0 ? Key{true, -2, "east"} : Key{true, 1, "north"};
      case ValueType::kIpv4:
        return Pick(2) == 0 ? Key{true, 9, "9.0.0.1"} : Key{true, 10, "10.0.0.1"};
      case ValueType::kUint16:
        return Pick(2) == 0 ? Key{true, 9, "9"} : Key{true, 300, "300"};
      default: {
        const long number = std::array{-1L, 0L, 5L}[Pick(3)];
        return {true, number, std::to_string(number)};
      }
    }
  }

  const Schema& schema_;
  std::mt19937 random_;
};

Path TargetPath(const Schema& schema, std::initializer_list<std::pair<const char*, Keys>> steps) {
  Path path;
  const Node* node = &schema.root();
  for (const auto& [name, keys] : steps) {
    node = schema.FindChild(*node, name);
    path.push_back({node, keys});
  }
  return path;
}

class DiffModel : public ::testing::TestWithParam<unsigned> {};

TEST_P(DiffModel, EveryWalkEqualsTheComparisonOfWholeTrees) {
  const Schema schema = cdb_store::testing::BoxSchema();
  confd_testing::TestServer server(schema);
  const Keys site_ab = {{false, 0, "ab"}};
  const Keys floor_5 = {{true, 5, "5"}};
  const std::vector<Path> targets = {
      {},
      TargetPath(schema, {{"box", {}}}),
      TargetPath(schema, {{"box", {}}, {"clock", {}}}),
      TargetPath(schema, {{"box", {}}, {"clock", {}}, {"zone", {}}}),
      TargetPath(schema, {{"box", {}}, {"login", {}}}),
      TargetPath(schema, {{"box", {}}, {"login", {}}, {"strict", {}}, {"level", {}}}),
      TargetPath(schema, {{"box", {}}, {"weight", {}}}),
      TargetPath(schema, {{"box", {}}, {"site", {}}}),
      TargetPath(schema, {{"box", {}}, {"site", site_ab}}),
      TargetPath(schema, {{"box", {}}, {"site", {}}, {"where", {}}}),
      TargetPath(schema, {{"box", {}}, {"site", {}}, {"where", {}}, {"floor", {}}}),
      TargetPath(schema, {{"box", {}}, {"site", {}}, {"where", {}}, {"floor", {}}, {"room", {}}}),
      TargetPath(schema, {{"box", {}}, {"site", {}}, {"where", {}}, {"floor", {}}, {"room", {}}, {"tag", {}}}),
      TargetPath(schema, {{"box", {}}, {"site", {}}, {"where", {}}, {"floor", {}}, {"room", {}}, {"locked", {}}}),
      TargetPath(schema, {{"box", {}}, {"site", site_ab}, {"where", {}}, {"floor", floor_5}, {"room", {}}}),
      TargetPath(schema, {{"box", {}}, {"site", {}}, {"height", {}}}),
  };
  std::vector<std::string> paths;
  for (const Path& target : targets) paths.push_back(Text(schema, target));
  confd_testing::Subscriber subscriber(server, paths, 0);

  Dice dice(schema, GetParam());
  Tree before;
  for (int commit = 0; commit < kCommits; ++commit) {
    Tree after = before;
    std::vector<confd_testing::Edit> edits;
    const auto remove = [&](const Path& path) {
      Remove(after, path);
      edits.push_back(confd_testing::Remove(Text(schema, path)));
    };
    for (size_t n = dice.Pick(12); n > 0; --n) {
      const Path path = dice.Pick(5) == 0 ? dice.RemovePath() : dice.PutPath();
      if (dice.Pick(5) == 0) {
        remove(path);
        continue;
      }
      Path put = path;
      while (!put.empty() && (put.back().node->kind == NodeKind::kContainer ||
                              (put.back().node->IsKeyed() && put.back().keys.empty()))) {
        put.pop_back();
      }
      if (put.empty()) continue;
      const std::string value = put.back().node->kind == NodeKind::kLeaf ? dice.Value(*put.back().node) : "";
      Put(schema, after, put, value);
      edits.push_back(confd_testing::Put(Text(schema, put), value));
      if (dice.Pick(5) == 0) {  // delete and make again
        remove(put);
        Put(schema, after, put, value);
        edits.push_back(confd_testing::Put(Text(schema, put), value));
      }
    }
    if (dice.Pick(40) == 0) remove(targets[1]);
    Prune(schema, schema.root(), after);

    const uint64_t txid = server.Commit(edits);
    if (before == after) {
      ASSERT_TRUE(server.triggered().empty()) << commit;
      continue;
    }
    subscriber.Deliver(txid);
    std::vector<int> touched;
    for (size_t t = 0; t < targets.size(); ++t) {
      for (int flags = 0; flags < 8; ++flags) {
        const int real_flags = (flags & 3) | ((flags & 4) != 0 ? ITER_WANT_SCHEMA_ORDER : 0);
        for (const confd_model::Answer answer : {AlwaysRecurse, AlwaysContinue, Whatever}) {
          const auto seed = static_cast<unsigned>(commit);
          Recorder recorder{answer, seed, {}};
          ASSERT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[t], Record, real_flags, &recorder), CONFD_OK)
              << confd_lasterr();
          const std::vector<std::string> expected =
              ExpectedCalls(schema, before, after, targets[t], real_flags, answer, seed);
          ASSERT_EQ(recorder.calls, expected) << paths[t] << " flags " << real_flags << " commit " << commit;
          if (answer == AlwaysRecurse && real_flags == ITER_WANT_ANCESTOR_DELETE && !expected.empty()) {
            touched.push_back(subscriber.points[t]);
          }
        }
      }
    }
    ASSERT_EQ(server.triggered(), touched) << commit;
    ASSERT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_OK);
    before = std::move(after);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, DiffModel, ::testing::Values(1U, 2U, 20261121U));

}  // namespace
