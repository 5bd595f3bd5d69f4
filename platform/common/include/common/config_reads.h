#pragma once

#include <cstdint>

namespace common {

/// What the configuration database client of this process has done so far. The manager client compares the counts
/// before and after a callback: an application that read its configuration there has sent the whole of it, be it empty,
/// and one that only looked at the transaction id has not. Loop thread only.
struct ConfigReads {
  uint64_t reads = 0;     ///< reads of a path, the absent ones included; not transaction ids
  uint64_t failures = 0;  ///< calls of the database client that failed for another reason than absence
};

/// One for the whole process, whichever shared library asks.
__attribute__((visibility("default"))) inline ConfigReads& ProcessConfigReads() {
  static ConfigReads reads;
  return reads;
}

}  // namespace common
