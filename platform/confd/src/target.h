#pragma once

#include <optional>
#include <string_view>

#include "client.h"
#include "path_memo.h"

namespace confd {

/// The node and instance that a path names in a session.
struct Target : Place {
  std::string_view keys;  ///< of the instance; valid until the session's next path is resolved

  /// The instance of `keyed`, the list or leaf-list that the path came by last, exists.
  [[nodiscard]] cdb_store::Answer<bool> HasRow(const cdb_store::View& view, const cdb_store::Node& keyed) const {
    if (row_node == &keyed) return true;
    const cdb_store::Lookup<std::string_view> found = view.Row(keyed, keys);
    if (!found.ok()) return found.error();
    return found.value().has_value();
  }
  /// The leaf's stored value; nullopt if it does not exist. `buffer` may hold the value of a key leaf.
  [[nodiscard]] cdb_store::Lookup<std::string_view> Leaf(const cdb_store::View& view, std::string& buffer) const;
};

/// Resolves `path` in `session`. CONFD_OK, or CONFD_ERR with the last error naming the path and what is wrong with it.
/// Instances named by key are not looked for. A position that the store cannot find ends the session's reads.
int ResolvePath(Session& session, std::string_view path, Target& target);

/// CONFD_ERR for a read of `path` that the store could not serve. From then on every read of the session fails so: what
/// it has read before and what it would read now need not agree.
int FailStore(Session& session, std::string_view path, const common::Error& error);

/// CONFD_ERR with `path "...": problem`.
int FailPath(confd_errno_value code, std::string_view path, const std::string& problem);

}  // namespace confd
