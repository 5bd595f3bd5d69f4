/// @file confd_cdb.h
/// CDB: read sessions, subscriptions and the difference walk.
///
/// Paths are printf-style formats that know `%s`, `%d`, `%u`, `%x` and `%%`; the calls are macros that count their
/// arguments, so a conversion without an argument fails the call instead of reading what was not passed. Both
/// spellings of an instance are taken: by key (`{eth3}`, `{"eth3"}`, several keys separated by blanks) and by
/// position (`[17]`, from 0). A relative path is resolved against the session's root.
#pragma once

#include "confd_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum cdb_sock_type { CDB_READ_SOCKET = 1, CDB_SUBSCRIPTION_SOCKET = 2 };

enum cdb_db_type {
  CDB_RUNNING = 1,
  CDB_STARTUP = 2,           /**< not supported: cdb_start_session() refuses it */
  CDB_OPERATIONAL = 3,       /**< not supported: cdb_start_session() refuses it */
  CDB_PRE_COMMIT_RUNNING = 4 /**< the configuration before the commit being delivered */
};

enum cdb_subscription_sync_type {
  CDB_DONE_PRIORITY = 1, /**< this priority is handled; the next one may start */
  CDB_DONE_SOCKET = 2    /**< this socket wants no later priority of this commit */
};

/// Identity of a committed configuration: every commit that changes something makes a new one, which survives restarts
/// of the server. Which commit's identity a process is shown: see cdb_get_txid().
struct cdb_txid {
  uint32_t s1;
  uint32_t s2;
  uint32_t s3;
  char primary[256]; /**< NUL-terminated name of the server that made the commit */
};

/// Connects `sock`, an unconnected SOCK_SEQPACKET socket of the application's, to the server at `srv`.
/// A read session makes one round trip here and none later. Blocks at most 5 s.
int cdb_connect(int sock, enum cdb_sock_type type, const struct sockaddr* srv, int srv_size);

/// As cdb_connect(), and tells the server the name under which it shows this client.
int cdb_connect_name(int sock, enum cdb_sock_type type, const struct sockaddr* srv, int srv_size, const char* name);

/// Closes the socket and whatever session it holds.
int cdb_close(int sock);

/// Starts a read session: a consistent snapshot, which later commits do not touch. While a subscription message is
/// being handled every session of the process shares that message's snapshot.
int cdb_start_session(int sock, enum cdb_db_type db);
int cdb_end_session(int sock);

/// Bare names resolve in the namespace with this hash from now on. Before, a bare first node resolves when only one
/// namespace of the data model has a top node of that name; where several have, it carries its module's prefix.
/// (The daemon's sessions on the configuration before a commit never select a namespace and read bare paths.)
int cdb_set_namespace(int sock, int ns_hash);

/// Longest time, in seconds, that one later call on `sock` may wait for the server; 0 for no limit. 20 until it is set.
int cdb_set_timeout(int sock, int timeout_secs);

/// Fills `txid` with the identity of the configuration that the session (or, without one, the server) shows.
///
/// A commit that is being delivered to a subscription socket of this process counts once its last message has been
/// read. Before that, and when the connection is lost in the middle of the delivery, the identity is that of the commit
/// before, although reads show the new configuration: a process that compares identities after a loss loads again.
int cdb_get_txid(int sock, struct cdb_txid* txid);

/* ------------------------------------------------------------------ reads -- */
/* The function behind each macro takes the number of arguments (format included) first. */

/// 1: exists, 0: does not, CONFD_ERR or CONFD_EOF. Non-presence containers exist when they have content.
int cdb_exists_n(int nargs, int sock, const char* fmt, ...);
#define cdb_exists(sock, ...) cdb_exists_n(CONFD_NARGS(__VA_ARGS__), sock, __VA_ARGS__)

/// Number of instances of a list (0 or more), or CONFD_ERR or CONFD_EOF.
int cdb_num_instances_n(int nargs, int sock, const char* fmt, ...);
#define cdb_num_instances(sock, ...) cdb_num_instances_n(CONFD_NARGS(__VA_ARGS__), sock, __VA_ARGS__)

