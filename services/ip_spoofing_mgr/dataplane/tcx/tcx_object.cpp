#include "dataplane/tcx/tcx_object.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>

#include "common/unique_fd.h"
#include "dataplane/tcx/inventory.h"
#include "dataplane/tcx/layout.h"
#include "dataplane/tcx/maps.h"
#include "filter.skel.h"

namespace mgr::tcx {
namespace {

/// Copies every element of a map into one of the same kind and element size.
common::Status CopyMap(int from, int to, const std::string& name, size_t key_size, size_t value_size) {
  common::Status result = common::Ok();
  common::Status dumped = DumpInto(from, key_size, value_size, [&](const void* keys, const void* values, size_t count) {
    UpdateAll(to, keys, key_size, values, value_size, count, [&](size_t, int error) {
      if (result.ok()) result = common::SystemError("map_update", name, error);
    });
  });
  return dumped.ok() ? result : dumped;
}

int Silent(libbpf_print_level, const char*, va_list) { return 0; }

}  // namespace

void Object::Destroy::operator()(filter_bpf* skeleton) const noexcept { filter_bpf__destroy(skeleton); }

common::Result<Object> Object::Load(const std::string& mount, uint32_t slots) {
  libbpf_set_print(Silent);  // what fails comes back as an error
  Object object;
  object.mount_ = mount;
  Inventory inventory = TakeInventory(mount);
  const std::vector<MapDir>& found = inventory.readable;
  object.unreadable_ = std::move(inventory.unreadable);
  const auto usable = std::find_if(found.begin(), found.end(),
                                   [slots](const MapDir& dir) { return dir.complete() && dir.slots >= slots; });
  if (usable != found.end()) {
    common::Status loaded = object.LoadAt(*usable, usable->slots);
    if (!loaded.ok()) return loaded.error();
    return object;
  }
  // A new directory is complete in fact when there is no other: the earlier ones had been removed already.
  const bool alone = found.size() == 1 && object.unreadable_.empty();
  std::vector<MapDir> sources;
  std::copy_if(found.begin(), found.end(), std::back_inserter(sources),
               [alone](const MapDir& dir) { return alone || dir.complete(); });
  object.starts_blind_ = sources.empty() && (inventory.attached || !object.unreadable_.empty());
  const MapDir fresh{PLANE_LAYOUT, slots, object.starts_blind_ ? MapDir::State::kBlind : MapDir::State::kNew};
  const auto is_fresh = [&fresh](const MapDir& dir) { return dir.Name() == fresh.Name(); };
  // What attached filters use lives as long as they do, with or without a pin.
  if (std::none_of(sources.begin(), sources.end(), is_fresh)) RemovePins(mount + "/" + fresh.Name());
  common::Status loaded = object.LoadAt(fresh, slots);
  if (!loaded.ok()) return loaded.error();
  for (const MapDir& dir : sources) {
    if (is_fresh(dir)) continue;
    if (common::Status copied = object.CopyFrom(dir); !copied.ok()) return copied.error();
  }
  return object;
}

common::Status Object::LoadAt(const MapDir& dir, uint32_t slots) {
  dir_ = dir;
  dir_.slots = slots;
  const std::string path = mount_ + "/" + dir.Name();
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return common::SystemError("mkdir", path, errno);
  auto loaded = LoadSkeleton();
  if (!loaded.ok()) return loaded.error();
  skeleton_ = std::move(loaded).value();
  return common::Ok();
}

common::Result<Object::Skeleton> Object::LoadSkeleton() const {
  const std::string path = mount_ + "/" + dir_.Name();
  Skeleton skeleton{filter_bpf__open()};
  if (skeleton == nullptr) return common::SystemError("open the filter program", {}, errno);
  if (int error = bpf_map__set_max_entries(skeleton->maps.entries, dir_.slots); error != 0)
    return common::SystemError("size the entry map", std::to_string(dir_.slots), -error);
  bpf_map* map = nullptr;
  bpf_object__for_each_map(map, skeleton->obj) {
    if (bpf_map__is_internal(map)) continue;
    bpf_map__set_pin_path(map, (path + "/" + bpf_map__name(map)).c_str());
  }
  if (int error = filter_bpf__load(skeleton.get()); error != 0)
    return common::SystemError("load the filter program", path, -error);
  return skeleton;
}

int Object::spare_program() {
  if (spare_ == nullptr) {
    auto loaded = LoadSkeleton();
    if (!loaded.ok()) return -1;
    spare_ = std::move(loaded).value();
  }
  return bpf_program__fd(spare_->progs.filter_ingress);
}

common::Status Object::CopyFrom(const MapDir& dir) {
  const std::string path = mount_ + "/" + dir.Name() + "/";
  const auto copy = [&path](const char* name, int to, size_t key_size, size_t value_size) -> common::Status {
    const common::UniqueFd from{bpf_obj_get((path + name).c_str())};
    if (!from) return common::SystemError("bpf_obj_get", path + name, errno);
    return CopyMap(from.get(), to, name, key_size, value_size);
  };
  const size_t counter_size = sizeof(uint64_t) * static_cast<size_t>(libbpf_num_possible_cpus());
  const std::array<std::pair<const char*, common::Status>, 5> copied = {{
      {"entries", copy("entries", entries(), sizeof(plane_entry_key), sizeof(verdict_entry))},
      {"records", copy("records", records(), sizeof(uint32_t), sizeof(plane_record))},
      {"ports", copy("ports", ports(), sizeof(uint32_t), sizeof(plane_port))},
      {"counters", copy("counters", counters(), sizeof(uint32_t), counter_size)},
      {"violators", copy("violators", violators(), sizeof(plane_violator_key), sizeof(plane_violator))},
  }};
  for (const auto& [name, status] : copied)
    if (!status.ok()) return status;
  return common::Ok();
}

void Object::Finish() {
  starts_blind_ = false;
  for (const std::string& name : ListNames(mount_))
    if (name != dir_.Name() && name != "links") RemovePins(mount_ + "/" + name);
  if (!dir_.complete()) {
    MapDir finished = dir_;
    finished.state = MapDir::State::kComplete;
    if (rename((mount_ + "/" + dir_.Name()).c_str(), (mount_ + "/" + finished.Name()).c_str()) == 0) dir_ = finished;
  }
}

int Object::program() const { return bpf_program__fd(skeleton_->progs.filter_ingress); }
int Object::ports() const { return bpf_map__fd(skeleton_->maps.ports); }
int Object::entries() const { return bpf_map__fd(skeleton_->maps.entries); }
int Object::counters() const { return bpf_map__fd(skeleton_->maps.counters); }
int Object::violators() const { return bpf_map__fd(skeleton_->maps.violators); }
int Object::events() const { return bpf_map__fd(skeleton_->maps.events); }
int Object::records() const { return bpf_map__fd(skeleton_->maps.records); }

}  // namespace mgr::tcx
