#include "dataplane/nft/nft_dataplane.h"

#include <net/if.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <unordered_map>

#include "dataplane/memory_dataplane.h"
#include "dataplane/nft/netlink.h"
#include "dataplane/nft/port_rules.h"
#include "dataplane/nft/table.h"
#include "dataplane/verdict_text.h"

namespace mgr {
namespace {

using nft::Batch;
using nft::Data;
using nft::Element;

constexpr const char* kPorts = "ports";  ///< port id; the record of the port beside it
constexpr unsigned kLayout = 1;

/// What is kept of a port beside its id.
struct Record {
  uint32_t ifindex;
  uint8_t enabled, mode, monitor, reserved;
  std::array<char, 16> name;
};
static_assert(sizeof(Record) == 24);

void Append(Data& data, const void* bytes, size_t size) {
  const auto* begin = static_cast<const uint8_t*>(bytes);
  data.insert(data.end(), begin, begin + size);
}

/// Three words: port, VLAN in network order and padding, source.
Element KeyElement(const EntryKey& key) {
  Element element{nft::Host32(key.port)};
  const Data vlan = nft::Net16(key.vlan);
  Append(element.key, vlan.data(), vlan.size());
  element.key.resize(8);
  Append(element.key, &key.address_be, sizeof key.address_be);
  return element;
}

Element BoundElement(const EntryKey& key, const MacAddress& mac) {
  Element element = KeyElement(key);
  Append(element.key, mac.data(), mac.size());
  element.key.resize(20);
  return element;
}

EntryKey FromKey(const Data& data) {
  EntryKey key;
  std::memcpy(&key.port, data.data(), sizeof key.port);
  key.vlan = static_cast<uint16_t>(data[4] << 8 | data[5]);
  std::memcpy(&key.address_be, data.data() + 8, sizeof key.address_be);
  return key;
}

Element RecordElement(const PortConfig& port) {
  Record record{port.ifindex,
                static_cast<uint8_t>(port.enabled),
                static_cast<uint8_t>(port.mode),
                static_cast<uint8_t>(port.monitor),
                0,
                {}};
  std::strncpy(record.name.data(), port.name.c_str(), record.name.size() - 1);
  Element element{nft::Host32(port.id)};
  Append(element.user_data, &record, sizeof record);
  return element;
}

/// Names of the tables of one run directory start alike and end with the layout and the room.
std::string TablePrefix(const std::string& run_dir) {
  uint32_t hash = 2166136261U;  // FNV-1a
  for (const char c : run_dir) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619U;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "ip_spoofing_%08x_", hash);
  return text.data();
}

/// The elements of a step, by set.
struct SetChanges {
  std::vector<Element> any_mac, bound, bound_keys;
  void Add(const EntryKey& key, const MacAddress& mac) {
    if (mac == MacAddress{}) {
      any_mac.push_back(KeyElement(key));
    } else {
      bound.push_back(BoundElement(key, mac));
      bound_keys.push_back(KeyElement(key));
    }
  }
};

class NftDataplane final : public Dataplane {
 public:
  NftDataplane(nft::Socket socket, const DataplaneOptions& options)
      : socket_{std::move(socket)},
        capacity_{options.capacity},
        prefix_{TablePrefix(options.run_dir)},
        table_{socket_, prefix_ + "v" + std::to_string(kLayout) + "_" + std::to_string(2 * options.capacity)} {}

  [[nodiscard]] std::string_view Name() const override { return "nft"; }
  [[nodiscard]] size_t Capacity() const override { return capacity_; }
  common::Result<Snapshot> TakeOver() override;
  std::vector<Failure> Apply(const Changes& changes) override;
  common::Status RemoveEverything() override;
  common::Result<std::vector<PortCounter>> Counters() override;

  /// Makes a table like the real one and takes it away: shows what the system allows.
  common::Status Probe();

 private:
  int Setup(const nft::Table& table);
  /// Entries that a table of this run directory and layout has room for; 0 for any other table.
  [[nodiscard]] size_t RoomOf(const std::string& name) const;
  common::Result<Snapshot> Read(const nft::Table& table) const;
  common::Status Migrate(const nft::Table& from);

