#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "dataplane/dataplane.h"

/// How the manager writes values for people and for programs.
namespace mgr {

std::string AddressText(uint32_t address_be);
std::string Ipv6Text(const std::array<uint8_t, 16>& address);
/// "02:00:00:00:00:01". An entry's zero MAC stands for any: the caller says so.
std::string MacText(const MacAddress& mac);
std::string ModeText(AllowAll mode);  ///< "none", "ipv4-all", "ipv6-all", "ipv4-and-ipv6-all", "all"
/// UTC with milliseconds, as RFC 3339.
std::string TimeText(std::chrono::system_clock::time_point time);

}  // namespace mgr
