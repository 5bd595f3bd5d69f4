#pragma once

#include <map>
#include <string>
#include <vector>

#include "cdb_store/schema.h"
#include "confd_cdb.h"

/// A second, deliberately simple idea of what a commit changes: two whole trees in memory are compared node by node.
namespace confd_model {

/// One key, ordered as the data model wants: numbers by value, texts by bytes.
struct Key {
  bool is_number = false;
  long number = 0;
  std::string text;  ///< canonical
  friend bool operator==(const Key& a, const Key& b) { return a.text == b.text; }
  friend bool operator<(const Key& a, const Key& b) { return a.is_number ? a.number < b.number : a.text < b.text; }
};
using Keys = std::vector<Key>;

/// The content of the root, a container or an instance.
struct Tree {
  std::map<cdb_store::NodeId, std::string> leaves;          ///< canonical text; key leaves are not here
  std::map<cdb_store::NodeId, Tree> containers;             ///< with and without presence
  std::map<cdb_store::NodeId, std::map<Keys, Tree>> lists;  ///< instances; a leaf-list's have no content
  friend bool operator==(const Tree&, const Tree&) = default;
};

/// Drops containers without presence, and lists, that have no content: they do not exist.
void Prune(const cdb_store::Schema& schema, const cdb_store::Node& parent, Tree& tree);

struct Step {
  const cdb_store::Node* node = nullptr;
  Keys keys;  ///< empty: none given
};
using Path = std::vector<Step>;
std::string Text(const cdb_store::Schema& schema, const Path& path);

/// Makes everything on the path, and sets the leaf at its end.
void Put(const cdb_store::Schema& schema, Tree& tree, const Path& path, const std::string& value);
/// Removes what is at and below the path's end.
void Remove(Tree& tree, const Path& path);

/// What an iterator is told and what it answers.
struct Call {
  std::string path;
  confd_iter_op op;
  std::string old_value, new_value;  ///< "-": a null pointer
  std::string Text() const;
};
using Answer = confd_iter_ret (*)(const Call& call, unsigned seed);

/// The calls of a walk below `target` with these flags when every one is answered by `answer`.
std::vector<std::string> ExpectedCalls(const cdb_store::Schema& schema, const Tree& before, const Tree& after,
                                       const Path& target, int flags, Answer answer, unsigned seed);

}  // namespace confd_model
