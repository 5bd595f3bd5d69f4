#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"

namespace mgr {

/// Small dense number of a port, 1 to kMaxPortId, given by the port table and kept as long as the port is known.
/// It survives that the interface vanishes and comes back; after a restart the table takes over the numbers that
/// TakeOver() reports.
using PortId = uint32_t;
inline constexpr PortId kMaxPortId = (1U << 20) - 1;  // with a 12-bit VLAN it fits one 32-bit word

using MacAddress = std::array<uint8_t, 6>;  ///< transmission order; all zero: any

/// What passes a port besides its entries: a set of permissions, one bit each. kAll holds both protocols and whatever
/// is neither, so the union of two modes permits what either permits and nothing else.
enum class AllowAll : uint8_t { kNone = 0, kIpv4 = 1, kIpv6 = 2, kIpv4AndIpv6 = 3, kAll = 7 };

/// A port as it shall be from now on. The filter of a port that is absent (ifindex 0) waits for the interface.
struct PortConfig {
  PortId id = 0;
  std::string name;      ///< interface name
  uint32_t ifindex = 0;  ///< 0: no such interface now
  bool enabled = false;  ///< not enabled: not filtered
  AllowAll mode = AllowAll::kNone;
  bool monitor = false;  ///< judged and counted, nothing dropped
  bool operator==(const PortConfig&) const = default;
};

/// One IPv4 source on one VLAN of one port. The VLAN is 0 (untagged) to 4094.
struct EntryKey {
  PortId port = 0;
  uint16_t vlan = 0;
  uint32_t address_be = 0;                            ///< network order, as it stands in a frame
  auto operator<=>(const EntryKey&) const = default;  // NOLINT(modernize-use-nullptr): a false alarm
};

struct Entry {
  EntryKey key;
  MacAddress mac{};
  bool operator==(const Entry&) const = default;
};

/// Changes that go together, made in the order of the members, so that what is allowed before and after is allowed at
/// every moment between. No key and no port stands twice in one list, and none both in `puts` and `removes`.
struct Changes {
  std::vector<Entry> puts;         ///< added, or their MAC replaced in one step
  std::vector<PortConfig> ports;   ///< added or changed: attached, detached, moved to another interface index
  std::vector<EntryKey> removes;   ///< an absent one is no error
  std::vector<PortId> drop_ports;  ///< forgotten, with whatever entries are left on them
  [[nodiscard]] bool empty() const noexcept {
    return puts.empty() && ports.empty() && removes.empty() && drop_ports.empty();
  }
};

/// One change that is not in force. The others of the same call are, unless they are listed too.
struct Failure {
  enum class Of : uint8_t { kPut, kPort, kRemove, kDropPort };
  Of of;
  size_t index;  ///< in the list that `of` names
  common::Error error;
};

/// Everything a dataplane holds.
struct Snapshot {
  std::vector<PortConfig> ports;
  std::vector<Entry> entries;
  /// What an earlier process left behind and this one cannot read, with the reason: "/run/../v2-64: another layout".
  std::vector<std::string> unreadable{};
  /// Filters among it stay in force until ReleaseHeld().
  bool held = false;
};

struct PortCounter {
  PortId port = 0;
  std::string reason;  ///< as the verdict table names it: "entry", "no-entry", "dhcp", ...
  bool passed = false;
  uint64_t frames = 0;
};

/// One dropped frame (or frame that monitor mode let pass), or one row of the table of violators.
struct Drop {
  PortId port = 0;
  uint16_t vlan = 0;
  uint16_t ethertype = 0;               ///< host order
  std::optional<uint32_t> source_be{};  ///< nullopt where no IPv4 source was read from the frame
  MacAddress mac{};
  std::string reason;
  uint64_t count =
      1;  ///< a row: frames so far; an event: frames it stands for, the ones that were not reported included
  std::chrono::system_clock::time_point first{};
  std::chrono::system_clock::time_point last{};
};

/// Something in the kernel that was not as this process had made it: another program has changed it.
struct Deviation {
  std::string
      what;  ///< for a person, the place first: "table netdev ip_spoofing_1: 1 table deleted by nft (process 7)"
  std::string error;  ///< why it could not be put back; empty: it is as it should be again
  bool operator==(const Deviation&) const = default;
};

/// What the port table needs of a forwarding plane. Loop thread only; calls do not wait for anything but the kernel.
///
/// The table sends only what the plane can hold: valid VLANs, IPv4, at most Capacity() entries. Entries of ports that
/// are absent or not enabled are sent too, so that they are in place before the filter is. A port is made known in the
/// same call as its first entry or in an earlier one. An interface index may move from one port to another in one call,
/// when an interface is renamed; the port that lost it may come before or after. A destructor leaves the
/// enforcement in the kernel as it is, where the plane has any.
class Dataplane {
 public:
  virtual ~Dataplane() = default;