/// Reads any leaf. What the value owns is released with confd_free_value().
int cdb_get_n(int nargs, int sock, confd_value_t* v, const char* fmt, ...);
#define cdb_get(sock, v, ...) cdb_get_n(CONFD_NARGS(__VA_ARGS__), sock, v, __VA_ARGS__)

/// Reads a string leaf into `buf`, NUL-terminated and cut to `n - 1` bytes.
int cdb_get_str_n(int nargs, int sock, char* buf, int n, const char* fmt, ...);
#define cdb_get_str(sock, buf, n, ...) cdb_get_str_n(CONFD_NARGS(__VA_ARGS__), sock, buf, n, __VA_ARGS__)

/// Reads a binary leaf into a new buffer, released by the caller with free().
int cdb_get_binary_n(int nargs, int sock, unsigned char** data, int* length, const char* fmt, ...);
#define cdb_get_binary(sock, data, length, ...) \
  cdb_get_binary_n(CONFD_NARGS(__VA_ARGS__), sock, data, length, __VA_ARGS__)

int cdb_get_int32_n(int nargs, int sock, int32_t* v, const char* fmt, ...);
#define cdb_get_int32(sock, v, ...) cdb_get_int32_n(CONFD_NARGS(__VA_ARGS__), sock, v, __VA_ARGS__)

int cdb_get_ipv4_n(int nargs, int sock, struct in_addr* v, const char* fmt, ...);
#define cdb_get_ipv4(sock, v, ...) cdb_get_ipv4_n(CONFD_NARGS(__VA_ARGS__), sock, v, __VA_ARGS__)

/* ---------------------------------------------------------- subscriptions -- */

/// Subscribes to changes at or below the path; `*spoint` gets the point (greater than 0). Lower priorities run first.
int cdb_subscribe_n(int nargs, int sock, int priority, unsigned int ns_hash, int* spoint, const char* fmt, ...);
#define cdb_subscribe(sock, priority, ns_hash, spoint, ...) \
  cdb_subscribe_n(CONFD_NARGS(__VA_ARGS__), sock, priority, ns_hash, spoint, __VA_ARGS__)

/// Ends the subscription phase; messages arrive from now on.
int cdb_subscribe_done(int sock);

/// Reads one message: the triggered points of one priority, at most as many as there are points on the socket.
int cdb_read_subscription_socket(int sock, int points[], int* count);

/// Acknowledges the message read last.
int cdb_sync_subscription_socket(int sock, enum cdb_subscription_sync_type type);

/* --------------------------------------------------------- difference walk -- */

enum confd_iter_op {
  MOP_CREATED = 1,
  MOP_DELETED = 2,
  MOP_MODIFIED = 3,
  MOP_VALUE_SET = 4,
  MOP_MOVED_AFTER = 5,
  MOP_ATTR_SET = 6
};

enum confd_iter_ret {
  ITER_STOP = 1,     /**< ends the walk, which then returns CONFD_OK */
  ITER_RECURSE = 2,  /**< go down */
  ITER_CONTINUE = 3, /**< the next sibling is next */
  ITER_UP = 4        /**< the parent's next sibling is next */
};

enum cdb_iter_flags {
  ITER_WANT_PREV = 1, /**< old values too */
  ITER_WANT_ANCESTOR_DELETE = 2,
  ITER_WANT_SCHEMA_ORDER = 16
};

typedef enum confd_iter_ret (*cdb_iter_fn)(confd_hkeypath_t* kp, enum confd_iter_op op, confd_value_t* oldv,
                                           confd_value_t* newv, void* state);

/// Walks the net difference of the commit being handled below the path of `subid`, in schema order and key order.
int cdb_diff_iterate(int sock, int subid, cdb_iter_fn iter, int flags, void* state);

#ifdef __cplusplus
}
#endif
