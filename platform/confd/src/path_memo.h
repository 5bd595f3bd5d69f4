#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/instance_key.h"
#include "cdb_store/schema.h"

namespace confd {

/// What the steps of a path, down to one of them, name in a session.
struct Place {
  const cdb_store::Node* node = nullptr;
  size_t keys_size = 0;     ///< of the path's encoded keys, how many bytes lead to this instance
  size_t own_keys_at = 0;   ///< where among them those of the nearest list or leaf-list begin
  bool is_missing = false;  ///< a position beyond the end of its list: nothing is at or below it
  bool names_list = false;  ///< the last step is a list (or leaf-list) without saying which instance
  /// The row that the walk to a position came by, and whose it is: saves reading it again. Null: none.
  const cdb_store::Node* row_node = nullptr;
  std::string_view row;
};

/// The steps of the path that a session resolved last. A program mostly reads leaf after leaf of one instance, instance
/// after instance of one list: the steps with which the next path begins too need not be resolved again. Only what was
/// resolved without a mistake is in it, and it holds for one snapshot: it lives and dies with its session. Loop thread
/// only.
class PathMemo final {
 public:
  /// Turns to `path`: of the steps in the memo those stay that are whole steps of `path` as well, all others go. So do
  /// all when `ns`, the namespace of bare names, is another one than before. How many bytes of `path` the steps that
  /// stay take: where PathReader goes on.
  size_t TurnTo(std::string_view path, int ns);
  /// Adds the next step of that path, whose text ends at `end`. keys() holds the keys of `place`.
  void Add(size_t end, const Place& place);

  /// What the steps in the memo name; with none of them null is the node.
  [[nodiscard]] Place last() const { return steps_.empty() ? Place{} : steps_.back().place; }
  /// The encoded keys of last(), to be lengthened by the next step's.
  [[nodiscard]] cdb_store::InstanceKey& keys() noexcept { return keys_; }

 private:
  struct Step {
    size_t end;
    Place place;
  };
  [[nodiscard]] bool IsWholeStepOf(std::string_view path, const Step& step) const;

  std::string text_;  ///< the path turned to, at least as far as the steps go
  int ns_ = -1;
  std::vector<Step> steps_;
  cdb_store::InstanceKey keys_;
};

}  // namespace confd
