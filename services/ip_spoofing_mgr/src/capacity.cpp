#include "capacity.h"

#include <string>

#include "filter_manager.h"

namespace mgr {
namespace {

constexpr size_t kInstallerCapacity = 24'576;
constexpr uint32_t kSourceFilterClassifier = 2;

}  // namespace

common::Result<size_t> ElementCapacity(size_t most) {
  fm_slot_t slot{};
  bool installed_by_ip_manager = false;
  if (fm_init() != 0 || fm_local_slot(&slot) != 0 ||
      fm_scalar_card_ip_mgr_install_dnx_filters(&slot, &installed_by_ip_manager) != 0)
    return common::Error{"read", "element.json", "see the line before"};
  if (installed_by_ip_manager) return kInstallerCapacity;
  size_t entries = 0;
  for (const FmClientResource& resource : FilterManager::GetClientResourcesInformation("ip_spoofing")) {
    if (resource.stage == kSourceFilterClassifier && resource.kind == kSourceFilterClassifier)
      entries += resource.count;
  }
  if (entries >= 1 && entries <= most) return entries;
  return common::Error{
      "element.json", "filter-clients/ip_spoofing",
      std::to_string(entries) + " entries of stage 2 and kind 2 are not from 1 to " + std::to_string(most)};
}

}  // namespace mgr
