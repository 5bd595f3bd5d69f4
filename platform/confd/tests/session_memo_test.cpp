// A session gives every read the result that a fresh session gives, whatever was read in it before.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "cdb_store/instance_key.h"
#include "cdb_store_testing/models.h"
#include "confd_testing/sockets.h"

namespace {

using cdb_store::Node;
using cdb_store::NodeKind;
using cdb_store::Schema;
using cdb_store::ValueType;
using confd_testing::Connect;
using confd_testing::Edit;
using confd_testing::Put;
using confd_testing::Remove;
using confd_testing::TestServer;

constexpr int kTrees = 12;
constexpr int kReads = 1500;

std::string Failure(int result) {
  return std::to_string(result) + " " + std::to_string(confd_errno) + " " + confd_lasterr();
}

/// What the calls say about a path: existence, number of instances, value.
std::vector<std::string> Read(int sock, const std::string& path) {
  std::vector<std::string> said;
  const int exists = cdb_exists(sock, "%s", path.c_str());
  said.push_back(exists >= 0 ? std::to_string(exists) : Failure(exists));
  const int count = cdb_num_instances(sock, "%s", path.c_str());
  said.push_back(count >= 0 ? std::to_string(count) : Failure(count));
  confd_value_t value;
  if (const int result = cdb_get(sock, &value, "%s", path.c_str()); result != CONFD_OK) {
    said.push_back(Failure(result));
    return said;
  }
  char text[1024] = "";
  confd_pp_value(text, sizeof text, &value);
  said.push_back("type " + std::to_string(value.type) + " " + text);
  confd_free_value(&value);
  return said;
}

/// Random paths and trees of the box model.
class Random final {
 public:
  Random(const Schema& schema, unsigned seed) : schema_{schema}, random_{seed} {}

  size_t Below(size_t n) { return random_() % n; }
  bool OneIn(size_t n) { return Below(n) == 0; }

  std::string ValueOf(ValueType type) {
    switch (type) {
      case ValueType::kEmpty:
        return "";
      case ValueType::kString:
        return Any({"a", "b", "ab", "a/b", "x}y", "q\"1", "[0]", "{a}", "a b", "", "\\", "l\n"});
      case ValueType::kEnum:
        return Any({"north", "east", "south"});
      case ValueType::kIpv4:
        return Any({"0.0.0.0", "10.0.0.1", "10.0.1.0"});
      case ValueType::kIpv6:
        return Any({"::", "fe80::1"});
      case ValueType::kBool:
        return Any({"true", "false"});
      case ValueType::kBinary:
        return Any({"AAA=", "////"});
      case ValueType::kDecimal64:
        return Any({"0.0", "1.5"});
      default:
        return Any({"0", "1", "2"});
    }
  }

  /// A value of the tree: down to a leaf, or to an instance.
  Edit Value() {
    const Node* node = &Child(schema_.root());
    std::string path = "/" + schema_.ns(*node).prefix + ":" + node->name;
    while (!node->children.empty()) {
      node = &Child(*node);
      path += "/" + node->name + (node->IsKeyed() ? Keys(*node) : "");
      if (node->HasRow() && OneIn(4)) return Put(path);
    }
    if (node->IsKeyLeaf()) return Put(path.substr(0, path.rfind('/')));
    return Put(path, node->kind == NodeKind::kLeaf ? ValueOf(node->type) : "");
  }

  /// The path after this one: begins like it, mostly.
  std::string NextPath() {
    const size_t keep = OneIn(8) ? 0 : steps_.size() - Below(std::min<size_t>(steps_.size(), 3) + 1);
    steps_.resize(keep);
    while (steps_.empty() || (!Last().children.empty() && !OneIn(4))) {
      const Node& node = steps_.empty() ? Child(schema_.root()) : Child(Last());
      steps_.emplace_back(&node, StepText(node));
    }
    std::string path;
    for (const auto& [node, text] : steps_) path += "/" + text;
    if (!OneIn(10)) return path;
    if (OneIn(2)) return path + Any({"/", "}", "[", "[0]", "{a}", "x", "//", "/nothing", "\""});
    return path.substr(0, Below(path.size() + 1));
  }