  /// Calls `commit(begin, end)` for pieces of `count` items until all are tried, smaller ones where a piece fails;
  /// reports single items that fail.
  template <class Commit, class Failed>
  void InPieces(size_t count, const Commit& commit, const Failed& failed);
  int CommitPuts(const std::vector<Entry>& puts, size_t begin, size_t end);
  int CommitRemoves(const std::vector<EntryKey>& removes, size_t begin, size_t end);
  void Remove(const std::vector<EntryKey>& removes, std::vector<Failure>* failures);
  common::Status SetPort(const PortConfig& port);
  common::Status Forget(PortId port);
  void WriteRecord(Batch& batch, const PortConfig& port) const;

  nft::Socket socket_;
  const size_t capacity_;
  const std::string prefix_;
  nft::Table table_;
  size_t piece_ = 32'768;  ///< entries a transaction; less where this process may not send that much
  std::map<PortId, PortConfig> ports_;
  std::unordered_map<EntryKey, MacAddress, EntryKeyHash> entries_;  ///< what the sets hold
};

int NftDataplane::Setup(const nft::Table& table) {
  const auto room = static_cast<uint32_t>(std::max(2 * capacity_, RoomOf(table.name())));
  Batch batch;
  table.Create(batch);
  table.AddSet(batch, kPorts, 4, 0);
  table.AddSet(batch, nft::kAnyMac, 12, room);
  table.AddSet(batch, nft::kBound, 20, room);
  table.AddSet(batch, nft::kBoundKeys, 12, room);
  table.AddSet(batch, nft::kSameBytes, 8, 256);
  table.AddSet(batch, nft::kTags, 2, 0);
  table.AddSet(batch, nft::kEncapsulations, 2, 0);
  table.AddSet(batch, nft::kIpOverLlc, 1, 0);
  table.AddSet(batch, nft::kNoRoomForUdp, 8, 0);

  std::vector<Element> same, short_udp;
  for (unsigned byte = 0; byte < 256; ++byte) {
    const auto value = static_cast<uint8_t>(byte);
    same.push_back({{value, 0, 0, 0, value, 0, 0, 0}});
  }
  for (unsigned words = 5; words <= 15; ++words) {
    for (unsigned beyond = 0; beyond < 8; ++beyond) {
      const unsigned total = words * 4 + beyond;
      short_udp.push_back({{static_cast<uint8_t>(words), 0, 0, 0, static_cast<uint8_t>(total >> 8),
                            static_cast<uint8_t>(total & 0xff), 0, 0}});
    }
  }
  std::vector<Element> encapsulations;
  for (unsigned type = 0; type <= 0xffff; ++type) {
    if (verdict_is_encapsulation(static_cast<uint16_t>(type)) != 0)
      encapsulations.push_back({nft::Net16(static_cast<uint16_t>(type))});
  }
  table.AddElements(batch, nft::kSameBytes, same);
  table.AddElements(batch, nft::kNoRoomForUdp, short_udp);
  table.AddElements(batch, nft::kEncapsulations, encapsulations);
  table.AddElements(batch, nft::kTags, {{{0x81, 0x00}}, {{0x88, 0xa8}}});
  table.AddElements(batch, nft::kIpOverLlc, {{{0xaa}}, {{0x06}}});
  return socket_.Commit(std::move(batch));
}

size_t NftDataplane::RoomOf(const std::string& name) const {
  size_t room = 0;
  unsigned layout = 0;
  if (!name.starts_with(prefix_)) return 0;
  if (std::sscanf(name.c_str() + prefix_.size(), "v%u_%zu", &layout, &room) != 2 || layout != kLayout) return 0;
  return room;
}

common::Status NftDataplane::Probe() {
  const nft::Table probe{socket_, prefix_ + "probe"};
  if (const int error = Setup(probe); error != 0) return common::SystemError("make a table", probe.name(), error);
  Batch batch;
  probe.Delete(batch);
  if (const int error = socket_.Commit(std::move(batch)); error != 0)
    return common::SystemError("delete the table", probe.name(), error);
  return common::Ok();
}

common::Result<Snapshot> NftDataplane::Read(const nft::Table& table) const {
  Snapshot snapshot;
  auto ports = table.Elements(kPorts);
  auto any_mac = table.Elements(nft::kAnyMac);
  auto bound = table.Elements(nft::kBound);
  for (const auto* read : {&ports, &any_mac, &bound})
    if (!read->ok()) return read->error();
  for (const Element& element : ports.value()) {
    if (element.user_data.size() != sizeof(Record)) continue;
    Record record{};
    std::memcpy(&record, element.user_data.data(), sizeof record);
    PortConfig port;
    std::memcpy(&port.id, element.key.data(), sizeof port.id);
    port.name = record.name.data();
    port.ifindex = record.ifindex;
    port.enabled = record.enabled != 0;
    port.mode = static_cast<AllowAll>(record.mode);
    port.monitor = record.monitor != 0;
    snapshot.ports.push_back(std::move(port));
  }
  for (const Element& element : any_mac.value()) snapshot.entries.push_back({FromKey(element.key), {}});
  for (const Element& element : bound.value()) {
    Entry entry{FromKey(element.key), {}};
    std::memcpy(entry.mac.data(), element.key.data() + 12, entry.mac.size());
    snapshot.entries.push_back(entry);
  }
  return snapshot;
}

common::Result<Snapshot> NftDataplane::TakeOver() {
  auto names = nft::Table::Names(socket_);
  if (!names.ok()) return names.error();
  const auto roomy = std::find_if(names.value().begin(), names.value().end(),
                                  [this](const std::string& name) { return RoomOf(name) >= 2 * capacity_; });
  if (roomy != names.value().end()) table_ = nft::Table{socket_, *roomy};
  if (const int error = Setup(table_); error != 0) return common::SystemError("make the table", table_.name(), error);
  for (const std::string& name : names.value()) {
    if (!name.starts_with(prefix_) || name == table_.name()) continue;
    if (common::Status migrated = Migrate(nft::Table{socket_, name}); !migrated.ok()) return migrated.error();
  }
  auto snapshot = Read(table_);
  if (!snapshot.ok()) return snapshot;
  for (const PortConfig& port : snapshot.value().ports) ports_.emplace(port.id, port);
  for (const Entry& entry : snapshot.value().entries) entries_.emplace(entry.key, entry.mac);
  return snapshot;
}

/// Both tables filter until the earlier one goes: what it allowed, this one allows before.
common::Status NftDataplane::Migrate(const nft::Table& from) {
  auto snapshot = Read(from);
  auto counters = from.Counters();
  if (snapshot.ok() && counters.ok()) {
    Changes changes;
    changes.puts = snapshot.value().entries;
    changes.ports = snapshot.value().ports;
    Batch batch;
    for (const auto& [name, packets] : counters.value()) table_.AddCounter(batch, name, packets);
    socket_.Commit(std::move(batch));  // a count that is lost is no reason to stay behind
    const std::vector<Failure> failures = Apply(changes);
    if (!failures.empty()) return failures.front().error;
    ports_.clear();
    entries_.clear();
  }
  Batch batch;
  from.Delete(batch);
  if (const int error = socket_.Commit(std::move(batch)); error != 0)
    return common::SystemError("delete the earlier table", from.name(), error);
  return common::Ok();
}

template <class Commit, class Failed>
void NftDataplane::InPieces(size_t count, const Commit& commit, const Failed& failed) {
  for (size_t begin = 0, size = piece_; begin < count;) {
    const size_t end = std::min(count, begin + size);
    const int error = commit(begin, end);
    if (error == 0) {
      begin = end;
      size = std::min(piece_, size * 2);
      continue;
    }
    if (end - begin == 1) {
      failed(begin, error);
      begin = end;
      continue;
    }
    size = (end - begin) / 2;
    if (error == EMSGSIZE || error == ENOBUFS) piece_ = size;
  }
}

int NftDataplane::CommitPuts(const std::vector<Entry>& puts, size_t begin, size_t end) {
  SetChanges add, remove;
  for (size_t i = begin; i < end; ++i) {
    const auto known = entries_.find(puts[i].key);
    if (known != entries_.end()) {
      if (known->second == puts[i].mac) continue;
      remove.Add(known->first, known->second);
    }
    add.Add(puts[i].key, puts[i].mac);
  }
  Batch batch;
  table_.DeleteElements(batch, nft::kAnyMac, remove.any_mac);
  table_.DeleteElements(batch, nft::kBound, remove.bound);
  table_.DeleteElements(batch, nft::kBoundKeys, remove.bound_keys);
  table_.AddElements(batch, nft::kAnyMac, add.any_mac);
  table_.AddElements(batch, nft::kBound, add.bound);
  table_.AddElements(batch, nft::kBoundKeys, add.bound_keys);
  if (const int error = socket_.Commit(std::move(batch)); error != 0) return error;
  for (size_t i = begin; i < end; ++i) entries_.insert_or_assign(puts[i].key, puts[i].mac);
  return 0;
}

int NftDataplane::CommitRemoves(const std::vector<EntryKey>& removes, size_t begin, size_t end) {
  SetChanges gone;
  for (size_t i = begin; i < end; ++i)
    if (const auto known = entries_.find(removes[i]); known != entries_.end()) gone.Add(known->first, known->second);
  Batch batch;
  table_.DeleteElements(batch, nft::kAnyMac, gone.any_mac);
  table_.DeleteElements(batch, nft::kBound, gone.bound);
  table_.DeleteElements(batch, nft::kBoundKeys, gone.bound_keys);
  if (const int error = socket_.Commit(std::move(batch)); error != 0) return error;
  for (size_t i = begin; i < end; ++i) entries_.erase(removes[i]);
  return 0;
}

void NftDataplane::Remove(const std::vector<EntryKey>& removes, std::vector<Failure>* failures) {
  InPieces(
      removes.size(), [&](size_t begin, size_t end) { return CommitRemoves(removes, begin, end); },
      [failures](size_t index, int error) {
        if (failures != nullptr)
          failures->push_back({Failure::Of::kRemove, index, common::SystemError("delete element", {}, error)});
      });
}

std::vector<Failure> NftDataplane::Apply(const Changes& changes) {
  std::vector<Failure> failures;
  InPieces(
      changes.puts.size(), [&](size_t begin, size_t end) { return CommitPuts(changes.puts, begin, end); },
      [&failures](size_t index, int error) {
        failures.push_back({Failure::Of::kPut, index, common::SystemError("add element", {}, error)});
      });
  for (size_t i = 0; i < changes.ports.size(); ++i) {
    if (common::Status set = SetPort(changes.ports[i]); !set.ok())
      failures.push_back({Failure::Of::kPort, i, set.error()});
  }
  Remove(changes.removes, &failures);
  for (size_t i = 0; i < changes.drop_ports.size(); ++i) {
    if (common::Status gone = Forget(changes.drop_ports[i]); !gone.ok())
      failures.push_back({Failure::Of::kDropPort, i, gone.error()});
  }
  return failures;
}

void NftDataplane::WriteRecord(Batch& batch, const PortConfig& port) const {
  if (ports_.contains(port.id)) table_.DeleteElements(batch, kPorts, {{nft::Host32(port.id)}});
  table_.AddElements(batch, kPorts, {RecordElement(port)});
}

/// One transaction: the port has its old rules or its new ones, never none.
common::Status NftDataplane::SetPort(const PortConfig& port) {
  const auto chains = table_.Chains();
  if (!chains.ok()) return chains.error();
  const std::vector<std::string> names = nft::ChainNames(port.id);
  const std::string& base = names.front();
  const auto bound = chains.value().find(base);
  const auto known = ports_.find(port.id);
  const bool same_interface = bound != chains.value().end() && bound->second == port.name && known != ports_.end() &&
                              known->second.ifindex == port.ifindex;
  Batch batch;
  WriteRecord(batch, port);
  if (bound != chains.value().end()) {
    table_.FlushChain(batch, base);
    if (!same_interface || !port.enabled) table_.DeleteChain(batch, base);
  }
  if (port.enabled) {
    for (int reason = VERDICT_NOT_ENABLED + 1; reason < VERDICT_REASONS; ++reason) {
      for (const bool monitored : {false, true})
        table_.AddCounter(batch, nft::CounterName(port.id, static_cast<verdict_reason>(reason), monitored), 0);
    }
    for (size_t i = 1; i < names.size(); ++i) {
      table_.AddChain(batch, names[i], {});
      table_.FlushChain(batch, names[i]);
    }
    if (!same_interface) table_.AddChain(batch, base, port.name);
    for (const nft::Rule& rule : nft::PortRules(port)) table_.AddRule(batch, rule);
  }
  int error = socket_.Commit(std::move(batch));
  if (error == ENOENT && port.enabled && if_nametoindex(port.name.c_str()) != port.ifindex) {
    // This kernel binds no chain to an interface that is not there: what is known of the port is kept alone.
    Batch record;
    WriteRecord(record, port);
    error = socket_.Commit(std::move(record));
  }
  if (error != 0) return common::SystemError("set the rules of port", port.name, error);
  ports_.insert_or_assign(port.id, port);
  return common::Ok();
}

common::Status NftDataplane::Forget(PortId port) {
  if (!ports_.contains(port)) return common::Ok();
  const auto chains = table_.Chains();
  const auto counters = table_.Counters();
  if (!chains.ok()) return chains.error();
  if (!counters.ok()) return counters.error();
  Batch batch;
  const std::vector<std::string> names = nft::ChainNames(port);
  for (const std::string& name : names)
    if (chains.value().contains(name)) table_.FlushChain(batch, name);
  for (const std::string& name : names)
    if (chains.value().contains(name)) table_.DeleteChain(batch, name);
  for (const auto& [name, packets] : counters.value())
    if (name.starts_with(names.front() + ".")) table_.DeleteCounter(batch, name);
  table_.DeleteElements(batch, kPorts, {{nft::Host32(port)}});
  if (const int error = socket_.Commit(std::move(batch)); error != 0)
    return common::SystemError("forget port", std::to_string(port), error);
  ports_.erase(port);
  std::vector<EntryKey> left;
  for (const auto& [key, mac] : entries_)
    if (key.port == port) left.push_back(key);
  Remove(left, nullptr);  // an entry of a port that is not known is never looked at
  return common::Ok();
}

common::Status NftDataplane::RemoveEverything() {
  Batch batch;
  table_.Delete(batch);
  if (const int error = socket_.Commit(std::move(batch)); error != 0 && error != ENOENT)
    return common::SystemError("delete the table", table_.name(), error);
  ports_.clear();
  entries_.clear();
  return common::Ok();
}

common::Result<std::vector<PortCounter>> NftDataplane::Counters() {
  auto counters = table_.Counters();
  if (!counters.ok()) return counters.error();
  std::vector<PortCounter> result;
  for (const auto& [id, port] : ports_) {
    for (int i = VERDICT_NOT_ENABLED + 1; i < VERDICT_REASONS; ++i) {
      const auto reason = static_cast<verdict_reason>(i);
      for (const bool monitored : {false, true}) {
        const auto counter = counters.value().find(nft::CounterName(id, reason, monitored));
        if (counter == counters.value().end() || counter->second == 0) continue;
        result.push_back({id, std::string{ReasonName(reason)}, monitored || Passes(reason), counter->second});
      }
    }
  }
  return result;
}

}  // namespace

common::Result<std::unique_ptr<Dataplane>> OpenNft(const DataplaneOptions& options) {
  auto socket = nft::Socket::Open();
  if (!socket.ok()) return socket.error();
  auto plane = std::make_unique<NftDataplane>(std::move(socket).value(), options);
  if (common::Status probed = plane->Probe(); !probed.ok()) return probed.error();
  return std::unique_ptr<Dataplane>{std::move(plane)};
}

}  // namespace mgr
