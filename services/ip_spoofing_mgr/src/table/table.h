#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "dataplane/dataplane.h"
#include "ip_spoofing_mgr_wire/messages.h"
#include "table/entry_table.h"

namespace mgr {

/// Names of logical interface ids, and back.
class PortNames {
 public:
  virtual ~PortNames() = default;
  virtual std::optional<std::string> NameOf(limid_t limid) = 0;
  virtual std::optional<limid_t> IdOf(const std::string& name) = 0;
};

/// One port: what is wanted of it and what the dataplane has.
struct Port {
  PortId id = 0;
  limid_t limid{};
  std::string name;  ///< empty: the id names no interface, and the dataplane never hears of the port
  uint32_t ifindex = 0;
  std::string main_name;  ///< of the interface that has `name` as an alternative name; else empty
  bool wanted_enabled = false;
  AllowAll wanted_mode = AllowAll::kNone;
  bool monitor = false;
  size_t wanted_entries = 0;
  size_t installed_entries = 0;
  std::optional<PortConfig> installed;  ///< as the dataplane was last told with success
  std::string failure;                  ///< why the last change was refused; empty: it was not
  std::string unguarded;                ///< why frames pass by the filter although it is in place; empty: none do
  uint64_t batch = 0;                   ///< the last one that named it
  bool held = false;                    ///< its narrowing waits

  [[nodiscard]] bool Wanted() const noexcept {
    return wanted_enabled || wanted_mode != AllowAll::kNone || wanted_entries > 0;
  }
  /// Nobody wants it, and the dataplane has never heard of it or has forgotten it.
  [[nodiscard]] bool Unused() const noexcept {
    return !Wanted() && !installed && installed_entries == 0 && failure.empty();
  }
  [[nodiscard]] PortConfig WantedConfig() const {
    return {
        .id = id, .name = name, .ifindex = ifindex, .enabled = wanted_enabled, .mode = wanted_mode, .monitor = monitor};
  }
};

/// An entry that no dataplane can hold: an IPv6 address, or a VLAN above 4094. Kept so that it is seen.
struct OddKey {
  PortId port = 0;
  uint16_t vlan = 0;
  bool ipv6 = false;
  std::array<uint8_t, 16> address{};
  auto operator<=>(const OddKey&) const = default;  // NOLINT(modernize-use-nullptr): a false alarm
};
struct OddRow {
  MacAddress mac{};
  uint64_t batch = 0;
};

inline constexpr uint16_t kMaxVlan = 4094;

/// The mode that a request asks for by 0 to 3, and the row type that clients read. Only a hold between two modes
/// permits IPv4 and IPv6 and no more; clients read that as 3 too.
AllowAll ModeOfRequest(uint8_t value);
uint8_t TypeOf(AllowAll mode);

/// Everything that clients have asked for and everything the dataplane has. Only data: the engine moves one to the
/// other. Loop thread only.
class Table final {
 public:
  using Node = EntryTable::Node;

  explicit Table(PortNames& names) : names_{names} {}

  /// The port of that logical interface, made when it is not known. Null when there are too many.
  Port* PortOf(limid_t limid);
  [[nodiscard]] Port* Find(PortId id) { return id < port_of_id_.size() ? port_of_id_[id] : nullptr; }
  [[nodiscard]] const Port* Find(PortId id) const { return id < port_of_id_.size() ? port_of_id_[id] : nullptr; }
  Port* FindByName(const std::string& name);
  /// A port as a dataplane kept it, under its number. Null when the number or the name is taken, or is none.
  Port* Adopt(const PortConfig& config);
  void Erase(PortId id);

  [[nodiscard]] const std::map<PortId, Port>& ports() const noexcept { return ports_; }
  std::map<PortId, Port>& ports() noexcept { return ports_; }
  [[nodiscard]] const EntryTable& entries() const noexcept { return entries_; }
  EntryTable& entries() noexcept { return entries_; }
  [[nodiscard]] const std::map<OddKey, OddRow>& odd_entries() const noexcept { return odd_entries_; }
  std::map<OddKey, OddRow>& odd_entries() noexcept { return odd_entries_; }

 private:
  PortId NewId();
  Port& Add(PortId id, const std::string& name);
  PortNames& names_;
  std::map<PortId, Port> ports_;
  std::vector<Port*> port_of_id_;
  std::unordered_map<uint32_t, PortId> id_of_limid_;
  std::unordered_map<std::string, PortId> id_of_name_;
  PortId last_id_ = 0;
  EntryTable entries_;
  std::map<OddKey, OddRow> odd_entries_;
};

}  // namespace mgr
