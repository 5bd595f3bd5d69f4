#include "dataplane/tcx/links.h"

#include <bpf/bpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

#include "dataplane/tcx/bpf_fs.h"

namespace mgr::tcx {
namespace {

constexpr auto kTcxIngress = static_cast<bpf_attach_type>(46);  // younger than the distribution's headers
constexpr uint32_t kLoopback = 1;

uint32_t ProgramOf(int link) {
  bpf_link_info info{};
  uint32_t size = sizeof info;
  return bpf_obj_get_info_by_fd(link, &info, &size) == 0 ? info.prog_id : 0;
}

/// Whether the program of `link` runs at the interface `ifindex` of this network namespace: an attachment goes along
/// when its interface moves to another one, where it may have the same index.
bool IsAttachedHere(int link, uint32_t ifindex) {
  std::array<uint32_t, 64> programs{};
  auto count = static_cast<uint32_t>(programs.size());
  uint32_t flags = 0;
  if (bpf_prog_query(static_cast<int>(ifindex), kTcxIngress, 0, &flags, programs.data(), &count) != 0) return false;
  const auto end = programs.begin() + std::min<size_t>(count, programs.size());
  return InterfaceOf(link) == ifindex && std::find(programs.begin(), end, ProgramOf(link)) != end;
}

}  // namespace

uint32_t InterfaceOf(int link) {
  bpf_link_info info{};
  uint32_t size = sizeof info;
  if (bpf_obj_get_info_by_fd(link, &info, &size) != 0) return 0;
  return info.xdp.ifindex;  // every attachment to an interface has its index here
}

common::Status Links::Open() {
  if (mkdir(dir_.c_str(), 0700) != 0 && errno != EEXIST) return common::SystemError("mkdir", dir_, errno);
  for (const std::string& name : ListNames(dir_)) {
    const std::string path = dir_ + "/" + name;
    uint32_t ifindex = 0;
    common::UniqueFd link{bpf_obj_get(path.c_str())};
    const bool is_link = link && KindOf(link.get()) == PinKind::kLink;
    if (!is_link || std::sscanf(name.c_str(), "if-%u", &ifindex) != 1 || path != Pin(ifindex)) {
      unreadable_.push_back(path + ": not an attachment");
      unreadable_pins_.push_back(path);
    } else if (InterfaceOf(link.get()) != ifindex) {
      unlink(path.c_str());
    } else {
      links_.emplace(ifindex, std::move(link));
    }
  }
  return common::Ok();
}

common::Status Links::RunAll(int program) {
  for (const auto& [ifindex, link] : links_) {
    if (bpf_link_update(link.get(), program, nullptr) != 0)
      return common::SystemError("bpf_link_update", Pin(ifindex), errno);
  }
  return common::Ok();
}

void Links::EndOthers(int program) {
  bpf_prog_info info{};
  uint32_t size = sizeof info;
  if (bpf_obj_get_info_by_fd(program, &info, &size) != 0) return;
  std::vector<uint32_t> others;
  for (const auto& [ifindex, link] : links_)
    if (ProgramOf(link.get()) != info.id) others.push_back(ifindex);
  for (const uint32_t ifindex : others) Detach(ifindex);
  for (const std::string& path : std::exchange(unreadable_pins_, {})) RemovePins(path);
}

int Links::Attach(int program, uint32_t ifindex) {
  if (const auto known = links_.find(ifindex); known != links_.end()) {
    // The update does nothing where the program is the same, and ends the use of an earlier one.
    if (IsAttachedHere(known->second.get(), ifindex)) return -bpf_link_update(known->second.get(), program, nullptr);
    Detach(ifindex);
  }
  common::UniqueFd link{bpf_link_create(program, static_cast<int>(ifindex), kTcxIngress, nullptr)};
  if (!link) return errno;
  unlink(Pin(ifindex).c_str());
  std::erase(unreadable_pins_, Pin(ifindex));
  if (bpf_obj_pin(link.get(), Pin(ifindex).c_str()) != 0) return errno;
  links_.insert_or_assign(ifindex, std::move(link));
  return 0;
}

void Links::Detach(uint32_t ifindex) {
  const auto known = links_.find(ifindex);
  if (known == links_.end()) return;
  unlink(Pin(ifindex).c_str());
  bpf_link_detach(known->second.get());
  links_.erase(known);
}

int TcxError() {
  uint32_t flags = 0, count = 0;
  return bpf_prog_query(kLoopback, kTcxIngress, 0, &flags, nullptr, &count) == 0 ? 0 : errno;
}

}  // namespace mgr::tcx
