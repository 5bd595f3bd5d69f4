#include "engine/other_planes.h"

#include <spdlog/spdlog.h>

#include <string>
#include <utility>
#include <vector>

#include "dataplane/dataplanes.h"

namespace mgr {
namespace {

std::string CountOf(const std::optional<size_t>& ports) {
  if (!ports) return "an unknown number of ports";
  return std::to_string(*ports) + (*ports == 1 ? " port" : " ports");
}

}  // namespace

std::function<common::Status()> OtherPlanes(std::string_view chosen, const DataplaneOptions& options) {
  std::vector<std::function<common::Status()>> ends;
  for (const DataplaneKind& kind : DataplaneKinds()) {
    if (kind.name == chosen) continue;
    const auto remains = kind.find(options);
    if (!remains) continue;
    const std::string obstacle =
        chosen == "memory" ? "the memory dataplane puts nothing in their place" : remains->obstacle;
    if (obstacle.empty()) ends.push_back(remains->end);
    if (remains->ports == 0) continue;
    spdlog::warn(
        "{} still filtered by an earlier manager's {} beside this dataplane, {}: {}", CountOf(remains->ports),
        kind.name, remains->where,
        obstacle.empty() ? "until a client has sent its complete configuration" : "it cannot be ended: " + obstacle);
  }
  if (ends.empty()) return {};
  return [ends = std::move(ends)] {
    for (const auto& end : ends)
      if (common::Status ended = end(); !ended) return ended;
    return common::Ok();
  };
}

}  // namespace mgr
