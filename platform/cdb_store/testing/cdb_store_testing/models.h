#pragma once

#include "cdb_store/schema.h"

/// Two data models for tests, built without a compiler.
namespace cdb_store::testing {

inline constexpr uint32_t kAntiSpoofingHash = 0x41fef11b;
inline constexpr uint32_t kBoxHash = 0x0b0c0d0e;

/// The anti-ip-spoofing model: /ais:config/anti-ip-spoofing/interface/allowed-ip/ipv4.
Schema AntiSpoofingSchema();

/// A model unlike it, /tb:box: every value type as leaf and as key, nested lists, leaf-lists, presence containers
/// inside each other, leaves directly under containers without presence, and nodes of a second module (tx).
Schema BoxSchema();

/// Room for one list instance's keys and more: a name that still fits, and one that does not.
inline constexpr size_t kLongestName = 500;

}  // namespace cdb_store::testing
