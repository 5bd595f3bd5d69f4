#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/result.h"
#include "common/unique_fd.h"

namespace mgr::tcx {

/// The attachments of the filter, by interface index, pinned so that they outlive the process. The filter learns from
/// the map `ports` which port an interface is, so an interface keeps its attachment whatever it is called.
class Links final {
 public:
  explicit Links(std::string dir) : dir_{std::move(dir)} {}

  /// Opens what is pinned, which goes on as it is. Attachments whose interface is gone are removed.
  common::Status Open();
  /// What is pinned and is no attachment of this layout, with the reasons.
  [[nodiscard]] const std::vector<std::string>& unreadable() const noexcept { return unreadable_; }
  /// Makes every attachment run `program` from the next frame on.
  common::Status RunAll(int program);
  /// Ends all attachments but those that run `program`, and removes what is not readable.
  void EndOthers(int program);
  /// After this, and while the interface lives, the filter sees every frame that enters it, before the programs of
  /// others. ENODEV when there is no such interface. Costs some milliseconds when it was not attached before.
  int Attach(int program, uint32_t ifindex);
  void Detach(uint32_t ifindex);
  [[nodiscard]] bool Has(uint32_t ifindex) const { return links_.contains(ifindex); }

  /// Where the filter stands among the programs of an interface, as the kernel says.
  struct Standing {
    bool attached = false;
    uint32_t before = 0;  ///< id of the program that runs first; 0: the filter does
  };
  [[nodiscard]] static Standing StandingOf(uint32_t ifindex, const std::vector<uint32_t>& own_programs);
  /// Attaches `program`, another one than the interface has now, before all others, and then detaches the present one:
  /// a frame meets one of the two at every moment. 0 or an errno; then everything is as before.
  int MoveFirst(int program, uint32_t ifindex);
  /// False when the attachment would not outlive the process, because its pin was removed.
  [[nodiscard]] bool IsPinned(uint32_t ifindex) const;
  /// Pins it again. 0 or an errno.
  int PinAgain(uint32_t ifindex);
  [[nodiscard]] const std::map<uint32_t, common::UniqueFd>& all() const noexcept { return links_; }

 private:
  [[nodiscard]] std::string Pin(uint32_t ifindex) const { return dir_ + "/if-" + std::to_string(ifindex); }
  const std::string dir_;
  std::map<uint32_t, common::UniqueFd> links_;
  std::vector<std::string> unreadable_;
  std::vector<std::string> unreadable_pins_;
};

/// The number by which the kernel knows a program; 0 when it does not.
uint32_t IdOf(int program);
/// "program other (id 12)".
std::string ProgramText(uint32_t id);

/// The interface of an attachment; 0 when it is gone.
uint32_t InterfaceOf(int link);

/// 0 when this kernel has the tcx hook and this process may use it; else an errno, EPERM for want of privileges.
int TcxError();

}  // namespace mgr::tcx
