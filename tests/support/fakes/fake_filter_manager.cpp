#include "fakes/fake_filter_manager.h"

#include <utility>

#include "fakes/script.h"
#include "fakes/trace.h"

namespace fakes {
namespace {

constexpr fm_slot_t kLocalSlot = {3, 7};

void Add(std::string line) { TheTrace().Add(Kind::kFilter, std::move(line)); }

}  // namespace

Filters& TheFilters() {
  static Filters* const filters = new Filters;
  return *filters;
}

}  // namespace fakes

int fm_init() {
  fakes::Add("fm_init");
  return fakes::ScriptedResult("fm_init");
}

int fm_local_slot(fm_slot_t* slot) {
  fakes::Add("fm_local_slot");
  *slot = fakes::kLocalSlot;
  return fakes::ScriptedResult("fm_local_slot");
}

int fm_scalar_card_ip_mgr_install_dnx_filters(fm_slot_t* slot, bool* answer) {
  fakes::Add(fakes::Format("fm_scalar_card_ip_mgr_install_dnx_filters card %u slot %u", slot->card, slot->slot));
  *answer = fakes::TheFilters().installed_by_ip_manager;
  return fakes::ScriptedResult("fm_scalar_card_ip_mgr_install_dnx_filters");
}

std::vector<FmClientResource> FilterManager::GetClientResourcesInformation(std::string client) {
  fakes::Add("GetClientResourcesInformation " + std::move(client));
  return fakes::TheFilters().resources;
}
