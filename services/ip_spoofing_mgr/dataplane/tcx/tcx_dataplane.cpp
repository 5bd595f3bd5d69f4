#include "dataplane/tcx/tcx_dataplane.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <net/if.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <set>

#include "dataplane/tcx/events.h"
#include "dataplane/tcx/layout.h"
#include "dataplane/tcx/links.h"
#include "dataplane/tcx/maps.h"
#include "dataplane/tcx/move_limit.h"
#include "dataplane/tcx/tcx_object.h"
#include "dataplane/verdict_text.h"

namespace mgr {
namespace {

using tcx::DumpAll;

constexpr std::chrono::milliseconds kCheckStep{5};

plane_entry_key ToKey(const EntryKey& key) { return {key.port << 12 | key.vlan, key.address_be}; }
EntryKey FromKey(const plane_entry_key& key) {
  return {key.port_vlan >> 12, static_cast<uint16_t>(key.port_vlan & 0xfff), key.source_be};
}

plane_record ToRecord(const PortConfig& port) {
  plane_record record{};
  std::strncpy(record.name, port.name.c_str(), sizeof record.name - 1);
  record.ifindex = port.ifindex;
  record.state = ToVerdictPort(port);
  return record;
}

class TcxDataplane final : public Dataplane {
 public:
  TcxDataplane(std::string mount, size_t capacity, tcx::Object object)
      : mount_{std::move(mount)}, capacity_{capacity}, object_{std::move(object)}, links_{mount_ + "/links"} {}

  [[nodiscard]] std::string_view Name() const override { return "tcx"; }
  [[nodiscard]] size_t Capacity() const override { return capacity_; }
  [[nodiscard]] size_t MaxPorts() const override { return PLANE_MAX_PORTS - 1; }

  common::Result<Snapshot> TakeOver() override;
  common::Status ReleaseHeld() override;
  std::vector<Failure> Apply(const Changes& changes) override;
  common::Status RemoveEverything() override;
  common::Result<std::vector<PortCounter>> Counters() override;
  common::Result<std::vector<Drop>> Violators() override;
  [[nodiscard]] int DropEventFd() const override { return events_.Fd(); }
  std::vector<Drop> ReadDropEvents() override { return events_.Read(); }
  CheckStep Check() override;
  [[nodiscard]] const std::map<PortId, std::string>& Unguarded() const override { return unguarded_; }

  common::Status OpenEvents() { return events_.Open(object_.events()); }

 private:
  void Put(const std::vector<Entry>& puts, std::vector<Failure>& failures);
  common::Status SetPort(const PortConfig& port);
  void Remove(const std::vector<EntryKey>& removes, std::vector<Failure>& failures);
  void Forget(const std::vector<PortId>& ports);
  /// Ends the filtering of interfaces that no port is any more.
  void ReleaseInterfaces();
  [[nodiscard]] bool IsOurs(uint32_t ifindex) const;
  /// Attaches the filters of ports that an earlier process had, and whose attachments are lost.
  common::Status AttachMissing();
  /// Removes every trace of earlier processes.
  void EndEarlier();
  /// Compares one port with what the kernel has, and puts back what differs.
  void CheckPort(const PortConfig& port, std::vector<Deviation>* found);
  void CheckAttachment(const PortConfig& port, std::vector<Deviation>* found);
  /// Attaches the filter again, or moves it before the others. 0 or an errno.
  int PutBack(uint32_t ifindex, const tcx::Links::Standing& standing);
  [[nodiscard]] tcx::Links::Standing StandingOf(uint32_t ifindex) const {
    return tcx::Links::StandingOf(ifindex, own_programs_);
  }

