#include "qm_confd_interface.h"

#include <sys/epoll.h>

#include <algorithm>
#include <chrono>
#include <string_view>
#include <utility>

#include "connection.h"
#include "qmmw_internal.h"
#include "session_cache.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kFirstDelay{10};
constexpr milliseconds kLongestDelay{1000};
constexpr int kInfo = 40;  // zlog's own levels
constexpr int kWarning = 80;

}  // namespace

/// The connection's life. Every step that calls the application may end with this object gone: `alive_` tells.
class QmConfdInterface::Impl final {
 public:
  Impl(QmConfdInterface* owner, std::string name, qmmw_t* mw, ELEM_CONFD_PHASE_ET phase)
      : owner_{owner}, name_{std::move(name)}, mw_{mw}, phase_{phase}, log_{qmmw_trace_register_category("qmconfd")} {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  ~Impl() {
    if (retry_ != 0) Loop().CancelTimer(retry_);
    Close();
  }

  void Start() {
    if (started_ || mw_ == nullptr) return;
    started_ = true;
    ConnectAfter(milliseconds{0});
  }

  /// Not at once: the caller may be inside AppConnect(), or inside a callback of the very connection.
  void ResetSoon() {
    if (!connection_) return;
    Loop().Defer([this, alive = std::weak_ptr<bool>(alive_), connection = std::weak_ptr(connection_)] {
      if (!alive.expired() && !connection.expired() && connection.lock() == connection_)
        Lose("reset by the application");
    });
  }

  [[nodiscard]] const qmconfd::Connection* connection() const { return connection_.get(); }
  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] qmmw_t* mw() const { return mw_; }
  [[nodiscard]] bool initialized() const { return initialized_; }

 private:
  common::EventLoop& Loop() { return qmmw_event_loop(mw_); }

  void Log(int level, const std::string& text, int line = __builtin_LINE()) {
    constexpr std::string_view kFile = __FILE__;
    constexpr std::string_view kFunction = "QmConfdInterface";
    zlog(log_, kFile.data(), kFile.size(), kFunction.data(), kFunction.size(), line, level, "%s: %s", name_.c_str(),
         text.c_str());
  }

  void ConnectAfter(milliseconds delay) {
    retry_ = Loop().AddTimer(delay, [this] {
      retry_ = 0;
      Connect();
    });
  }

  /// Waits twice as long as last time, so that neither a missing server nor one that drops us at once is hammered.
  void ConnectLater() {
    ConnectAfter(delay_);
    delay_ = std::min(delay_ * 2, kLongestDelay);
  }

  void Connect() {
    auto opened = qmconfd::Connection::Open(name_);
    if (!opened) {
      if (!std::exchange(failing_, true)) Log(kWarning, "no configuration server yet: " + opened.error().Text());
      ConnectLater();
      return;
    }
    connection_ = std::move(opened).value();
    if (!AddToLoop()) {
      Close();
      ConnectLater();
      return;
    }
    failing_ = false;
    connected_at_ = Clock::now();
    Log(kInfo, "connected to the configuration server");
    const std::weak_ptr<bool> alive = alive_;
    initialized_ = true;
    owner_->AppConnect();
    if (!alive.expired()) owner_->AppConnectPhase(phase_);
  }

  bool AddToLoop() {
    const auto serve = [this](int fd) { return [this, fd](uint32_t) { Serve(fd); }; };
    const auto ended = [this](uint32_t) { Lose("the server closed the subscription connection"); };
    // Before AppConnect(): when connections end together, these are dispatched before what the application registers.
    qmmw_fd_set_guard(mw_, connection_->subscription(), [this] { return StillConnected(); });
    return Loop().AddFd(connection_->control(), EPOLLIN, serve(connection_->control())) &&
           Loop().AddFd(connection_->worker(), EPOLLIN, serve(connection_->worker())) &&
           Loop().AddFd(connection_->subscription_watch(), EPOLLRDHUP, ended);
  }

  /// Right before the application reads the subscription socket, where it would take the end for a failure.
  bool StillConnected() {
    if (!connection_->HungUp()) return true;
    Lose("the server closed the connection");
    return false;
  }

  void Serve(int fd) {
    const std::weak_ptr<bool> alive = alive_;
    std::shared_ptr<qmconfd::Connection> serving = connection_;  // the callback may destroy this object
    const int result = ::confd_fd_ready(serving->daemon(), fd);
    if (alive.expired() || result == CONFD_OK) return;
    const char* which = fd == serving->control() ? "control" : "worker";
    serving.reset();
    Lose(std::string(which) + " connection: " + (result == CONFD_EOF ? "closed by the server" : ::confd_lasterr()));
  }

  void Lose(const std::string& reason) {
    if (!initialized_) return;
    Log(kWarning, "lost the configuration server: " + reason);
    const std::weak_ptr<bool> alive = alive_;
    owner_->AppDisconnect();
    if (alive.expired()) return;
    initialized_ = false;
    Close();
    if (Clock::now() - connected_at_ >= kLongestDelay) delay_ = kFirstDelay;
    ConnectLater();
  }

  void Close() {
    qmconfd::SessionCache::Instance().Clear();
    if (!connection_) return;
    qmmw_fd_set_guard(mw_, connection_->subscription(), nullptr);
    qmmw_fd_deregister(mw_, connection_->subscription());  // unless the application has done it
    for (const int fd : {connection_->control(), connection_->worker(), connection_->subscription_watch()}) {
      Loop().RemoveFd(fd);
    }
    connection_.reset();
  }

  QmConfdInterface* const owner_;
  const std::string name_;
  qmmw_t* const mw_;
  const ELEM_CONFD_PHASE_ET phase_;
  zlog_category_t* const log_;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

  std::shared_ptr<qmconfd::Connection> connection_;  ///< shared with the callback being served
  Clock::time_point connected_at_;
  common::EventLoop::TimerId retry_ = 0;
  milliseconds delay_ = kFirstDelay;
  bool started_ = false;
  bool failing_ = false;
  bool initialized_ = false;
};

QmConfdInterface::QmConfdInterface(bool /*validation*/, std::string name, qmmw_t* mw, ELEM_CONFD_PHASE_ET phase,
                                   int /*flags*/)
    : impl_{std::make_unique<Impl>(this, std::move(name), mw, phase)} {}

QmConfdInterface::~QmConfdInterface() = default;

void QmConfdInterface::AppConnectPhase(ELEM_CONFD_PHASE_ET /*phase*/) {}

void QmConfdInterface::ResetConnection() { impl_->ResetSoon(); }

int QmConfdInterface::Init(int /*flags*/) {
  impl_->Start();
  return 0;
}

confd_daemon_ctx* QmConfdInterface::DaemonContext() const {
  return impl_->connection() != nullptr ? impl_->connection()->daemon() : nullptr;
}

int QmConfdInterface::SubscrSocket() const {
  return impl_->connection() != nullptr ? impl_->connection()->subscription() : -1;
}

int QmConfdInterface::WorkerSocket() const {
  return impl_->connection() != nullptr ? impl_->connection()->worker() : -1;
}

qmmw_t* QmConfdInterface::Middleware() const { return impl_->mw(); }

const std::string& QmConfdInterface::Name() const { return impl_->name(); }

bool QmConfdInterface::IsInitialized() const { return impl_->initialized(); }
