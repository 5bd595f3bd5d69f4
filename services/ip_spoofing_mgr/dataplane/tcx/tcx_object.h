#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/result.h"
#include "dataplane/tcx/bpf_fs.h"

struct filter_bpf;

namespace mgr::tcx {

/// The loaded program and its maps.
class Object final {
 public:
  /// Loads the program on the maps pinned below `mount`: those of an earlier process when they are readable and have
  /// room for `slots` entries, else new ones into which everything of the earlier ones is copied. The earlier ones stay
  /// what attached filters use until Finish().
  static common::Result<Object> Load(const std::string& mount, uint32_t slots);
  /// Every attached filter uses the maps of this object now: all earlier pins but the attachments are removed.
  void Finish();

  [[nodiscard]] int program() const;
  /// The same program once more on the same maps, because the kernel attaches a program only once to an interface.
  /// Loaded when it is first asked for; negative when that fails, with errno set.
  [[nodiscard]] int spare_program();
  [[nodiscard]] int ports() const;
  [[nodiscard]] int entries() const;
  [[nodiscard]] int counters() const;
  [[nodiscard]] int violators() const;
  [[nodiscard]] int events() const;
  [[nodiscard]] int records() const;
  /// What was found and cannot be read, with the reasons.
  [[nodiscard]] const std::vector<std::string>& unreadable() const noexcept { return unreadable_; }
  /// The maps are new and empty, although attached filters enforce something that cannot be read.
  [[nodiscard]] bool starts_blind() const noexcept { return starts_blind_; }

 private:
  struct Destroy {
    void operator()(filter_bpf* skeleton) const noexcept;
  };
  using Skeleton = std::unique_ptr<filter_bpf, Destroy>;
  Object() = default;
  [[nodiscard]] common::Result<Skeleton> LoadSkeleton() const;
  common::Status LoadAt(const MapDir& dir, uint32_t slots);
  common::Status CopyFrom(const MapDir& dir);

  std::string mount_;
  MapDir dir_;
  std::vector<std::string> unreadable_;
  bool starts_blind_ = false;
  Skeleton skeleton_;
  Skeleton spare_;
};

}  // namespace mgr::tcx