  const std::string mount_;
  const size_t capacity_;
  tcx::Object object_;
  tcx::Links links_;
  tcx::Events events_;
  std::map<PortId, PortConfig> ports_;
  std::set<uint32_t> interfaces_;  ///< with an element in the map of ports
  uint8_t generation_ = 1;         ///< of this process; entries tell which run wrote them
  std::vector<uint32_t> own_programs_{tcx::IdOf(object_.program())};  ///< ids of the filter, loaded once or twice
  PortId next_checked_ = 0;                                           ///< where the running comparison is
  std::map<PortId, std::string> unguarded_;
  tcx::MoveLimit moves_;
};

common::Result<Snapshot> TcxDataplane::TakeOver() {
  Snapshot snapshot;
  for (uint32_t id = 1; id < PLANE_MAX_PORTS; ++id) {
    plane_record record{};
    if (bpf_map_lookup_elem(object_.records(), &id, &record) != 0)
      return common::SystemError("read the record of port", std::to_string(id), errno);
    if (record.name[0] == '\0') continue;
    PortConfig port{id,
                    record.name,
                    record.ifindex,
                    record.state.enabled != 0,
                    static_cast<AllowAll>(record.state.mode),
                    record.state.monitor != 0};
    if (port.ifindex != 0) interfaces_.insert(port.ifindex);
    ports_.emplace(id, port);
    snapshot.ports.push_back(std::move(port));
  }
  auto dump = DumpAll<plane_entry_key, verdict_entry>(object_.entries());
  if (!dump.ok()) return dump.error();
  const auto& [keys, values] = dump.value();
  for (size_t i = 0; i < keys.size(); ++i) {
    snapshot.entries.push_back({FromKey(keys[i]), EntryMac(values[i])});
    generation_ = std::max<uint8_t>(generation_, static_cast<uint8_t>(values[i].generation + 1));
  }
  if (common::Status opened = links_.Open(); !opened.ok()) return opened.error();
  snapshot.unreadable = object_.unreadable();
  snapshot.unreadable.insert(snapshot.unreadable.end(), links_.unreadable().begin(), links_.unreadable().end());
  snapshot.held = object_.starts_blind();
  if (snapshot.held) return snapshot;
  if (common::Status run = links_.RunAll(object_.program()); !run.ok()) return run.error();
  if (common::Status attached = AttachMissing(); !attached.ok()) return attached.error();
  EndEarlier();
  return snapshot;
}

common::Status TcxDataplane::AttachMissing() {
  for (const auto& [id, port] : ports_) {
    if (!port.enabled || port.ifindex == 0 || links_.Has(port.ifindex)) continue;
    if (if_nametoindex(port.name.c_str()) != port.ifindex) continue;  // it has come and gone; the table knows
    const int error = links_.Attach(object_.program(), port.ifindex);
    if (error != 0 && error != ENODEV) return common::SystemError("attach the filter", port.name, error);
  }
  return common::Ok();
}

Dataplane::CheckStep TcxDataplane::Check() {
  CheckStep step;
  const auto limit = std::chrono::steady_clock::now() + kCheckStep;
  auto port = ports_.lower_bound(next_checked_);
  for (; port != ports_.end() && std::chrono::steady_clock::now() < limit; ++port) CheckPort(port->second, &step.found);
  step.complete = port == ports_.end();
  next_checked_ = step.complete ? 0 : port->first;
  if (step.complete) std::erase_if(unguarded_, [this](const auto& item) { return !ports_.contains(item.first); });
  return step;
}

void TcxDataplane::CheckPort(const PortConfig& port, std::vector<Deviation>* found) {
  if (port.ifindex == 0 || port.ifindex >= PLANE_MAX_IFINDEX) {
    unguarded_.erase(port.id);
    return;
  }
  const plane_port expected{port.id, ToVerdictPort(port), 0};
  plane_port value{};
  if (bpf_map_lookup_elem(object_.ports(), &port.ifindex, &value) != 0 ||
      std::memcmp(&value, &expected, sizeof value) != 0) {
    const bool written = bpf_map_update_elem(object_.ports(), &port.ifindex, &expected, BPF_ANY) == 0;
    found->push_back({"port " + port.name + ": its state in the map was changed", written ? "" : std::strerror(errno)});
  }
  if (port.enabled) {
    CheckAttachment(port, found);
  } else {
    unguarded_.erase(port.id);
  }
}

void TcxDataplane::CheckAttachment(const PortConfig& port, std::vector<Deviation>* found) {
  const auto standing = StandingOf(port.ifindex);
  if (standing.attached && standing.before == 0) {
    unguarded_.erase(port.id);
    if (links_.IsPinned(port.ifindex)) return;
    const int error = links_.PinAgain(port.ifindex);
    found->push_back(
        {"port " + port.name + ": the pin of its filter was removed", error == 0 ? "" : std::strerror(error)});
    return;
  }
  if (if_nametoindex(port.name.c_str()) != port.ifindex) return;  // it is just going; the table hears of it
  const std::string what =
      standing.attached ? tcx::ProgramText(standing.before) + " stands before the filter" : "the filter was detached";
  const int error = PutBack(port.ifindex, standing);
  const auto now = StandingOf(port.ifindex);
  if (error == 0 && now.attached && now.before == 0) {
    unguarded_.erase(port.id);
    found->push_back({"port " + port.name + ": " + what, {}});
    return;
  }
  unguarded_[port.id] = what + ": " + (error != 0 ? std::strerror(error) : "it comes back again and again");
}

int TcxDataplane::PutBack(uint32_t ifindex, const tcx::Links::Standing& standing) {
  if (!moves_.Allow(ifindex)) return 0;
  if (!standing.attached) return links_.Attach(object_.program(), ifindex);
  const int spare = object_.spare_program();
  if (spare < 0) return errno;
  if (own_programs_.size() == 1) own_programs_.push_back(tcx::IdOf(spare));
  // The kernel attaches each program only once.
  const bool has_main = tcx::Links::StandingOf(ifindex, {own_programs_.front()}).attached;
  return links_.MoveFirst(has_main ? spare : object_.program(), ifindex);
}

void TcxDataplane::EndEarlier() {
  links_.EndOthers(object_.program());
  object_.Finish();
}

common::Status TcxDataplane::ReleaseHeld() {
  EndEarlier();
  return common::Ok();
}

std::vector<Failure> TcxDataplane::Apply(const Changes& changes) {
  std::vector<Failure> failures;
  Put(changes.puts, failures);
  for (size_t i = 0; i < changes.ports.size(); ++i) {
    if (common::Status set = SetPort(changes.ports[i]); !set.ok())
      failures.push_back({Failure::Of::kPort, i, set.error()});
  }
  if (!changes.ports.empty()) ReleaseInterfaces();
  Remove(changes.removes, failures);
  if (!changes.drop_ports.empty()) Forget(changes.drop_ports);
  return failures;
}

void TcxDataplane::Put(const std::vector<Entry>& puts, std::vector<Failure>& failures) {
  std::vector<plane_entry_key> keys;
  std::vector<verdict_entry> values;
  keys.reserve(puts.size());
  values.reserve(puts.size());
  for (const Entry& entry : puts) {
    keys.push_back(ToKey(entry.key));
    values.push_back(ToVerdictEntry(entry.mac, generation_));
  }
  tcx::UpdateAll(object_.entries(), keys.data(), sizeof keys[0], values.data(), sizeof values[0], keys.size(),
                 [&failures](size_t index, int error) {
                   failures.push_back({Failure::Of::kPut, index, common::SystemError("map_update", "entries", error)});
                 });
}

void TcxDataplane::Remove(const std::vector<EntryKey>& removes, std::vector<Failure>& failures) {
  std::vector<plane_entry_key> keys;
  keys.reserve(removes.size());
  for (const EntryKey& key : removes) keys.push_back(ToKey(key));
  tcx::DeleteAll(object_.entries(), keys.data(), sizeof keys[0], keys.size(), [&failures](size_t index, int error) {
    failures.push_back({Failure::Of::kRemove, index, common::SystemError("map_delete", "entries", error)});
  });
}

common::Status TcxDataplane::SetPort(const PortConfig& port) {
  if (port.id == 0 || port.id >= PLANE_MAX_PORTS)
    return common::Error{"set port", port.name, "more ports than " + std::to_string(PLANE_MAX_PORTS - 1)};
  if (port.ifindex >= PLANE_MAX_IFINDEX)
    return common::Error{"set port", port.name, "interface index above " + std::to_string(PLANE_MAX_IFINDEX - 1)};
  const plane_record record = ToRecord(port);
  if (bpf_map_update_elem(object_.records(), &port.id, &record, BPF_ANY) != 0)
    return common::SystemError("map_update records", port.name, errno);
  ports_.insert_or_assign(port.id, port);
  if (port.ifindex == 0) return common::Ok();
  const plane_port value{port.id, ToVerdictPort(port), 0};
  if (bpf_map_update_elem(object_.ports(), &port.ifindex, &value, BPF_ANY) != 0)
    return common::SystemError("map_update ports", port.name, errno);
  interfaces_.insert(port.ifindex);
  if (!port.enabled) return common::Ok();
  const int error = links_.Attach(object_.program(), port.ifindex);
  if (error != 0 && error != ENODEV) return common::SystemError("attach the filter", port.name, error);
  return common::Ok();
}

bool TcxDataplane::IsOurs(uint32_t ifindex) const {
  return std::any_of(ports_.begin(), ports_.end(),
                     [ifindex](const auto& item) { return item.second.ifindex == ifindex; });
}

void TcxDataplane::ReleaseInterfaces() {
  for (auto it = interfaces_.begin(); it != interfaces_.end();) {
    const uint32_t ifindex = *it;
    if (IsOurs(ifindex)) {
      ++it;
      continue;
    }
    links_.Detach(ifindex);
    const plane_port none{};
    bpf_map_update_elem(object_.ports(), &ifindex, &none, BPF_ANY);
    it = interfaces_.erase(it);
  }
}

void TcxDataplane::Forget(const std::vector<PortId>& ports) {
  for (const PortId id : ports) ports_.erase(id);
  ReleaseInterfaces();
  const std::set<PortId> gone{ports.begin(), ports.end()};
  std::vector<EntryKey> left;
  if (auto dump = DumpAll<plane_entry_key, verdict_entry>(object_.entries()); dump.ok()) {
    for (const plane_entry_key& key : dump.value().keys)
      if (gone.contains(key.port_vlan >> 12)) left.push_back(FromKey(key));
  }
  std::vector<Failure> ignored;  // an entry of a port that is not known is never looked at
  Remove(left, ignored);
  const std::vector<uint64_t> zeroes(static_cast<size_t>(libbpf_num_possible_cpus()));
  for (const PortId id : ports) {
    if (id >= PLANE_MAX_PORTS) continue;
    const plane_record none{};
    bpf_map_update_elem(object_.records(), &id, &none, BPF_ANY);
    for (uint32_t cell = PLANE_CELL(id, 0, 0); cell < PLANE_CELL(id + 1, 0, 0); ++cell)
      bpf_map_update_elem(object_.counters(), &cell, zeroes.data(), BPF_ANY);
  }
}

common::Status TcxDataplane::RemoveEverything() {
  std::vector<PortId> known;
  for (const auto& [id, port] : ports_) known.push_back(id);
  Forget(known);
  std::vector<uint32_t> attached;
  for (const auto& [ifindex, link] : links_.all()) attached.push_back(ifindex);
  for (const uint32_t ifindex : attached) links_.Detach(ifindex);
  for (const std::string& name : tcx::ListNames(mount_)) tcx::RemovePins(mount_ + "/" + name);
  tcx::UnmountBpfFs(mount_);
  return common::Ok();
}

common::Result<std::vector<PortCounter>> TcxDataplane::Counters() {
  std::vector<PortCounter> counters;
  std::vector<uint64_t> per_cpu(static_cast<size_t>(libbpf_num_possible_cpus()));
  for (const auto& [id, port] : ports_) {
    for (uint32_t i = 0; i < PLANE_CELLS_PER_PORT; ++i) {
      const uint32_t cell = PLANE_CELL(id, 0, i);
      if (bpf_map_lookup_elem(object_.counters(), &cell, per_cpu.data()) != 0)
        return common::SystemError("map_lookup counters", port.name, errno);
      uint64_t frames = 0;
      for (const uint64_t count : per_cpu) frames += count;
      if (frames == 0) continue;
      const auto reason = static_cast<verdict_reason>(i % VERDICT_REASONS);
      counters.push_back({id, std::string{ReasonName(reason)}, Passes(reason) || i >= VERDICT_REASONS, frames});
    }
  }
  return counters;
}

common::Result<std::vector<Drop>> TcxDataplane::Violators() {
  auto dump = DumpAll<plane_violator_key, plane_violator>(object_.violators());
  if (!dump.ok()) return dump.error();
  const auto& [keys, values] = dump.value();
  const tcx::WallClock clock;
  std::vector<Drop> rows;
  for (size_t i = 0; i < keys.size(); ++i) {
    if (!ports_.contains(keys[i].port_vlan >> 12)) continue;
    rows.push_back(tcx::ToDrop(keys[i], values[i].ethertype, values[i].frames, clock.At(values[i].first_ns),
                               clock.At(values[i].last_ns)));
  }
  return rows;
}

}  // namespace

common::Result<std::unique_ptr<Dataplane>> OpenTcx(const DataplaneOptions& options) {
  if (const int error = tcx::TcxError(); error == EPERM) {
    return common::Error{"tcx", {}, "no permission: it needs CAP_BPF, CAP_NET_ADMIN and CAP_PERFMON"};
  } else if (error != 0) {
    return common::Error{"tcx", {}, "this kernel does not have it; Linux 6.6 and later do"};
  }
  auto mount = tcx::MountBpfFs(options.run_dir);
  if (!mount.ok()) return mount.error();
  // Twice the capacity: a full configuration goes in next to the one that it replaces.
  auto object = tcx::Object::Load(mount.value(), static_cast<uint32_t>(2 * options.capacity));
  if (!object.ok()) return object.error();
  auto plane = std::make_unique<TcxDataplane>(std::move(mount).value(), options.capacity, std::move(object).value());
  if (common::Status opened = plane->OpenEvents(); !opened.ok()) return opened.error();
  return std::unique_ptr<Dataplane>{std::move(plane)};
}

}  // namespace mgr
