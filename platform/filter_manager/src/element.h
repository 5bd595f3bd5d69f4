#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"
#include "filter_manager.h"

namespace fm_impl {

/// The element's description. In its file every member may be left out, and then is as here:
///
///   {"card": 1, "slot": 1,
///    "ip-manager-installs-filters": false,
///    "filter-clients": {"ip_spoofing": [{"client": 0, "stage": 2, "kind": 2, "count": 24576}]}}
struct Element {
  fm_slot_t local{1, 1};
  bool ip_manager_installs_filters = false;
  std::map<std::string, std::vector<FmClientResource>> clients{{"ip_spoofing", {{0, 2, 2, 24576}}}};
};

inline constexpr const char* kSystemFile = "/etc/ip-spoofing/element.json";

/// Fails with what is wrong and where when the text is no such description; an unknown member is an error, too.
common::Result<Element> ParseElement(std::string_view text);

/// The description of this element: the file that "IP_SPOOFING_ELEMENT_FILE" names, which must exist, else element.json
/// in the state directory, else kSystemFile, else the defaults.
common::Result<Element> ReadElement();

}  // namespace fm_impl
