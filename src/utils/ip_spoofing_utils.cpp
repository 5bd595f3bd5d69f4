#include "utils/ip_spoofing_utils.h"

#include <cstdint>

#include "filter_manager.h"
#include "utils/fault.h"

namespace ip_spoofing_app {
namespace {

constexpr int kInstallerCapacity = 24576;        // of a slot whose filters the IP manager installs
constexpr uint32_t kSourceFilterClassifier = 2;  // both classifiers of the resources that hold entries
constexpr char kFilterClient[] = "ip_spoofing";

}  // namespace

int get_max_ip_spoofing_entries() {
  if (fm_init() != 0) FATAL_FAULT("Failed to initialize fm_lib");
  fm_slot_t slot{};
  if (fm_local_slot(&slot) != 0) FATAL_FAULT("Failed to initialize fm local slot");
  bool installed_by_ip_manager = false;
  fm_scalar_card_ip_mgr_install_dnx_filters(&slot, &installed_by_ip_manager);
  if (installed_by_ip_manager) return kInstallerCapacity;

  uint32_t entries = 0;
  for (const FmClientResource& resource : FilterManager::GetClientResourcesInformation(kFilterClient)) {
    if (resource.stage == kSourceFilterClassifier && resource.kind == kSourceFilterClassifier) {
      entries += resource.count;
    }
  }
  return static_cast<int32_t>(entries);
}

}  // namespace ip_spoofing_app
