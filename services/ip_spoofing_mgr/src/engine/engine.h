#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "dataplane/dataplane.h"
#include "ip_spoofing_mgr_wire/messages.h"
#include "table/table.h"

namespace mgr {

/// Which interfaces there are.
class Interfaces {
 public:
  virtual ~Interfaces() = default;
  /// 0 if no interface has that name. Alternative names do not count: the kernel does not bind filters to them.
  [[nodiscard]] virtual uint32_t IndexOf(const std::string& name) const = 0;
  /// The name of the interface that has `name` as an alternative name; empty if none has.
  [[nodiscard]] virtual std::string MainNameOf(const std::string& name) const = 0;
};

/// Moves the dataplane from what it has to what is wanted, make before break: what a batch widens (an entry, a wider
/// mode, the disable of a port) is in force when Submit() returns; what it narrows (a removal, a narrower mode, the
/// enable of a port) follows with the next batch or after the hold, whichever is first. The last request about an
/// object wins. Loop thread only; the clock is the caller's.
class Engine final {
 public:
  using Clock = std::chrono::steady_clock;
  using Ticket = uint64_t;  ///< number of a batch, counted from 1
  using Request = ip_spoofing_mgr::wire::Request;

  static constexpr std::chrono::milliseconds kRetry{1000};

  /// All are borrowed.
  Engine(Table& table, Dataplane& dataplane, const Interfaces& interfaces, std::chrono::milliseconds hold);

  /// Takes what an earlier process left in force as what is wanted, until a client says otherwise. What the dataplane
  /// cannot read of it stays in force, and nothing else is made, until a full batch is.
  /// `end_others`, if any, ends filters of other dataplanes, which are held in the same way.
  common::Status TakeOver(std::function<common::Status()> end_others = {});

  /// `full`: the requests are the complete configuration; everything that they do not name narrows to nothing.
  Ticket Submit(std::span<const Request> requests, bool full, Clock::time_point now);
  /// Every batch up to this one is in force, or waits with a reason.
  [[nodiscard]] Ticket Settled() const noexcept { return Holding() ? batch_ - 1 : batch_; }

  /// When Advance() has something to do.
  [[nodiscard]] std::optional<Clock::time_point> Deadline() const;
  /// Ends a hold that is over, and tries again what was refused.
  void Advance(Clock::time_point now);

  /// Interfaces of these names have appeared, vanished, or been made anew.
  void InterfacesChanged(std::span<const std::string> names, Clock::time_point now);

  /// False when there is no port of that name.
  bool SetMonitor(const std::string& name, bool on, Clock::time_point now);

  [[nodiscard]] size_t InstalledEntries() const noexcept { return installed_; }
  [[nodiscard]] size_t WaitingEntries() const noexcept { return waiting_count_; }
  /// Why the dataplane refused the entry; empty when it did not.
  [[nodiscard]] std::string FailureOf(const EntryKey& key) const;

 private:
  using Node = Table::Node;
  enum class Phase : uint8_t { kWiden, kFinal };
  /// What is in force of an earlier process, and the dataplane cannot read or another one has.
  enum class Held : uint8_t { kNothing, kUntilFullBatch, kUntilInForce };
  struct Objects {
    std::vector<PortId> ports;
    std::vector<Table::Node*> entries;  ///< rows that are held, failed or being worked on are never erased
    [[nodiscard]] bool empty() const noexcept { return ports.empty() && entries.empty(); }
  };

  [[nodiscard]] bool Holding() const noexcept { return !held_.empty(); }
  [[nodiscard]] bool HasFailures() const noexcept {
    return !failed_entries_.empty() || !failed_ports_.empty() || release_failed_;
  }

  // What is wanted.
  void Locate(Port* port) const;
  void Want(const Request& request, Objects* touched);
  void WantEntry(const Request& request, Port* port, Objects* touched);
  void WantNothingElse(Objects* touched);
  void TouchPort(Port* port, Objects* touched) const;
  void TouchEntry(Node* node, Objects* touched) const;
  static void SetWanted(Port* port, EntryRow* row, bool wanted);

  /// Changes, and the rows that their entries belong to.
  struct Plan {
    Changes changes;
    std::vector<Node*> puts;
    std::vector<Node*> removes;
  };
  // From there to the dataplane. A Plan function adds to `*plan` what the phase allows, and is true when nothing is
  // left for the final phase.
  bool PlanPort(const Port& port, Phase phase, size_t removing, Plan* plan) const;
  bool PlanEntry(Node* node, Phase phase, Plan* plan);
  /// Plans and makes; gives what is left for the final phase.
  Objects Make(const Objects& objects, Phase phase);
  void Hold(Objects objects, Clock::time_point now);
  /// Makes what is held final, but for objects that batch `but` names.
  void SettleHeld(Ticket but);
  void FillRoom();
  void Retry();
  /// Ends what an earlier process enforces, once what is wanted is in force.
  void ReleaseHeld();
  void Forget(const Objects& objects);

  // What the dataplane said.
  void Apply(const Plan& plan);
  void PutMade(Node* node, const MacAddress& mac, const common::Error* error);
  void RemoveMade(Node* node, const common::Error* error);
  void PortMade(const PortConfig& config, const common::Error* error);
  void DropMade(PortId id, const common::Error* error);
  void EntryFailed(Node* node, const common::Error& error);
  void EntryMade(Node* node);
  void SetWaiting(Node* node, bool waiting);

  Table& table_;
  Dataplane& dataplane_;
  const Interfaces& interfaces_;
  const std::chrono::milliseconds hold_;

  Ticket batch_ = 0;
  Objects held_;
  Clock::time_point held_until_{};
  size_t installed_ = 0;
  size_t planned_ = 0;            ///< new entries that are planned and not made yet
  std::deque<EntryKey> waiting_;  ///< beyond the capacity, in the order of their requests; some no longer are
  size_t waiting_count_ = 0;
  std::map<EntryKey, std::string> failed_entries_;
  std::set<PortId> failed_ports_;
  Clock::time_point retry_at_{};
  Held inherited_ = Held::kNothing;
  std::function<common::Status()> end_others_;
  bool release_failed_ = false;
  bool retrying_ = false;  ///< what fails again is not logged again
};

}  // namespace mgr
