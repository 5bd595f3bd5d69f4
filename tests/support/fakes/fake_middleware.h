/// @file fake_middleware.h
/// Middleware whose loop a test pumps by hand, with recorders of faults and log texts.
///
/// Scripted answers: "qmmw_init", "qmmw_log_init" and "qmmw_trace_init" give null when scripted to anything;
/// "qmmw_loop_while" and "qmmw_fd_register" return the scripted number.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "qmmw.h"

namespace fakes {

struct Fault {
  int severity;
  std::string function;
  std::string file;
  int line;
  std::string message;
};

class Middleware {
 public:
  struct Registration {
    void* ctx;
    qmmw_fd_cb callback;
  };

  /// Calls the callback of a registered descriptor, as the loop would. False when it is not registered.
  bool Dispatch(int fd);

  std::map<int, Registration> fds;               ///< in the loop now
  std::vector<Fault> faults;                     ///< in the order they were raised
  std::vector<std::function<void()>> loop_work;  ///< run one after the other by the next qmmw_loop_while()
  std::function<void()> at_backtrace;            ///< run by qmmw_print_backtrace(), if set
  const bool* running = nullptr;                 ///< the flag that qmmw_loop_while() was given
  bool running_at_start = false;                 ///< what it was when qmmw_loop_while() was entered
  qmmw_t* const* finished = nullptr;             ///< the place of the handle that qmmw_finish() was given
};

Middleware& TheMiddleware();
/// The handle that qmmw_init() gives.
qmmw_t* TheHandle();

}  // namespace fakes
