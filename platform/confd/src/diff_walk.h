#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/diff.h"
#include "confd_cdb.h"
#include "keypath_builder.h"

namespace confd {

struct DiffIterator {
  cdb_iter_fn function = nullptr;
  int flags = 0;
  void* state = nullptr;
};

/// One cdb_diff_iterate(): the net difference at and below a subscribed node, in schema order and key order, whichever
/// flags are set. Containers without presence are gone through without a callback. The levels of the walk are those of
/// the data tree from its root, so ITER_UP goes on behind the reported node's parent; nodes above the subscribed one
/// are reported only as deleted instances. Key leaves are not reported: they come and go with their instance.
///
/// Cost: a few seeks in the difference for each reported instance; memory does not grow with the difference.
class DiffWalk final {
 public:
  DiffWalk(cdb_store::DiffView diff, const cdb_store::SubscriptionTarget& target, DiffIterator iterator);
  /// CONFD_OK, also when the iterator ended the walk; CONFD_ERR when it answered with none of its values, or when the
  /// store failed, after which nothing is reported.
  int Run();

 private:
  enum class Next { kContinue, kDown, kUp, kStop };
  using OptionalChange = std::optional<cdb_store::Change>;

  /// The change that a read has found. A read that failed ends the walk: nothing is reported after it.
  OptionalChange Take(cdb_store::Lookup<cdb_store::Change> read);

  /// The changes below an instance or container that lies in the row with the change `row`. kContinue or kStop.
  Next WalkChildren(const cdb_store::Node& parent, std::string_view keys, const OptionalChange& row);
  Next VisitLeaf(const cdb_store::Node& leaf, const OptionalChange& row);
  Next VisitInstances(const cdb_store::Node& list, std::string_view parent_keys);
  Next VisitInstance(const cdb_store::Node& node, std::string_view keys);
  Next Report(confd_iter_op op, confd_value_t* old_value, confd_value_t* new_value);
  Next ReportNode(confd_iter_op op) { return Report(op, nullptr, nullptr); }

  /// The keys of the first instance of `list` at or behind `from` (a beginning of encoded keys) with a change at or
  /// below.
  std::optional<std::string> FirstChanged(const cdb_store::Node& list, std::string_view parent_keys,
                                          std::string_view from);
  bool IsChanged(const cdb_store::Node& node, std::string_view keys);
  [[nodiscard]] bool IsInScope(const cdb_store::Node& node) const;  ///< at or below the subscribed node

  const cdb_store::Schema& schema_;
  const cdb_store::DiffView diff_;
  cdb_store::DiffCursor cursor_;
  const cdb_store::SubscriptionTarget target_;
  const cdb_store::Node& target_node_;
  const DiffIterator iterator_;
  KeypathBuilder path_;
  std::optional<common::Error> failed_;
  int bad_answer_ = 0;
  bool has_bad_answer_ = false;
};

}  // namespace confd
