#include "filter_manager.h"

#include <cstdio>
#include <optional>

#include "element.h"

namespace {

/// Absent before fm_init().
std::optional<fm_impl::Element>& TheElement() {
  static std::optional<fm_impl::Element> element;
  return element;
}

}  // namespace

int fm_init(void) {
  auto element = fm_impl::ReadElement();
  if (!element) {
    std::fprintf(stderr, "filter manager: %s\n", element.error().Text().c_str());
    return -1;
  }
  TheElement() = std::move(element).value();
  return 0;
}

int fm_local_slot(fm_slot_t* slot) {
  if (slot == nullptr || !TheElement()) return -1;
  *slot = TheElement()->local;
  return 0;
}

int fm_scalar_card_ip_mgr_install_dnx_filters(fm_slot_t* slot, bool* answer) {
  if (slot == nullptr || answer == nullptr || !TheElement()) return -1;
  *answer = TheElement()->ip_manager_installs_filters;
  return 0;
}

// By value: the signature is the contract's.  NOLINTNEXTLINE(performance-unnecessary-value-param)
std::vector<FmClientResource> FilterManager::GetClientResourcesInformation(std::string client) {
  if (!TheElement()) return {};
  const auto it = TheElement()->clients.find(client);
  return it != TheElement()->clients.end() ? it->second : std::vector<FmClientResource>{};
}
