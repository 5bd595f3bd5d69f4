#include "interfaces/link_watcher.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <spdlog/spdlog.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

namespace mgr {
namespace {

constexpr int kReceiveBuffer = 1 << 20;
constexpr size_t kMessageBuffer = 64 << 10;
constexpr int kMessagesPerTurn = 256;
constexpr int kDumpAttempts = 5;

}  // namespace

common::Result<std::unique_ptr<LinkWatcher>> LinkWatcher::Open(common::EventLoop& loop, OnChanged on_changed) {
  Socket socket{mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC)};
  if (!socket) return common::SystemError("open", "rtnetlink", errno);
  const int fd = mnl_socket_get_fd(socket.get());
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer) != 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  }
  if (mnl_socket_bind(socket.get(), RTMGRP_LINK, MNL_SOCKET_AUTOPID) < 0) {
    return common::SystemError("bind", "rtnetlink", errno);
  }
  std::unique_ptr<LinkWatcher> watcher(new LinkWatcher(std::move(on_changed), std::move(socket)));
  if (auto status = watcher->Dump(); !status) return status.error();
  watcher->changed_.clear();
  watcher->watch_ = loop.Watch(fd, EPOLLIN, [w = watcher.get()](uint32_t) { w->OnReadable(); });
  return watcher;
}

LinkWatcher::LinkWatcher(OnChanged on_changed, Socket socket)
    : on_changed_{std::move(on_changed)}, socket_{std::move(socket)} {}

LinkWatcher::~LinkWatcher() = default;

uint32_t LinkWatcher::IndexOf(const std::string& name) const {
  const auto it = index_of_.find(name);
  return it == index_of_.end() ? 0 : it->second;
}

std::string LinkWatcher::MainNameOf(const std::string& name) const {
  const auto it = index_of_alternative_.find(name);
  if (it == index_of_alternative_.end()) return "";
  const auto names = names_of_.find(it->second);
  return names == names_of_.end() ? "" : names->second.main;
}

// On a socket of its own, so that an interrupted dump can be begun again. What happens meanwhile waits on the other
// one.
common::Status LinkWatcher::Dump() {
  for (int i = 0; i < kDumpAttempts; ++i) {
    seen_.clear();
    const int error = DumpOnce();
    if (error == EINTR) continue;
    if (error != 0) return common::SystemError("list interfaces", "", error);
    std::vector<uint32_t> gone;
    for (const auto& [ifindex, names] : names_of_) {
      if (!seen_.contains(ifindex)) gone.push_back(ifindex);
    }
    for (const uint32_t ifindex : gone) Gone(ifindex);
    return common::Ok();
  }
  return common::SystemError("list interfaces", "", EINTR);
}

int LinkWatcher::DumpOnce() {
  const Socket socket{mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC)};
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) return errno;
  std::array<char, kMessageBuffer> buffer{};
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETLINK;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = 1;
  static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)))->ifi_family = AF_UNSPEC;
  if (mnl_socket_sendto(socket.get(), request, request->nlmsg_len) < 0) return errno;
  for (;;) {
    const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
    if (size < 0) return errno;
    const int result =
        mnl_cb_run(buffer.data(), static_cast<size_t>(size), 1, mnl_socket_get_portid(socket.get()), OnMessage, this);
    if (result < 0) return errno;
    if (result == MNL_CB_STOP) return 0;
  }
}

void LinkWatcher::OnReadable() {
  std::array<char, kMessageBuffer> buffer{};
  for (int i = 0; i < kMessagesPerTurn; ++i) {
    const ssize_t size = ::recv(mnl_socket_get_fd(socket_.get()), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == ENOBUFS) {  // messages were lost
      if (const auto status = Dump(); !status) spdlog::error("{}", status.error().Text());
      continue;
    }
    if (size <= 0) break;
    mnl_cb_run(buffer.data(), static_cast<size_t>(size), 0, 0, OnMessage, this);
  }
  if (changed_.empty()) return;
  const std::vector<std::string> names(changed_.begin(), changed_.end());
  changed_.clear();
  on_changed_(names);
}

int LinkWatcher::OnMessage(const nlmsghdr* message, void* self) {
  auto* watcher = static_cast<LinkWatcher*>(self);
  if (message->nlmsg_type != RTM_NEWLINK && message->nlmsg_type != RTM_DELLINK) return MNL_CB_OK;
  const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message));
  if (info->ifi_family == AF_BRIDGE) return MNL_CB_OK;  // a bridge tells about its ports, the interfaces stay
  const auto ifindex = static_cast<uint32_t>(info->ifi_index);
  if (message->nlmsg_type == RTM_DELLINK) {
    watcher->Gone(ifindex);
    return MNL_CB_OK;
  }
  // Messages of wireless events carry the main name only.
  Message attributes;
  mnl_attr_parse(message, sizeof(ifinfomsg), OnAttribute, &attributes);
  if (!attributes.names.main.empty() && !attributes.partial) watcher->Set(ifindex, std::move(attributes.names));
  return MNL_CB_OK;
}

int LinkWatcher::OnAttribute(const nlattr* attribute, void* data) {
  auto* message = static_cast<Message*>(data);
  switch (mnl_attr_get_type(attribute)) {
    case IFLA_IFNAME:
      message->names.main = mnl_attr_get_str(attribute);
      break;
    case IFLA_WIRELESS:
      message->partial = true;
      break;
    case IFLA_PROP_LIST:
      mnl_attr_parse_nested(attribute, OnAttribute, data);
      break;
    case IFLA_ALT_IFNAME:
      message->names.alternatives.insert(mnl_attr_get_str(attribute));
      break;
    default:
      break;
  }
  return MNL_CB_OK;
}

void LinkWatcher::Set(uint32_t ifindex, Names names) {
  seen_.insert(ifindex);
  Names& known = names_of_[ifindex];
  if (known == names) return;
  if (known.main != names.main) {
    Forget(&index_of_, known.main, ifindex);
    changed_.insert(names.main);
    // What its alternative names stand for is another name now.
    changed_.insert(names.alternatives.begin(), names.alternatives.end());
  }
  index_of_[names.main] = ifindex;
  for (const std::string& name : known.alternatives) {
    if (!names.alternatives.contains(name)) Forget(&index_of_alternative_, name, ifindex);
  }
  for (const std::string& name : names.alternatives) {
    index_of_alternative_[name] = ifindex;
    if (!known.alternatives.contains(name)) changed_.insert(name);
  }
  known = std::move(names);
}

void LinkWatcher::Gone(uint32_t ifindex) {
  const auto it = names_of_.find(ifindex);
  if (it == names_of_.end()) return;
  Forget(&index_of_, it->second.main, ifindex);
  for (const std::string& name : it->second.alternatives) Forget(&index_of_alternative_, name, ifindex);
  names_of_.erase(it);
}

void LinkWatcher::Forget(std::unordered_map<std::string, uint32_t>* index, const std::string& name, uint32_t ifindex) {
  const auto it = index->find(name);
  if (it == index->end() || it->second != ifindex) return;  // it belongs to another interface by now
  index->erase(it);
  changed_.insert(name);
}

}  // namespace mgr
