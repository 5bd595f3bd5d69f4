#include "dataplane/memory_dataplane.h"

namespace mgr {

std::vector<Failure> MemoryDataplane::Apply(const Changes& changes) {
  std::vector<Failure> failures;
  for (size_t i = 0; i < changes.puts.size(); ++i) {
    const Entry& entry = changes.puts[i];
    if (entries_.size() >= capacity_ && !entries_.contains(entry.key)) {
      failures.push_back({Failure::Of::kPut, i, {"add entry", "", "the table is full"}});
      continue;
    }
    entries_.insert_or_assign(entry.key, entry.mac);
  }
  for (const PortConfig& port : changes.ports) ports_.insert_or_assign(port.id, port);
  for (const EntryKey& key : changes.removes) entries_.erase(key);
  for (const PortId id : changes.drop_ports) {
    ports_.erase(id);
    std::erase_if(entries_, [&](const auto& entry) { return entry.first.port == id; });
  }
  return failures;
}

common::Status MemoryDataplane::RemoveEverything() {
  ports_.clear();
  entries_.clear();
  return common::Ok();
}

common::Result<std::unique_ptr<Dataplane>> OpenMemoryDataplane(const DataplaneOptions& options) {
  return std::unique_ptr<Dataplane>(std::make_unique<MemoryDataplane>(options.capacity));
}

std::optional<Remains> FindNothing(const DataplaneOptions&) { return std::nullopt; }

}  // namespace mgr
