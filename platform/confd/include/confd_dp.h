/// @file confd_dp.h
/// Data-provider side: a daemon context with a control and worker sockets, callbacks, and replies.
///
/// A reply on a context whose request was answered, whose transaction has finished or timed out, or whose connection
/// is gone returns CONFD_ERR with a text in confd_lasterr(), touches no freed memory and answers no other request.
#pragma once

#include "confd_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum confd_sock_type { CONTROL_SOCKET = 1, WORKER_SOCKET = 2 };

struct confd_daemon_internal;
struct confd_trans_internal;

struct confd_daemon_ctx {
  void* d_opaque;   /**< the application's user data; the library never touches it */
  const char* name; /**< owned by the library */
  struct confd_daemon_internal* internal;
};

struct confd_trans_ctx {
  struct confd_daemon_ctx* dx;
  int thandle;    /**< the server's number of the transaction */
  void* t_opaque; /**< the application's; never touched by the library */
  struct confd_trans_internal* internal;
};

/// Callbacks return CONFD_OK, CONFD_ERR, or (data callbacks) CONFD_DELAYED_RESPONSE. A null entry is not called.
struct confd_trans_cbs {
  int (*init)(struct confd_trans_ctx* tctx);
  int (*finish)(struct confd_trans_ctx* tctx);
};

#define MAX_CALLPOINT_LEN 64

/// Lists are read with get_next and get_object, and both are needed. The members marked as not supported must be zero:
/// confd_register_data_cb() refuses a structure in which one is set.
struct confd_data_cbs {
  char callpoint[MAX_CALLPOINT_LEN];
  int (*exists_optional)(struct confd_trans_ctx* tctx, confd_hkeypath_t* kp); /**< not supported */
  int (*get_elem)(struct confd_trans_ctx* tctx, confd_hkeypath_t* kp);        /**< not supported */
  int (*get_next)(struct confd_trans_ctx* tctx, confd_hkeypath_t* kp, long next);
  int (*num_instances)(struct confd_trans_ctx* tctx, confd_hkeypath_t* kp); /**< not supported */
  int (*get_object)(struct confd_trans_ctx* tctx, confd_hkeypath_t* kp);
  void* cb_opaque; /**< not supported */
  int flags;       /**< not supported */
};

/// A new daemon context, owned by the caller until confd_release_daemon(). Null when there is no memory.
struct confd_daemon_ctx* confd_init_daemon(const char* name);
/// Releases the context and every transaction context under it. Does not close the application's sockets.
void confd_release_daemon(struct confd_daemon_ctx* dctx);

/// Connects `sock`, an unconnected SOCK_SEQPACKET socket of the application's. The control socket comes first.
int confd_connect(struct confd_daemon_ctx* dctx, int sock, enum confd_sock_type type, const struct sockaddr* srv,
                  int srv_size);

/// The structures are copied.
int confd_register_trans_cb(struct confd_daemon_ctx* dctx, const struct confd_trans_cbs* cbs);
int confd_register_data_cb(struct confd_daemon_ctx* dctx, const struct confd_data_cbs* cbs);
int confd_register_done(struct confd_daemon_ctx* dctx);

/// Reads one message from a control or worker socket and runs the callbacks that it is for: that of a transaction, or
/// those of a page of rows, one after the other: get_next, get_object of that row, get_next, and so on. A page ends
/// after about ten milliseconds, and with an answer that was delayed. CONFD_EOF when the peer is gone.
int confd_fd_ready(struct confd_daemon_ctx* dctx, int fd);

/// Assigns the transaction to a worker socket; called from the `init` callback.
int confd_trans_set_fd(struct confd_trans_ctx* tctx, int sock);

/// Answers get_next: `n` key values and the `next` to be handed to the following call. The end of the list is a null
/// `keys`, `n` of -1 and `next` of -1.
int confd_data_reply_next_key(struct confd_trans_ctx* tctx, const confd_value_t* keys, int n, long next);
/// Answers get_object with `n` tagged values.
int confd_data_reply_tag_value_array(struct confd_trans_ctx* tctx, const confd_tag_value_t* values, int n);
/// Answers get_object: there is no such object. The row is left out.
int confd_data_reply_not_found(struct confd_trans_ctx* tctx);
/// Answers any open request with an error text for the northbound client.
int confd_delayed_reply_error(struct confd_trans_ctx* tctx, const char* text);

#ifdef __cplusplus
}
#endif
