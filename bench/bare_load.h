#pragma once

#include <cstdint>

#include "ip_spoofing_mgr_client.h"

/// What the daemon's load is measured against: programs that know nothing but LMDB and the layout of the rows. Both
/// read the store of the process's state directory, and run in a process of their own: an environment may be open once
/// per process.
namespace bench {

/// The entries that a load has handed on: how many, and what was in them.
struct Handed {
  uint64_t entries = 0;
  uint64_t sum = 0;
  void Add(const ip_spoofing_mgr::AllowedIpEntry& entry);
  friend bool operator==(const Handed&, const Handed&) = default;
};

/// Median microseconds of one cursor over every row of running, from the first to the last: each key and value is
/// touched, nothing is decoded, nothing is built. No reader of single leaves can be near it; it says what the medium
/// costs.
double BareWalk(int runs);

struct BareLoad {
  double time = 0;  ///< median, microseconds
  Handed handed;    ///< by one run
};
/// The daemon's load without paths and without a client library. The same instances in the same positional order: a
/// count record for each list, a cursor's move for each row, and for each read that the daemon makes the look-up of
/// that leaf in the row or its key; each source becomes the same 44-byte entry, which is handed on. As fast as it can
/// straightforwardly be written.
BareLoad BareLoadOfTheSameReads(int runs);
/// The same, and of each source the texts that the daemon writes whoever serves its reads: the paths of its entry and
/// of its three leaves, and its address. What no client library can make faster.
BareLoad BareLoadWithTexts(int runs);

}  // namespace bench
