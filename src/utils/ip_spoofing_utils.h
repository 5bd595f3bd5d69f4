/// @file ip_spoofing_utils.h
/// Query of the hardware's capacity.
#pragma once

namespace ip_spoofing_app {

/// Number of allowed-ip entries that the forwarding hardware of this card can hold; 0 when it has room for none.
/// A filter-manager library that does not start is a fatal fault.
int get_max_ip_spoofing_entries();

}  // namespace ip_spoofing_app
