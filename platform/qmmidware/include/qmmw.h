/// @file qmmw.h
/// Platform middleware: process registration, the event loop, log and trace set-up, backtraces and faults.
/// Loop thread only, except qmmw_gen_fault() and qmmw_print_backtrace().
#pragma once

#include <stdarg.h>
#include <stdint.h>

#include "zlog.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qmmw qmmw_t;
typedef struct qmmw_log qmmw_log_t;
typedef struct qmmw_trace qmmw_trace_t;

typedef void (*qmmw_fd_cb)(qmmw_t* mw, int fd, void* ctx);

/// Registers the process under `name` and makes its loop. Null on failure. Released with qmmw_finish().
qmmw_t* qmmw_init(const char* name);
/// Releases the handle and makes `*mw` null. Safe inside a callback of the loop. A null handle is ignored.
void qmmw_finish(qmmw_t** mw);

/// Dispatches registered descriptors while `*running` is true. Returns 0 when the flag goes false, on SIGTERM or on
/// SIGINT; non-zero when the loop itself fails. Announces readiness to the service supervisor where there is one.
int qmmw_loop_while(qmmw_t* mw, bool* running);

/// Calls `cb` whenever `fd` is readable or hung up. Descriptors that are ready together are dispatched in the order of
/// their registration. The descriptor stays the caller's. 0, or -1 when it is invalid or registered already.
int qmmw_fd_register(qmmw_t* mw, int fd, void* ctx, qmmw_fd_cb cb);
/// Takes the descriptor out of the loop; one that is ready but not dispatched yet is skipped. 0, or -1 if unknown.
int qmmw_fd_deregister(qmmw_t* mw, int fd);

/// Process log, identified by the two numbers. Null on failure. Released with qmmw_log_finish().
qmmw_log_t* qmmw_log_init(qmmw_t* mw, int id, int sub_id, const char* name);
/// Releases the handle and makes `*log` null.
void qmmw_log_finish(qmmw_log_t** log);
void qmmw_vlog(qmmw_log_t* log, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
void qmmw_vlog_debug(qmmw_log_t* log, const char* format, va_list args) __attribute__((format(printf, 2, 0)));

/// Sets up tracing for the process. The result is owned by the middleware. Null on failure.
qmmw_trace_t* qmmw_trace_init(qmmw_t* mw, const char* name);
/// The trace category of that name, owned by the middleware.
zlog_category_t* qmmw_trace_register_category(const char* name);

/// Writes the caller's stack to standard error.
void qmmw_print_backtrace(void);

/// Raises a fault: severity 1 is fatal (the caller ends the process), 0 is not. One structured record goes to the
/// journal when there is one, else one line to standard error, and always to the element's fault file.
void qmmw_gen_fault(int severity, const char* function, const char* file, int line, const char* message);

#ifdef __cplusplus
}
#endif
