#pragma once

#include <string>
#include <vector>

#include "engine.h"
#include "ip_spoofing_mgr_client.h"
#include "table.h"

namespace mgr {

/// Why a port does not filter as it is wanted to; empty when it does. One that is not wanted enabled has a reason too.
std::string ReasonOf(const Port& port);

/// Why an entry is not in force; empty when it is.
std::string ReasonOf(const Table& table, const Engine& engine, const EntryKey& key, const EntryRow& row);
std::string ReasonOf(const Table& table, const OddKey& key);

/// The rows that clients read: one for each wanted entry (type 0), and one for each port with an allow-all mode (type 1
/// to 3, VLAN 0: the mode holds for all VLANs). `state` is 1 when the row is in force. `flag` is 0 when frames from
/// other sources are dropped at the port, and 1 when they pass: the port is not enabled, absent, or in monitor mode.
std::vector<ip_spoofing_mgr::AllowedIpStatusEntry> StatusRows(const Table& table, const Engine& engine);

}  // namespace mgr
