/// @file cdb_schema.h
/// The data model as the scripted database knows it, and paths read against it.
#pragma once

#include <string>
#include <vector>

#include "confd_lib.h"

namespace fakes {

enum class NodeKind { kContainer, kList, kLeaf };

struct SchemaNode {
  std::string name;
  NodeKind kind = NodeKind::kContainer;
  confd_vtype type = C_NOEXISTS;  ///< of a leaf; C_XMLTAG for a leaf that is only present or not
  std::vector<std::string> keys;  ///< names of a list's key leaves, which are its first children
  std::vector<SchemaNode> children;

  const SchemaNode* Child(const std::string& child_name) const;
};

/// The root, whose only child is "config".
const SchemaNode& ModelRoot();

/// One step of a path: a node, and for a list perhaps which instance.
struct PathStep {
  const SchemaNode* node = nullptr;
  std::vector<std::string> keys;  ///< as canonical text; empty: not chosen by key
  int position = -1;              ///< from 0; -1: not chosen by position
  bool IsInstance() const { return !keys.empty() || position >= 0; }
};

struct ParsedPath {
  std::vector<PathStep> steps;
  std::string error;  ///< empty: the path is well formed and every node is in the model
};

/// Reads both spellings of an instance, `{eth3}` or `{"eth3"}` and `[17]`. The first node may carry the prefix "ais".
ParsedPath ParsePath(const std::string& text);

/// The text in a key's or leaf's canonical form; false when it is no value of that type.
bool Canonical(confd_vtype type, std::string* text);

/// Order of two keys of a type: negative, 0 or positive.
int CompareKeys(confd_vtype type, const std::string& a, const std::string& b);

}  // namespace fakes
