#include "fakes/fake_cdb.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "fakes/script.h"
#include "fakes/trace.h"

namespace fakes {
namespace {

std::string BytesOf(const std::string& colon_hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < colon_hex.size(); i += 3) {
    bytes += static_cast<char>(std::stoi(colon_hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

/// True when instance `a` comes before one with `keys`.
bool KeysLess(const SchemaNode& list, const std::vector<std::string>& a, const std::vector<std::string>& b) {
  for (size_t i = 0; i < a.size(); ++i) {
    const int order = CompareKeys(list.Child(list.keys[i])->type, a[i], b[i]);
    if (order != 0) return order < 0;
  }
  return false;
}

CdbNode NewNode(const PathStep& step) {
  CdbNode node{step.node, step.keys, "", {}};
  for (size_t i = 0; i < step.keys.size(); ++i) {
    node.children.push_back({step.node->Child(step.node->keys[i]), {}, step.keys[i], {}});
  }
  return node;
}

size_t SchemaIndex(const SchemaNode& parent, const SchemaNode* child) {
  return static_cast<size_t>(child - parent.children.data());
}

/// The child that a step names, made where it belongs when it is not there: schema order, then key order.
CdbNode* ChildFor(CdbNode* parent, const PathStep& step) {
  auto place = parent->children.begin();
  for (; place != parent->children.end(); ++place) {
    if (place->schema == step.node && place->keys == step.keys) return &*place;
    const size_t here = SchemaIndex(*parent->schema, place->schema);
    const size_t wanted = SchemaIndex(*parent->schema, step.node);
    if (here > wanted || (here == wanted && KeysLess(*step.node, step.keys, place->keys))) break;
  }
  return &*parent->children.insert(place, NewNode(step));
}

const CdbNode* ChildOf(const CdbNode* parent, const PathStep& step) {
  int position = 0;
  for (const CdbNode& child : parent->children) {
    if (child.schema != step.node) continue;
    if (step.position >= 0 ? step.position == position++ : child.keys == step.keys) return &child;
  }
  return nullptr;
}

ParsedPath MustParse(const std::string& path) {
  ParsedPath parsed = ParsePath(path);
  if (!parsed.error.empty()) throw std::invalid_argument(parsed.error);
  return parsed;
}

}  // namespace

std::vector<const CdbNode*> CdbNode::Instances(const SchemaNode* list) const {
  std::vector<const CdbNode*> found;
  for (const CdbNode& child : children) {
    if (child.schema == list) found.push_back(&child);
  }
  return found;
}

bool CdbNode::HasContent() const {
  return schema->kind != NodeKind::kContainer ||
         std::any_of(children.begin(), children.end(), [](const CdbNode& child) { return child.HasContent(); });
}

CdbNode* Cdb::Make(cdb_db_type db, const std::string& path) {
  CdbNode* node = &trees_[db];
  node->schema = &ModelRoot();
  for (const PathStep& step : MustParse(path).steps) {
    if (step.position >= 0) throw std::invalid_argument("a new instance needs keys: " + path);
    node = ChildFor(node, step);
  }
  return node;
}

void Cdb::Put(cdb_db_type db, const std::string& path) { Make(db, path); }

void Cdb::Put(cdb_db_type db, const std::string& path, const std::string& value) {
  CdbNode* const leaf = Make(db, path);
  leaf->value = leaf->schema->type == C_BINARY ? BytesOf(value) : value;
}

void Cdb::Remove(cdb_db_type db, const std::string& path) {
  std::vector<PathStep> steps = MustParse(path).steps;
  const PathStep last = steps.back();
  steps.pop_back();
  auto* const parent = const_cast<CdbNode*>(Find(db, steps));
  if (parent == nullptr) throw std::invalid_argument("nothing there: " + path);
  std::erase_if(parent->children,
                [&](const CdbNode& child) { return child.schema == last.node && child.keys == last.keys; });
}

const CdbNode* Cdb::Root(cdb_db_type db) const {
  const auto found = trees_.find(db);
  return found == trees_.end() || found->second.schema == nullptr ? nullptr : &found->second;
}

const CdbNode* Cdb::Find(cdb_db_type db, const std::vector<PathStep>& steps) const {
  const CdbNode* node = Root(db);
  for (const PathStep& step : steps) {
    if (node != nullptr) node = ChildOf(node, step);
  }
  return node;
}

int Cdb::OpenSession(cdb_db_type db) {
  const std::string name = DbName(db);
  TheTrace().Add(Kind::kSession, "open " + name);
  if (ScriptedResult("session", {name}) != 0) return -1;
  const int sock = next_socket++;
  sessions[sock] = {db, true, std::nullopt, 0};
  return sock;
}

void Cdb::CloseSession(int sock) {
  const auto found = sessions.find(sock);
  TheTrace().Add(Kind::kSession, found == sessions.end() ? "close" : std::string("close ") + DbName(found->second.db));
  if (found != sessions.end()) sessions.erase(found);
}

Cdb& TheCdb() {
  static Cdb* const cdb = new Cdb;
  return *cdb;
}

const char* DbName(cdb_db_type db) {
  switch (db) {
    case CDB_RUNNING:
      return "running";
    case CDB_STARTUP:
      return "startup";
    case CDB_OPERATIONAL:
      return "operational";
    case CDB_PRE_COMMIT_RUNNING:
      return "pre-commit";
  }
  return "unknown";
}

}  // namespace fakes
