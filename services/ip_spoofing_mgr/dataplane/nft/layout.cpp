#include "dataplane/nft/layout.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "dataplane/nft/port_rules.h"
#include "dataplane/verdict.h"

namespace mgr::nft {
namespace {

constexpr size_t kPortBytes = 4, kKeyBytes = 12, kBoundBytes = 20;

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

EntryKey FromKey(const Data& data) {
  EntryKey key;
  std::memcpy(&key.port, data.data(), sizeof key.port);
  key.vlan = static_cast<uint16_t>(data[4] << 8 | data[5]);
  std::memcpy(&key.address_be, data.data() + 8, sizeof key.address_be);
  return key;
}

/// A length as it lies in the frame, and one in host order: each masked to the same four bits.
Element LengthPair(unsigned field, unsigned there) {
  Element element{Net16(static_cast<uint16_t>(field))};
  element.key.resize(4);
  const Data host = Host32(there);
  Append(element.key, host.data(), host.size());
  return element;
}

/// True when every key, and the data beside it, has that size.
bool HaveForm(const std::vector<Element>& elements, size_t key, size_t user_data) {
  return std::all_of(elements.begin(), elements.end(), [key, user_data](const Element& element) {
    return element.key.size() == key && element.user_data.size() == user_data;
  });
}

PortConfig PortOf(const Element& element) {
  Record record{};
  std::memcpy(&record, element.user_data.data(), sizeof record);
  PortConfig port;
  std::memcpy(&port.id, element.key.data(), sizeof port.id);
  port.name.assign(record.name.data(), strnlen(record.name.data(), record.name.size()));
  port.ifindex = record.ifindex;
  port.enabled = record.enabled != 0;
  port.mode = static_cast<AllowAll>(record.mode);
  port.monitor = record.monitor != 0;
  return port;
}

}  // namespace

std::string TablePrefix(const std::string& run_dir) {
  uint32_t hash = 2166136261U;  // FNV-1a
  for (const char c : run_dir) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619U;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "ip_spoofing_%08x_", hash);
  return text.data();
}

std::string TableName(const std::string& prefix, size_t room) {
  return prefix + "v" + std::to_string(kLayout) + "_" + std::to_string(room);
}

std::optional<size_t> RoomOf(const std::string& prefix, const std::string& name) {
  size_t room = 0;
  unsigned layout = 0;
  if (!name.starts_with(prefix)) return std::nullopt;
  if (std::sscanf(name.c_str() + prefix.size(), "v%u_%zu", &layout, &room) != 2) return std::nullopt;
  return TableName(prefix, room) == name ? std::optional{room} : std::nullopt;
}

/// Three words: port, VLAN in network order and padding, source.
Element KeyElement(const EntryKey& key) {
  Element element{Host32(key.port)};
  const Data vlan = Net16(key.vlan);
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

std::optional<Entry> EntryOf(const Element& element) {
  if (element.key.size() != kKeyBytes && element.key.size() != kBoundBytes) return std::nullopt;
  Entry entry{FromKey(element.key), {}};
  if (element.key.size() == kBoundBytes)
    std::memcpy(entry.mac.data(), element.key.data() + kKeyBytes, entry.mac.size());
  return entry;
}

Element RecordElement(const PortConfig& port) {
  Record record{port.ifindex,
                static_cast<uint8_t>(port.enabled),
                static_cast<uint8_t>(port.mode),
                static_cast<uint8_t>(port.monitor),
                0,
                {}};
  std::strncpy(record.name.data(), port.name.c_str(), record.name.size() - 1);
  Element element{Host32(port.id)};
  Append(element.user_data, &record, sizeof record);
  return element;
}

namespace {

std::vector<FixedSet> MakeFixedSets() {
  std::vector<Element> same, short_dhcp, same_digits, longer_digits;
  for (unsigned byte = 0; byte < 256; ++byte) {
    const auto value = static_cast<uint8_t>(byte);
    same.push_back({{value, 0, 0, 0, value, 0, 0, 0}});
  }
  for (unsigned words = 5; words <= 15; ++words) {
    for (unsigned beyond = 0; beyond < kDhcpBytes; ++beyond) {
      const unsigned total = words * 4 + beyond;
      short_dhcp.push_back({{static_cast<uint8_t>(words), 0, 0, 0, static_cast<uint8_t>(total >> 8),
                             static_cast<uint8_t>(total & 0xff), 0, 0}});
    }
  }
  for (const unsigned place : {8U, 4U, 0U}) {
    for (unsigned field = 0; field < 16; ++field) {
      for (unsigned there = 0; there <= field; ++there) {
        if (there == field && field == 0 && place != 8) continue;  // all of them look alike
        (there == field ? same_digits : longer_digits).push_back(LengthPair(field << place, there << place));
      }
    }
  }
  std::vector<Element> encapsulations;
  for (unsigned type = 0; type <= 0xffff; ++type) {
    if (verdict_is_encapsulation(static_cast<uint16_t>(type)) != 0)
      encapsulations.push_back({Net16(static_cast<uint16_t>(type))});
  }
  std::vector<Element> ip_over_llc;
  for (unsigned address = 0; address <= 0xff; address += 2) {
    if (verdict_is_ip_over_llc(static_cast<uint8_t>(address)) != 0)
      ip_over_llc.push_back({{static_cast<uint8_t>(address)}});
  }
  return {{kSameBytes, 8, same},
          {kNoRoomForDhcp, 8, short_dhcp},
          {kSameDigits, 8, same_digits},
          {kLongerDigits, 8, longer_digits},
          {kEncapsulations, 2, encapsulations},
          {kTags, 2, {{{0x81, 0x00}}, {{0x88, 0xa8}}}},
          {kIpOverLlc, 1, ip_over_llc}};
}

}  // namespace

const std::vector<FixedSet>& FixedSets() {
  static const std::vector<FixedSet> kSets = MakeFixedSets();
  return kSets;
}

void AddSets(Batch& batch, const Table& table, size_t room) {
  const auto size = static_cast<uint32_t>(room);
  table.Create(batch);
  table.AddSet(batch, kPorts, kPortBytes, 0);
  table.AddSet(batch, kAnyMac, kKeyBytes, size);
  table.AddSet(batch, kBound, kBoundBytes, size);
  table.AddSet(batch, kBoundKeys, kKeyBytes, size);
  for (const FixedSet& set : FixedSets()) {
    table.AddSet(batch, set.name, set.key_size, 0);
    table.AddElements(batch, set.name, set.elements);
  }
}

int SetUp(Socket& socket, const Table& table, size_t room) {
  Batch batch;
  AddSets(batch, table, room);
  return socket.Commit(std::move(batch));
}

common::Result<Snapshot> Read(const Table& table) {
  const auto ports = table.Elements(kPorts), any_mac = table.Elements(kAnyMac), bound = table.Elements(kBound);
  for (const auto* read : {&ports, &any_mac, &bound})
    if (!read->ok()) return read->error();
  if (!HaveForm(ports.value(), kPortBytes, sizeof(Record)) || !HaveForm(any_mac.value(), kKeyBytes, 0) ||
      !HaveForm(bound.value(), kBoundBytes, 0)) {
    return common::Error{"read", table.name(), "sets of another form"};
  }
  Snapshot snapshot;
  for (const Element& element : ports.value()) snapshot.ports.push_back(PortOf(element));
  for (const auto* elements : {&any_mac, &bound})
    for (const Element& element : elements->value()) snapshot.entries.push_back(*EntryOf(element));
  return snapshot;
}

}  // namespace mgr::nft
