#pragma once

#include <map>
#include <unordered_map>

#include "dataplane/dataplane.h"

namespace mgr {

struct EntryKeyHash {
  size_t operator()(const EntryKey& key) const noexcept {
    uint64_t word = (uint64_t{key.port} << 44U) ^ (uint64_t{key.vlan} << 32U) ^ key.address_be;
    word ^= word >> 31U;
    word *= 0x9E3779B97F4A7C15U;
    return static_cast<size_t>(word ^ (word >> 32U));
  }
};

/// Tables only: shows what would be in force and filters nothing. Nothing outlives the process.
class MemoryDataplane final : public Dataplane {
 public:
  explicit MemoryDataplane(size_t capacity) : capacity_{capacity} {}

  [[nodiscard]] std::string_view Name() const override { return "memory"; }
  [[nodiscard]] size_t Capacity() const override { return capacity_; }
  common::Result<Snapshot> TakeOver() override { return Snapshot{}; }
  std::vector<Failure> Apply(const Changes& changes) override;
  common::Status RemoveEverything() override;

  [[nodiscard]] const std::map<PortId, PortConfig>& ports() const noexcept { return ports_; }
  [[nodiscard]] const std::unordered_map<EntryKey, MacAddress, EntryKeyHash>& entries() const noexcept {
    return entries_;
  }

 private:
  const size_t capacity_;
  std::map<PortId, PortConfig> ports_;
  std::unordered_map<EntryKey, MacAddress, EntryKeyHash> entries_;
};

common::Result<std::unique_ptr<Dataplane>> OpenMemoryDataplane(const DataplaneOptions& options);
std::optional<Remains> FindNothing(const DataplaneOptions& options);

}  // namespace mgr
