#pragma once

#include <optional>
#include <string_view>

#include "cdb_store/instance_key.h"
#include "client.h"

namespace confd {

/// The node and instance that a path names in a session.
struct Target {
  const cdb_store::Node* node = nullptr;
  cdb_store::InstanceKey key;
  bool is_missing = false;  ///< a position beyond the end of its list: nothing is at or below it
  bool names_list = false;  ///< the path ends in a list (or leaf-list) without saying which instance
  /// The row that the walk to a position came by, and whose it is: saves reading it again.
  std::optional<std::string_view> row;
  const cdb_store::Node* row_node = nullptr;

  /// The leaf's stored value; nothing when it does not exist. `buffer` holds the value of a key leaf.
  std::optional<std::string_view> Leaf(const cdb_store::View& view, std::string& buffer) const;
};

/// Resolves `path` in `session`. CONFD_OK, or CONFD_ERR with the last error naming the path and what is wrong with it.
/// Instances named by key are not looked for.
int ResolvePath(Session& session, std::string_view path, Target& target);

/// CONFD_ERR with `path "...": problem`.
int FailPath(confd_errno_value code, std::string_view path, const std::string& problem);

}  // namespace confd
