#include "dataplane/tcx/links.h"

#include <bpf/bpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>
#include <vector>

#include "dataplane/tcx/bpf_fs.h"

namespace mgr::tcx {
namespace {

constexpr auto kTcxIngress = static_cast<bpf_attach_type>(46);  // younger than the distribution's headers
constexpr uint32_t kBefore = 1U << 3U;                          // BPF_F_BEFORE, likewise
constexpr uint32_t kLoopback = 1;
constexpr size_t kMaxPrograms = 64;  // of one interface
constexpr std::string_view kNewPin = "-new";

/// The filter runs before the programs that are attached already.
common::UniqueFd CreateLink(int program, uint32_t ifindex) {
  LIBBPF_OPTS(bpf_link_create_opts, options, .flags = kBefore);
  return common::UniqueFd{bpf_link_create(program, static_cast<int>(ifindex), kTcxIngress, &options)};
}

/// The programs of an interface, in the order in which they run.
std::vector<uint32_t> ProgramsAt(uint32_t ifindex) {
  std::vector<uint32_t> programs(kMaxPrograms);
  auto count = static_cast<uint32_t>(programs.size());
  uint32_t flags = 0;
  if (bpf_prog_query(static_cast<int>(ifindex), kTcxIngress, 0, &flags, programs.data(), &count) != 0) return {};
  programs.resize(std::min<size_t>(count, programs.size()));
  return programs;
}

uint32_t ProgramOf(int link) {
  bpf_link_info info{};
  uint32_t size = sizeof info;
  return bpf_obj_get_info_by_fd(link, &info, &size) == 0 ? info.prog_id : 0;
}

/// Whether the program of `link` runs at the interface `ifindex` of this network namespace: an attachment goes along
/// when its interface moves to another one, where it may have the same index.
bool IsAttachedHere(int link, uint32_t ifindex) {
  const std::vector<uint32_t> programs = ProgramsAt(ifindex);
  return InterfaceOf(link) == ifindex && std::find(programs.begin(), programs.end(), ProgramOf(link)) != programs.end();
}

}  // namespace

uint32_t IdOf(int program) {
  bpf_prog_info info{};
  uint32_t size = sizeof info;
  return bpf_obj_get_info_by_fd(program, &info, &size) == 0 ? info.id : 0;
}

std::string ProgramText(uint32_t id) {
  bpf_prog_info info{};
  uint32_t size = sizeof info;
  const common::UniqueFd program{bpf_prog_get_fd_by_id(id)};
  const bool known = program && bpf_obj_get_info_by_fd(program.get(), &info, &size) == 0;
  return "program " + std::string{known ? info.name : "?"} + " (id " + std::to_string(id) + ")";
}

uint32_t InterfaceOf(int link) {
  bpf_link_info info{};
  uint32_t size = sizeof info;
  if (bpf_obj_get_info_by_fd(link, &info, &size) != 0) return 0;
  return info.xdp.ifindex;  // every attachment to an interface has its index here
}

common::Status Links::Open() {
  if (mkdir(dir_.c_str(), 0700) != 0 && errno != EEXIST) return common::SystemError("mkdir", dir_, errno);
  for (const std::string& name : ListNames(dir_)) {
    if (!name.ends_with(kNewPin)) continue;  // else a process ended while it moved the filter
    const std::string path = dir_ + "/" + name;
    rename(path.c_str(), path.substr(0, path.size() - kNewPin.size()).c_str());
  }
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
  common::UniqueFd link = CreateLink(program, ifindex);
  if (!link) return errno;
  unlink(Pin(ifindex).c_str());
  std::erase(unreadable_pins_, Pin(ifindex));
  if (bpf_obj_pin(link.get(), Pin(ifindex).c_str()) != 0) return errno;
  links_.insert_or_assign(ifindex, std::move(link));
  return 0;
}

Links::Standing Links::StandingOf(uint32_t ifindex, const std::vector<uint32_t>& own_programs) {
  const std::vector<uint32_t> programs = ProgramsAt(ifindex);
  const auto own = std::find_first_of(programs.begin(), programs.end(), own_programs.begin(), own_programs.end());
  if (own == programs.end()) return {};
  return {.attached = true, .before = own == programs.begin() ? 0 : programs.front()};
}

int Links::MoveFirst(int program, uint32_t ifindex) {
  common::UniqueFd link = CreateLink(program, ifindex);
  if (!link) return errno;
  const std::string pin = Pin(ifindex);
  const std::string new_pin = pin + std::string{kNewPin};
  if (bpf_obj_pin(link.get(), new_pin.c_str()) != 0) return errno;
  if (rename(new_pin.c_str(), pin.c_str()) != 0) {
    const int error = errno;
    unlink(new_pin.c_str());
    return error;
  }
  if (const auto old = links_.find(ifindex); old != links_.end()) bpf_link_detach(old->second.get());
  links_.insert_or_assign(ifindex, std::move(link));
  return 0;
}

bool Links::IsPinned(uint32_t ifindex) const { return access(Pin(ifindex).c_str(), F_OK) == 0; }

int Links::PinAgain(uint32_t ifindex) {
  const auto known = links_.find(ifindex);
  if (known == links_.end()) return ENOENT;
  return bpf_obj_pin(known->second.get(), Pin(ifindex).c_str()) == 0 ? 0 : errno;
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
