#include "read/read_plan.h"

#include <algorithm>

#include "read/subtree.h"

namespace cdbd {
namespace {

using cdb_store::Node;
using cdb_store::NodeId;
using cdb_store::Schema;

class Planner final {
 public:
  explicit Planner(const Schema& schema) : schema_{schema} {
    for (size_t i = 1; i < schema.size(); ++i) {
      const auto id = static_cast<NodeId>(i);
      if (!schema.node(id).callpoint.empty()) provided_.push_back(id);
    }
  }

  void VisitChildren(const Node& parent, const DataInstance& holder, const Selection& selection) {
    for (const NodeId id : parent.children) {
      const Node& child = schema_.node(id);
      if (!HoldsProvided(child)) continue;
      const Selection candidates = selection.For(schema_.ns(child).uri, child.name);
      if (candidates.nothing()) continue;
      if (!child.callpoint.empty()) {
        needed_.push_back({&child, std::string{holder.keys()}, candidates});
        continue;
      }
      ForEachSelected(schema_, child, holder, candidates, [&](const DataInstance& instance, const Selection& selected) {
        VisitChildren(child, instance, selected);
      });
    }
  }
  std::vector<NeededList> Take() { return std::move(needed_); }

 private:
  [[nodiscard]] bool HoldsProvided(const Node& node) const {
    const auto first = std::lower_bound(provided_.begin(), provided_.end(), node.id);
    return first != provided_.end() && *first < node.end;
  }

  const Schema& schema_;
  std::vector<NodeId> provided_;  ///< rising
  std::vector<NeededList> needed_;
};

}  // namespace

std::vector<NeededList> PlanRead(const Schema& schema, const DataInstance& root, const Selection& selection) {
  Planner planner{schema};
  planner.VisitChildren(schema.root(), root, selection);
  return planner.Take();
}

}  // namespace cdbd
