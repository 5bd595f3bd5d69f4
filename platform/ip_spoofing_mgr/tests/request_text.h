#pragma once

#include <string>

#include "ip_spoofing_mgr_wire/messages.h"

/// Requests for tests: ports are numbered (the limid's first word).
namespace ip_spoofing_mgr {

wire::Request Enable(uint16_t port);
wire::Request Disable(uint16_t port);
wire::Request Mode(uint16_t port, uint8_t mode);
wire::Request Put(uint16_t port, uint16_t vlan, const std::string& address, uint8_t mac = 0);
wire::Request Remove(uint16_t port, uint16_t vlan, const std::string& address);

/// "1 full [enable 1, put 1/5/10.0.0.1 mac 7]"; "..." follows a part that is not the last one.
std::string BatchText(const wire::BatchPart& part);

/// An entry as the daemon builds it.
AllowedIpEntry Entry(uint16_t port, uint16_t vlan, const std::string& address, uint8_t mac = 0);

}  // namespace ip_spoofing_mgr
