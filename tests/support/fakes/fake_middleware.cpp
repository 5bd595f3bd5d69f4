#include "fakes/fake_middleware.h"

#include <cstdio>

#include "fakes/fake_zlog.h"
#include "fakes/script.h"
#include "fakes/trace.h"

struct qmmw {
  int unused;
};
struct qmmw_log {
  int unused;
};
struct qmmw_trace {
  int unused;
};

namespace fakes {
namespace {

void Add(std::string line) { TheTrace().Add(Kind::kMiddleware, std::move(line)); }

/// What a line ends with when a call is given another handle than qmmw_init() gave.
const char* Foreign(const qmmw_t* mw) { return mw == TheHandle() ? "" : " on a foreign handle"; }

qmmw_log the_log{};
const char* Foreign(const qmmw_log_t* log) { return log == &the_log ? "" : " on a foreign log"; }

std::string FormatArgs(const char* format, va_list args) {
  char text[1024];
  std::vsnprintf(text, sizeof text, format, args);
  return text;
}

}  // namespace

bool Middleware::Dispatch(int fd) {
  const auto found = fds.find(fd);
  if (found == fds.end()) return false;
  const Registration registration = found->second;
  registration.callback(TheHandle(), fd, registration.ctx);
  return true;
}

Middleware& TheMiddleware() {
  static Middleware* const middleware = new Middleware;
  return *middleware;
}

qmmw_t* TheHandle() {
  static qmmw handle{};
  return &handle;
}

}  // namespace fakes

qmmw_t* qmmw_init(const char* name) {
  fakes::Add(std::string("qmmw_init ") + name);
  return fakes::TheScript().Find("qmmw_init") ? nullptr : fakes::TheHandle();
}

void qmmw_finish(qmmw_t** mw) {
  fakes::Add(std::string("qmmw_finish") + fakes::Foreign(*mw));
  fakes::TheMiddleware().finished = mw;
  *mw = nullptr;
}

int qmmw_loop_while(qmmw_t* mw, bool* running) {
  fakes::Add(std::string("qmmw_loop_while") + fakes::Foreign(mw));
  fakes::TheMiddleware().running = running;
  fakes::TheMiddleware().running_at_start = *running;
  for (const auto& work : fakes::TheMiddleware().loop_work) {
    if (*running) work();
  }
  return fakes::ScriptedResult("qmmw_loop_while");
}

int qmmw_fd_register(qmmw_t* mw, int fd, void* ctx, qmmw_fd_cb cb) {
  fakes::Add(fakes::Format("qmmw_fd_register %d%s", fd, fakes::Foreign(mw)));
  fakes::TheMiddleware().fds[fd] = {ctx, cb};
  return fakes::ScriptedResult("qmmw_fd_register");
}

int qmmw_fd_deregister(qmmw_t* mw, int fd) {
  fakes::Add(fakes::Format("qmmw_fd_deregister %d%s", fd, fakes::Foreign(mw)));
  return fakes::TheMiddleware().fds.erase(fd) == 1 ? 0 : -1;
}

qmmw_log_t* qmmw_log_init(qmmw_t* mw, int id, int sub_id, const char* name) {
  fakes::Add(fakes::Format("qmmw_log_init %d %d %s%s", id, sub_id, name, fakes::Foreign(mw)));
  return fakes::TheScript().Find("qmmw_log_init") ? nullptr : &fakes::the_log;
}

void qmmw_log_finish(qmmw_log_t** log) {
  fakes::Add(std::string("qmmw_log_finish") + fakes::Foreign(*log));
  *log = nullptr;
}

void qmmw_vlog(qmmw_log_t* log, const char* format, va_list args) {
  fakes::Add("qmmw_vlog " + fakes::FormatArgs(format, args) + fakes::Foreign(log));
}

void qmmw_vlog_debug(qmmw_log_t* log, const char* format, va_list args) {
  fakes::Add("qmmw_vlog_debug " + fakes::FormatArgs(format, args) + fakes::Foreign(log));
}

qmmw_trace_t* qmmw_trace_init(qmmw_t* mw, const char* name) {
  static qmmw_trace trace{};
  fakes::Add(std::string("qmmw_trace_init ") + name + fakes::Foreign(mw));
  return fakes::TheScript().Find("qmmw_trace_init") ? nullptr : &trace;
}

zlog_category_t* qmmw_trace_register_category(const char* name) {
  fakes::Add(std::string("qmmw_trace_register_category ") + name);
  return fakes::TheCategory();
}

void qmmw_print_backtrace() {
  fakes::TheTrace().Add(fakes::Kind::kFault, "backtrace");
  if (fakes::TheMiddleware().at_backtrace) fakes::TheMiddleware().at_backtrace();
}

void qmmw_gen_fault(int severity, const char* function, const char* file, int line, const char* message) {
  fakes::TheMiddleware().faults.push_back({severity, function, file, line, message});
  fakes::TheTrace().Add(fakes::Kind::kFault, fakes::Format("fault %d %s: %s", severity, function, message));
}