  const Node& Child(const Node& parent) {
    const Node* child = nullptr;
    do child = &schema_.node(parent.children[Below(parent.children.size())]);
    while (!child->config && !OneIn(20));
    return child->config ? *child : schema_.node(parent.children[0]);
  }

 private:
  std::string Any(const std::vector<const char*>& texts) { return texts[Below(texts.size())]; }
  const Node& Last() const { return *steps_.back().first; }

  std::string Keys(const Node& node) {
    if (node.kind == NodeKind::kLeafList) return "{" + cdb_store::QuoteKey(ValueOf(node.type)) + "}";
    std::string text;
    for (const auto id : node.keys) {
      text += (text.empty() ? "{" : " ") + cdb_store::QuoteKey(ValueOf(schema_.node(id).type));
    }
    return text + "}";
  }

  std::string StepText(const Node& node) {
    const std::string prefix = node.parent == cdb_store::kRootId && !OneIn(3) ? schema_.ns(node).prefix + ":" : "";
    if (!node.IsKeyed() ? !OneIn(60) : OneIn(6)) return prefix + node.name;
    return prefix + node.name + (OneIn(2) && node.IsKeyed() ? Keys(node) : "[" + std::to_string(Below(5)) + "]");
  }

  const Schema& schema_;
  std::mt19937 random_;
  std::vector<std::pair<const Node*, std::string>> steps_;
};

class SessionMemo : public ::testing::Test {
 protected:
  SessionMemo() : server_{cdb_store::testing::BoxSchema()} {}
  int Open(cdb_db_type db = CDB_RUNNING) {
    const int sock = Connect(server_, CDB_READ_SOCKET);
    EXPECT_EQ(cdb_start_session(sock, db), CONFD_OK) << confd_lasterr();
    return sock;
  }
  /// A read in a session of its own.
  static std::vector<std::string> ReadAfresh(int sock, cdb_db_type db, int ns_hash, const std::string& path) {
    EXPECT_EQ(cdb_end_session(sock), CONFD_OK);
    EXPECT_EQ(cdb_start_session(sock, db), CONFD_OK);
    if (ns_hash != 0) {
      EXPECT_EQ(cdb_set_namespace(sock, ns_hash), CONFD_OK);
    }
    return Read(sock, path);
  }
  TestServer server_;
};

TEST_F(SessionMemo, LongSessionsReadWhatFreshOnesDo) {
  const Schema schema = cdb_store::testing::BoxSchema();
  const int hashes[] = {static_cast<int>(schema.namespaces()[0].hash), static_cast<int>(schema.namespaces()[1].hash)};
  size_t present = 0;
  for (unsigned tree = 0; tree < kTrees; ++tree) {
    Random random(schema, tree);
    for (const bool bulk : {true, false}) {  // before the commit another tree than after
      std::vector<Edit> edits = {Remove("/tb:box")};
      for (size_t n = random.Below(80); n > 0; --n) edits.push_back(random.Value());
      server_.Commit(edits, bulk);
    }
    const cdb_db_type kinds[] = {CDB_RUNNING, CDB_PRE_COMMIT_RUNNING};
    const int sessions[] = {Open(kinds[0]), Open(kinds[1])};
    const int fresh = Open();
    int ns_hash[] = {0, 0};
    for (int i = 0; i < kReads; ++i) {
      const size_t which = random.Below(2);
      if (random.OneIn(50)) {
        ns_hash[which] = hashes[random.Below(2)];
        ASSERT_EQ(cdb_set_namespace(sessions[which], ns_hash[which]), CONFD_OK);
      }
      const std::string path = random.NextPath();
      const auto said = Read(sessions[which], path);
      ASSERT_EQ(said, ReadAfresh(fresh, kinds[which], ns_hash[which], path))
          << path << ", tree " << tree << " read " << i;
      if (said[0] == "1") ++present;
    }
    for (const int sock : {sessions[0], sessions[1], fresh}) cdb_close(sock);
  }
  EXPECT_GT(present, static_cast<size_t>(kTrees * kReads / 10)) << "hardly anything was there to be read";
}

std::vector<std::string> Some(int sock, const std::vector<std::string>& paths) {
  std::vector<std::string> said;
  for (const std::string& path : paths) {
    const int exists = cdb_exists(sock, "%s", path.c_str());
    said.push_back(exists >= 0 ? std::to_string(exists) : "error " + std::to_string(confd_errno));
  }
  return said;
}
using Results = std::vector<std::string>;

TEST_F(SessionMemo, ANamespaceSelectedInBetweenCounts) {
  server_.Commit({Put("/tb:twin", "first"), Put("/tb:box/name", "n")});
  const int sock = Open();
  const std::string bad = "error " + std::to_string(CONFD_ERR_BADPATH);
  EXPECT_EQ(Some(sock, {"/box/name", "/twin"}), (Results{"1", bad}));
  ASSERT_EQ(cdb_set_namespace(sock, cdb_store::testing::kBoxHash), CONFD_OK);
  EXPECT_EQ(Some(sock, {"/twin", "/box/name"}), (Results{"1", "1"}));
  ASSERT_EQ(cdb_set_namespace(sock, static_cast<int>(cdb_store::NameHash("test-extra"))), CONFD_ERR);
  EXPECT_EQ(Some(sock, {"/box/name"}), (Results{"1"})) << "a namespace that is none changes nothing";
  const Schema schema = cdb_store::testing::BoxSchema();
  ASSERT_EQ(cdb_set_namespace(sock, static_cast<int>(schema.namespaces()[1].hash)), CONFD_OK);
  EXPECT_EQ(Some(sock, {"/box/name", "/twin"}), (Results{bad, "0"}));
  cdb_close(sock);
}

TEST_F(SessionMemo, PositionsBeyondTheEndAndInsideInTurn) {
  server_.Commit({Put("/tb:box/site{a}/height", "1.0"), Put("/tb:box/site{b}")});
  const int sock = Open();
  EXPECT_EQ(Some(sock, {"/tb:box/site[0]/height", "/tb:box/site[2]/height", "/tb:box/site[1]/height",
                        "/tb:box/site[2]/where/floor[0]", "/tb:box/site[0]/height", "/tb:box/site[0]"}),
            (Results{"1", "0", "0", "0", "1", "1"}));
  cdb_close(sock);
}

TEST_F(SessionMemo, AListEmptiedBetweenSessions) {
  server_.Commit({Put("/tb:box/site{a}/height", "1.0")});
  const int sock = Open();
  const std::vector<std::string> paths = {"/tb:box/site[0]/height", "/tb:box/site[0]", "/tb:box/site"};
  EXPECT_EQ(Some(sock, paths), (Results{"1", "1", "1"}));
  server_.Commit({Remove("/tb:box/site{a}")});
  EXPECT_EQ(Some(sock, paths), (Results{"1", "1", "1"})) << "a session is a snapshot";
  EXPECT_EQ(cdb_end_session(sock), CONFD_OK);
  EXPECT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  EXPECT_EQ(Some(sock, paths), (Results{"0", "0", "0"}));
  cdb_close(sock);
}

TEST_F(SessionMemo, AnotherSocketsSessionHasItsOwn) {
  server_.Commit({Put("/tb:box/site{a}/height", "1.0")});
  server_.Commit({Remove("/tb:box/site{a}"), Put("/tb:box/site{b}")});
  const int running = Open(CDB_RUNNING);
  const int before = Open(CDB_PRE_COMMIT_RUNNING);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(Some(running, {"/tb:box/site[0]/height"}), (Results{"0"}));
    EXPECT_EQ(Some(before, {"/tb:box/site[0]/height"}), (Results{"1"}));
  }
  cdb_close(running);
  cdb_close(before);
}

}  // namespace
