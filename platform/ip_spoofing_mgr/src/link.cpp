#include "link.h"

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/paths.h"
#include "common/unix_socket.h"

namespace ip_spoofing_mgr {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kFirstBackOff{20};
constexpr milliseconds kLastBackOff{1000};
constexpr milliseconds kWelcomeTime{5000};
constexpr milliseconds kSignalCheck{50};

uint64_t NewInstance() {
  uint64_t instance = 0;
  if (::getrandom(&instance, sizeof instance, 0) != static_cast<ssize_t>(sizeof instance)) {
    instance = static_cast<uint64_t>(steady_clock::now().time_since_epoch().count());
  }
  return instance ^ (static_cast<uint64_t>(::getpid()) << 32U);
}

/// A connection to the manager's socket that is made at once or not at all: a full backlog is a failure too.
common::UniqueFd ConnectNow() {
  const auto address = common::UnixAddress(common::MgrSocketPath());
  if (!address) return {};
  common::UniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (fd && ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address.value()), sizeof(sockaddr_un)) != 0)
    return {};
  return fd;
}

std::string ProcessName() { return program_invocation_short_name; }

}  // namespace

Link::Link(common::EventLoop& loop, Handlers handlers)
    : loop_{loop}, handlers_{std::move(handlers)}, instance_{NewInstance()}, back_off_{kFirstBackOff} {}

bool Link::ConnectAndWait(milliseconds limit) {
  if (up_) return true;
  Disconnect();
  const auto deadline = steady_clock::now() + limit;
  milliseconds pause = kFirstBackOff;
  while (!up_ && steady_clock::now() < deadline && !loop_.Stopped()) {
    if (connection_ || Start()) {
      connection_->Pump(kSignalCheck);
      if (connection_) continue;
    }
    if (!up_) ::poll(nullptr, 0, static_cast<int>(pause.count()));
    pause = std::min(2 * pause, kSignalCheck);
  }
  if (!up_) {
    Disconnect();
  } else {
    wanted_ = true;
  }
  return up_;
}

void Link::Disconnect() {
  wanted_ = false;
  timer_.Reset();
  connection_.reset();
  back_off_ = kFirstBackOff;
  if (std::exchange(up_, false)) handlers_.on_down();
}

void Link::Send(wire::FrameType type, std::string_view payload) {
  if (up_) connection_->Send(type, payload);
}

bool Link::Congested() const noexcept { return connection_ && connection_->Queued() >= wire::Connection::kLowWater; }

bool Link::Start() {
  common::UniqueFd socket = ConnectNow();
  if (!socket) return false;
  connection_ = std::make_unique<wire::Connection>(
      loop_, std::move(socket),
      wire::Connection::Handlers{
          .on_frame = [this](wire::FrameType type, std::string_view payload) { OnFrame(type, payload); },
          .on_closed = [this](const wire::Connection::Closed& why) { OnClosed(why); },
          .on_drained = [this] { handlers_.on_drained(); },
      });
  connection_->Send(wire::FrameType::kHello,
                    wire::EncodeHello({.instance = instance_, .take_over = take_over_, .name = ProcessName()}));
  return true;
}

void Link::OnFrame(wire::FrameType type, std::string_view payload) {
  switch (type) {
    case wire::FrameType::kWelcome:
      if (up_) return;
      up_ = true;
      back_off_ = kFirstBackOff;
      take_over_ = wire::TakeOver::kYes;
      last_report_.clear();
      timer_.Reset();
      return handlers_.on_up();
    case wire::FrameType::kError: {
      const auto failure = wire::ParseFailure(payload);
      if (!failure) return;
      if (failure->code == wire::ErrorCode::kSuperseded || failure->code == wire::ErrorCode::kBusy) {
        take_over_ = wire::TakeOver::kNo;
      }
      back_off_ = kLastBackOff;
      return Report(failure->text);
    }
    default:
      if (up_) handlers_.on_frame(type, payload);
  }
}

void Link::OnClosed(const wire::Connection::Closed& why) {
  if (why.reason != common::CloseReason::kPeerClosed) Report(why.text);
  connection_.reset();
  const bool was_up = std::exchange(up_, false);
  if (wanted_) Retry();
  if (was_up) handlers_.on_down();
}

void Link::Retry() {
  timer_ = loop_.After(back_off_, [this] {
    if (!Start()) return Retry();
    timer_ = loop_.After(kWelcomeTime, [this] {
      connection_.reset();
      Report("no answer to the hello");
      Retry();
    });
  });
  back_off_ = std::min(2 * back_off_, kLastBackOff);
}

void Link::Report(const std::string& text) {
  if (text == last_report_) return;  // the same at every attempt
  last_report_ = text;
  std::fprintf(stderr, "%s: ip-spoofing-mgr: %s\n", program_invocation_short_name, text.c_str());
}

}  // namespace ip_spoofing_mgr
