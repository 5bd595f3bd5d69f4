#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "common/result.h"
#include "common/unique_fd.h"

namespace mgr::tcx {

/// The attachments of the filter, by interface index, pinned so that they outlive the process. The filter learns from
/// the map `ports` which port an interface is, so an interface keeps its attachment whatever it is called.
class Links final {
 public:
  explicit Links(std::string dir) : dir_{std::move(dir)} {}

  /// Opens what is pinned and makes it run `program` from the next frame on, or leaves it as it is when `program` is
  /// -1. Attachments whose interface is gone are removed.
  common::Status TakeOver(int program);
  /// After this, and while the interface lives, the filter sees every frame that enters it. ENODEV when there is no
  /// such interface. Costs some milliseconds when it was not attached before.
  int Attach(int program, uint32_t ifindex);
  void Detach(uint32_t ifindex);
  /// True when no attachment runs another program.
  [[nodiscard]] bool AllRun(int program) const;
  [[nodiscard]] const std::map<uint32_t, common::UniqueFd>& all() const noexcept { return links_; }

 private:
  [[nodiscard]] std::string Pin(uint32_t ifindex) const { return dir_ + "/if-" + std::to_string(ifindex); }
  const std::string dir_;
  std::map<uint32_t, common::UniqueFd> links_;
};

/// True when this kernel has the tcx hook.
bool TcxSupported();

}  // namespace mgr::tcx
