#include "dataplane/tcx/inventory.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cerrno>
#include <memory>
#include <optional>

#include "common/result.h"
#include "common/unique_fd.h"
#include "dataplane/tcx/layout.h"
#include "filter.skel.h"

namespace mgr::tcx {
namespace {

constexpr const char* kLinks = "links";

struct Destroy {
  void operator()(filter_bpf* skeleton) const noexcept { filter_bpf__destroy(skeleton); }
};
using Skeleton = std::unique_ptr<filter_bpf, Destroy>;

/// Why the pin is not the map that the program expects there; nothing when it is. `slots`: of the entry map.
std::optional<common::Error> Examine(const std::string& path, const filter_bpf& skeleton, const bpf_map* expected,
                                     uint32_t slots) {
  const common::UniqueFd pin{bpf_obj_get(path.c_str())};
  if (!pin) return common::SystemError({}, path, errno);
  if (KindOf(pin.get()) != PinKind::kMap) return common::Error{{}, path, "not a map"};
  bpf_map_info info{};
  uint32_t size = sizeof info;
  if (bpf_obj_get_info_by_fd(pin.get(), &info, &size) != 0) return common::SystemError({}, path, errno);
  const uint32_t elements = expected == skeleton.maps.entries ? slots : bpf_map__max_entries(expected);
  if (info.type == bpf_map__type(expected) && info.key_size == bpf_map__key_size(expected) &&
      info.value_size == bpf_map__value_size(expected) && info.max_entries == elements &&
      info.map_flags == bpf_map__map_flags(expected)) {
    return std::nullopt;
  }
  return common::Error{{}, path, "a map of another form"};
}

std::optional<common::Error> Examine(const std::string& path, const MapDir& dir, const filter_bpf& skeleton) {
  if (dir.layout != PLANE_LAYOUT) return common::Error{{}, path, "another layout"};
  const bpf_map* map = nullptr;
  bpf_object__for_each_map(map, skeleton.obj) {
    if (bpf_map__is_internal(map)) continue;
    if (auto wrong = Examine(path + "/" + bpf_map__name(map), skeleton, map, dir.slots)) return wrong;
  }
  return std::nullopt;
}

}  // namespace

Inventory TakeInventory(const std::string& mount) {
  Inventory inventory;
  const Skeleton skeleton{filter_bpf__open()};
  for (const std::string& name : ListNames(mount)) {
    const std::string path = mount + "/" + name;
    if (name == kLinks) {
      inventory.attached = !ListNames(path).empty();
      continue;
    }
    const auto dir = ParseMapDir(name);
    if (dir && dir->state == MapDir::State::kBlind) continue;
    const auto wrong =
        dir && skeleton ? Examine(path, *dir, *skeleton) : common::Error{{}, path, "not a directory of maps"};
    if (wrong) {
      inventory.unreadable.push_back(wrong->Text());
    } else {
      inventory.readable.push_back(*dir);
    }
  }
  if (inventory.attached && inventory.readable.empty() && inventory.unreadable.empty()) {
    inventory.unreadable.push_back(mount + "/" + kLinks + ": there are no maps of these attachments");
  }
  return inventory;
}

}  // namespace mgr::tcx
