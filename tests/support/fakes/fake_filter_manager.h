/// @file fake_filter_manager.h
/// Filter manager with answers set by the test. Scripted answers: "fm_init", "fm_local_slot",
/// "fm_scalar_card_ip_mgr_install_dnx_filters".
#pragma once

#include <vector>

#include "filter_manager.h"

namespace fakes {

struct Filters {
  bool installed_by_ip_manager = false;
  std::vector<FmClientResource> resources = {{0, 2, 2, 1000}};
};

Filters& TheFilters();

}  // namespace fakes
