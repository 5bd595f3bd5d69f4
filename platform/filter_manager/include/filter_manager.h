/// @file filter_manager.h
/// Slot and resource queries of the forwarding hardware.
///
/// Everything comes from the element's own description file, the JSON file that "IP_SPOOFING_ELEMENT_FILE" names,
/// else `element.json` in the state directory, else `/etc/ip-spoofing/element.json`. Without any: installer flag false,
/// one resource record (2, 2, 24576). A file that is named must exist.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

/// The local card; opaque to callers.
struct fm_slot_t {
  uint32_t card;
  uint32_t slot;
};

extern "C" {
/// 0; or -1 with one line on standard error when the description file is there and cannot be read or understood.
int fm_init(void);
/// Fills the descriptor of the local card. 0, or -1 before fm_init().
int fm_local_slot(fm_slot_t* slot);
/// Writes whether the card's filters are installed by the IP manager, which fixes their number. 0 or -1.
int fm_scalar_card_ip_mgr_install_dnx_filters(fm_slot_t* slot, bool* answer);
}

struct FmClientResource {
  uint32_t client;  ///< number of the filter client
  uint32_t stage;   ///< first classifier
  uint32_t kind;    ///< second classifier
  uint32_t count;   ///< entries
};

class FilterManager {
 public:
  /// The resource records of the named filter client; empty for an unknown one.
  static std::vector<FmClientResource> GetClientResourcesInformation(std::string client);
};
