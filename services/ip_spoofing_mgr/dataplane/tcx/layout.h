/// @file layout.h
/// What the kernel program and the manager share: the maps' keys and values. A change of anything here is a new
/// layout: raise PLANE_LAYOUT, which is part of the path of the pinned maps.
#pragma once

#include <linux/types.h>

#include "dataplane/verdict.h"

#ifndef __cplusplus
#define static_assert _Static_assert
#endif

#define PLANE_LAYOUT 2

#define PLANE_MAX_IFINDEX 65536u    ///< interface indexes below this can be filtered
#define PLANE_MAX_PORTS 1024u       ///< port ids below this can be used; id 0 is none
#define PLANE_VIOLATORS 4096u       ///< rows of the table of violators; the least recently seen one makes room
#define PLANE_EVENT_BYTES 262144u   ///< ring of drop events
#define PLANE_EVENTS_PER_SECOND 20  ///< per port and CPU; the next event counts what was held back

/// Value of `ports`, by interface index. Zero: not a managed port.
struct plane_port {
  __u32 port_id;
  struct verdict_port state;
  __u8 reserved;
};
static_assert(sizeof(struct plane_port) == 8, "plane_port");

/// Key of `entries`.
struct plane_entry_key {
  __u32 port_vlan;  ///< port id << 12 | VLAN
  __be32 source_be;
};
static_assert(sizeof(struct plane_entry_key) == 8, "plane_entry_key");
static_assert(sizeof(struct verdict_entry) == 8, "verdict_entry");

/// Index in `counters`: two blocks of reasons per port, frames that had the reason's verdict and frames that monitor
/// mode let pass in spite of it.
#define PLANE_CELLS_PER_PORT (2 * VERDICT_REASONS)
#define PLANE_CELL(port_id, monitored, reason) \
  ((port_id)*PLANE_CELLS_PER_PORT + ((monitored) ? VERDICT_REASONS : 0) + (reason))

/// Value of `rate`, by port id and CPU.
struct plane_rate {
  __u64 window_ns;  ///< start of the running second, CLOCK_MONOTONIC
  __u32 sent;       ///< events in it
  __u32 held_back;  ///< drops since the last event
};

/// Key of `violators`.
struct plane_violator_key {
  __u32 port_vlan;
  __be32 source_be;
  struct verdict_mac mac;
  __u8 reason;
  __u8 has_source;  ///< source_be was read from the frame; 0: the frame has none
};
static_assert(sizeof(struct plane_violator_key) == 16, "plane_violator_key");

struct plane_violator {
  __u64 frames;
  __u64 first_ns;  ///< CLOCK_MONOTONIC
  __u64 last_ns;
  __u16 ethertype;
  __u16 reserved[3];
};
static_assert(sizeof(struct plane_violator) == 32, "plane_violator");

/// A record of the ring `events`.
struct plane_event {
  __u64 time_ns;  ///< CLOCK_MONOTONIC
  __u64 frames;   ///< this one and those held back before it
  struct plane_violator_key key;
  __u16 ethertype;
  __u16 reserved[3];
};
static_assert(sizeof(struct plane_event) == 40, "plane_event");

/// Value of `records`, by port id: the manager's own memory of its ports. The kernel program does not read it.
struct plane_record {
  char name[16];  ///< empty: no such port
  __u32 ifindex;
  struct verdict_port state;
  __u8 reserved;
};
static_assert(sizeof(struct plane_record) == 24, "plane_record");