  [[nodiscard]] virtual std::string_view Name() const = 0;
  /// Entries that can be installed at the same time, over all ports.
  [[nodiscard]] virtual size_t Capacity() const = 0;
  /// Ports that can be known at the same time.
  [[nodiscard]] virtual size_t MaxPorts() const { return kMaxPortId; }

  /// What an earlier process left in force, taken over without a gap; called once, before anything else. Ports that it
  /// names go on under their ids; their interface indexes are those of the earlier process and may be stale.
  /// An empty snapshot when there is nothing.
  virtual common::Result<Snapshot> TakeOver() = 0;

  /// Ends what TakeOver() has left `held`. Called when the complete configuration is in force beside it.
  virtual common::Status ReleaseHeld() { return common::Ok(); }

  /// Makes the changes. Empty when all are in force; a change to a port counts as in force when its interface is
  /// absent.
  virtual std::vector<Failure> Apply(const Changes& changes) = 0;

  /// Forgets ports and entries and takes the filters away: the element is decommissioned. Never called at an ordinary
  /// end of the process.
  virtual common::Status RemoveEverything() = 0;

  /// The 802.3 length of a frame with a VLAN tag is out of this plane's sight: it drops such frames as malformed.
  [[nodiscard]] virtual bool HidesTaggedLength() const { return false; }
  virtual common::Result<std::vector<PortCounter>> Counters() { return std::vector<PortCounter>{}; }
  virtual common::Result<std::vector<Drop>> Violators() { return std::vector<Drop>{}; }
  /// Readable when drop events wait; -1 when the plane reports none. Owned by the plane.
  [[nodiscard]] virtual int DropEventFd() const { return -1; }
  /// The events that wait, at most some hundreds a call.
  virtual std::vector<Drop> ReadDropEvents() { return {}; }

  /// Readable when the kernel tells of changes by others; -1 when the plane cannot be told. Owned by the plane.
  [[nodiscard]] virtual int ChangeEventFd() const { return -1; }
  /// Reads what the kernel tells, and puts back at once what others have changed.
  virtual std::vector<Deviation> ReadChangeEvents() { return {}; }

  /// One step of a comparison of what the kernel holds with what this process has made.
  struct CheckStep {
    bool complete = true;               ///< everything has been compared; the next step begins a new comparison
    std::vector<Deviation> found = {};  ///< by this step
  };
  /// Compares the next part, some milliseconds of work, and puts back what differs.
  virtual CheckStep Check() { return {}; }
  /// Ports at which the filter does not see every frame now, as the last Check() found it, with the reason.
  [[nodiscard]] virtual const std::map<PortId, std::string>& Unguarded() const;
};

struct DataplaneOptions {
  std::string run_dir;       ///< of the element; the plane keeps its own files in a directory below
  size_t capacity = 24'576;  ///< entries
};

/// What earlier processes on a run directory have left of a plane, seen by a process that runs another one.
struct Remains {
  std::optional<size_t> ports;          ///< at which filters of it are in force; nothing: this process may not see
  std::string where;                    ///< for a person: "pinned in /run/../bpf"
  std::string obstacle;                 ///< why this process cannot take it away; empty: it can
  std::function<common::Status()> end;  ///< takes all of it away, its filters at once
};

/// A dataplane that this program was built with.
struct DataplaneKind {
  std::string_view name;
  /// Fails, with what the system lacks, where the plane cannot work.
  common::Result<std::unique_ptr<Dataplane>> (*open)(const DataplaneOptions& options);
  /// Changes nothing, and works also where the plane does not. Nothing when there is nothing, or no way to know.
  std::optional<Remains> (*find)(const DataplaneOptions& options);
};

}  // namespace mgr
