/// @file limid.h
/// Logical interface identifiers: a stable 4-byte id for an interface name, the same in every process of the element
/// and after every restart, also for an interface that does not exist yet.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Opaque to all but this library. The zero id names no interface.
typedef struct limid {
  uint16_t word[2];
} limid_t;

typedef uint8_t limid_type_t;

enum limid_type {
  limid_type_none = 0,
  limid_type_gigabit_ethernet = 1,
  limid_type_serviceport = 2, /**< every Ethernet-like interface, present or not */
  limid_type_loopback = 3,
  limid_type_point_to_point = 4
};

/// The id of that name. 0; or -1, and the id zero, when no interface can have the name or the registry fails.
int limid_from_intfname(limid_t* limid, const char* name);
/// The id of the interface with that index in this network namespace; index 0 is the zero id and no error.
int limid_from_ifindex(limid_t* limid, uint32_t ifindex);
/// Writes the name, NUL-terminated, into `size` bytes. 0; or -1, and an empty text, for an id that names none.
int limid_to_intfname(limid_t limid, char* name, size_t size);
/// The type of the interface as it is now. 0; or -1, and `*type` unchanged, for an id that names none.
int limid_to_type(limid_t limid, limid_type_t* type);
/// 0 when the types are the same, else negative or positive by their order.
int limid_type_compare(limid_type_t a, limid_type_t b);
/// Non-zero when the id names an interface of that type.
int limid_is_from_type(limid_t limid, limid_type_t type);
/// A total order of ids: negative, 0 or positive.
int limid_compare(limid_t a, limid_t b);

#ifdef __cplusplus
}
#endif
