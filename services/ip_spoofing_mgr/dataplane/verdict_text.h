#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "dataplane/dataplane.h"
#include "dataplane/verdict.h"

/// The verdict function's vocabulary in the dataplanes' own terms.
namespace mgr {

/// The name under which a reason is counted and shown, "no-entry".
std::string_view ReasonName(verdict_reason reason);
/// The line of the verdict table, as an operator reads it.
std::string_view RowText(verdict_row row);
/// True for the reasons under which a frame passes.
bool Passes(verdict_reason reason);

verdict_port ToVerdictPort(const PortConfig& port);
verdict_mac ToVerdictMac(const MacAddress& mac);
MacAddress FromVerdictMac(const verdict_mac& mac);
/// The stored form of an entry. A zero MAC stands for any.
verdict_entry ToVerdictEntry(const MacAddress& mac, uint8_t generation);
/// The MAC of an entry, zero when it has none.
MacAddress EntryMac(const verdict_entry& entry);

}  // namespace mgr
