#include "scripted_manager.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "common/paths.h"
#include "common/unix_socket.h"
#include "request_text.h"

namespace ip_spoofing_mgr {

ScriptedManager::ScriptedManager() : wake_{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)} {
  auto listener = common::ListenUnix(common::MgrSocketPath(), SOCK_STREAM, 0600);
  if (!listener) std::abort();
  listener_ = std::move(listener).value();
  thread_ = std::thread([this] { Run(); });
}

ScriptedManager::~ScriptedManager() {
  Post([this] { running_ = false; });
  thread_.join();
  ::unlink(common::MgrSocketPath().c_str());
}

void ScriptedManager::Run() {
  loop_ = common::EventLoop::Create(false);
  const common::FdWatch wake = loop_->Watch(wake_.get(), EPOLLIN, [this](uint32_t) {
    uint64_t count = 0;
    (void)!::read(wake_.get(), &count, sizeof count);
    std::deque<std::function<void()>> tasks;
    {
      const std::lock_guard lock{mutex_};
      tasks.swap(tasks_);
    }
    for (auto& task : tasks) task();
  });
  const common::FdWatch accept = loop_->Watch(listener_.get(), EPOLLIN, [this](uint32_t) { Accept(); });
  while (running_) loop_->RunOnce(std::chrono::milliseconds{-1});
  connections_.clear();
  loop_.reset();
}

void ScriptedManager::Post(std::function<void()> task) {
  {
    const std::lock_guard lock{mutex_};
    tasks_.push_back(std::move(task));
  }
  const uint64_t one = 1;
  (void)!::write(wake_.get(), &one, sizeof one);
}

void ScriptedManager::Accept() {
  auto socket = common::AcceptUnix(listener_.get());
  if (!socket || !socket.value()) return;
  Hear("connect");
  auto& slot = connections_.emplace_back();
  slot = std::make_unique<wire::Connection>(
      *loop_, std::move(socket).value(),
      wire::Connection::Handlers{
          .on_frame = [this, &slot](wire::FrameType type,
                                    std::string_view payload) { OnFrame(slot.get(), type, payload); },
          .on_closed = [this](const auto&) { Hear("gone"); },
          .on_drained = {},
      });
}

void ScriptedManager::OnFrame(wire::Connection* connection, wire::FrameType type, std::string_view payload) {
  if (type == wire::FrameType::kHello) {
    const auto hello = wire::ParseHello(payload);
    Hear(hello->take_over == wire::TakeOver::kYes ? "hello" : "hello gives way");
    if (welcomes) connection->Send(wire::FrameType::kWelcome, {});
  } else if (type == wire::FrameType::kBatch) {
    const auto part = wire::ParseBatchPart(payload);
    Hear(BatchText(*part));
    if (acknowledges && part->last) connection->Send(wire::FrameType::kAck, wire::EncodeSequence(part->sequence));
  } else if (type == wire::FrameType::kListRequest) {
    Hear("list " + std::to_string(*wire::ParseId(payload)));
  }
}

void ScriptedManager::Hear(const std::string& what) {
  const std::lock_guard lock{mutex_};
  heard_.push_back(what);
}

/// Waits until the thread has handled what was ready when this was called.
void ScriptedManager::Turn() {
  std::promise<void> done;
  Post([&] { done.set_value(); });
  done.get_future().wait();
}

std::vector<std::string> ScriptedManager::Take() {
  Turn();
  Turn();  // the first one may have begun before the last frame came
  Turn();
  const std::lock_guard lock{mutex_};
  return std::exchange(heard_, {});
}

bool ScriptedManager::HasHeard(const std::string& what) const {
  const std::lock_guard lock{mutex_};
  return std::find(heard_.begin(), heard_.end(), what) != heard_.end();
}

void ScriptedManager::Send(wire::FrameType type, const std::string& payload) {
  Post([this, type, payload] { connections_.back()->Send(type, payload); });
}

void ScriptedManager::SendRows(uint32_t id, uint32_t rows) {
  std::vector<AllowedIpStatusEntry> part;
  for (uint32_t i = 0; i < rows; ++i) {
    AllowedIpStatusEntry row{};
    row.all_vlan = static_cast<uint16_t>(i);
    row.state = i;
    part.push_back(row);
    if (part.size() == wire::kRowsPerFrame)
      Send(wire::FrameType::kListRows, wire::EncodeRows(id, std::exchange(part, {})));
  }
  if (!part.empty()) Send(wire::FrameType::kListRows, wire::EncodeRows(id, part));
  Send(wire::FrameType::kListEnd, wire::EncodeListEnd({id, rows}));
}

void ScriptedManager::Stall() {
  resume_ = {};
  std::promise<void> stalled;
  Post([&stalled, resumed = resume_.get_future().share()] {
    stalled.set_value();
    resumed.wait();
  });
  stalled.get_future().wait();
}

void ScriptedManager::Resume() { resume_.set_value(); }

void ScriptedManager::Drop() {
  std::promise<void> done;
  Post([&] {
    connections_.back().reset();
    done.set_value();
  });
  done.get_future().wait();
}

}  // namespace ip_spoofing_mgr
