#include "qmmw.h"

#include <execinfo.h>
#include <sys/epoll.h>
#include <systemd/sd-daemon.h>

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "process.h"
#include "qmmw_internal.h"

struct qmmw {
  std::unique_ptr<common::EventLoop> loop;
  std::unordered_map<int, std::function<bool()>> guards;  ///< by descriptor
  bool announced = false;
};

namespace {

bool Allowed(const qmmw& mw, int fd) {
  const auto it = mw.guards.find(fd);
  if (it == mw.guards.end()) return true;
  const auto guard = it->second;  // it may remove itself
  return guard();
}

}  // namespace

common::EventLoop& qmmw_event_loop(qmmw_t* mw) { return *mw->loop; }

void qmmw_fd_set_guard(qmmw_t* mw, int fd, std::function<bool()> guard) {
  if (guard) {
    mw->guards.insert_or_assign(fd, std::move(guard));
  } else {
    mw->guards.erase(fd);
  }
}

qmmw_t* qmmw_init(const char* name) {
  if (name == nullptr || *name == '\0') return nullptr;
  auto mw = std::make_unique<qmmw>();
  mw->loop = common::EventLoop::Create(true);
  if (!mw->loop) return nullptr;
  middleware::SetProcessName(name);
  // The first backtrace(3) of a process loads a library: now, rather than when memory may be damaged.
  void* frame = nullptr;
  ::backtrace(&frame, 1);
  return mw.release();
}

void qmmw_finish(qmmw_t** mw) {
  if (mw == nullptr) return;
  const std::unique_ptr<qmmw> owned{*mw};
  *mw = nullptr;
}

int qmmw_loop_while(qmmw_t* mw, bool* running) {
  if (mw == nullptr || running == nullptr) return -1;
  if (!mw->announced && !mw->loop->Stopped()) {
    mw->announced = true;
    ::sd_notify(0, "READY=1");  // without a supervisor this does nothing
  }
  const int error = mw->loop->Run(running);  // `mw` may be gone when it returns
  ::sd_notify(0, "STOPPING=1");
  return error;
}

int qmmw_fd_register(qmmw_t* mw, int fd, void* ctx, qmmw_fd_cb cb) {
  if (mw == nullptr || cb == nullptr) return -1;
  const auto dispatch = [mw, fd, ctx, cb](uint32_t) {
    if (Allowed(*mw, fd)) cb(mw, fd, ctx);
  };
  return mw->loop->AddFd(fd, EPOLLIN, dispatch) ? 0 : -1;
}

int qmmw_fd_deregister(qmmw_t* mw, int fd) {
  if (mw == nullptr) return -1;
  return mw->loop->RemoveFd(fd) ? 0 : -1;
}
