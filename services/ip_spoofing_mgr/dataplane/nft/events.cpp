#include "dataplane/nft/events.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <string_view>

namespace mgr::nft {
namespace {

constexpr int kReceiveRoom = 16 << 20;
constexpr size_t kMessageRoom = size_t{64} << 10;

/// In every message about something in a table, the first attribute is the table's name.
constexpr uint16_t kTableName = NFTA_CHAIN_TABLE;
static_assert(kTableName == NFTA_TABLE_NAME && kTableName == NFTA_RULE_TABLE && kTableName == NFTA_SET_TABLE &&
              kTableName == NFTA_SET_ELEM_LIST_TABLE && kTableName == NFTA_OBJ_TABLE &&
              kTableName == NFTA_FLOWTABLE_TABLE);

/// "chain added"; empty for what is not a change.
std::string_view ChangeName(int type) {
  switch (type) {
    case NFT_MSG_NEWTABLE:
      return "table added or changed";
    case NFT_MSG_DELTABLE:
      return "table deleted";
    case NFT_MSG_NEWCHAIN:
      return "chain added or changed";
    case NFT_MSG_DELCHAIN:
      return "chain deleted";
    case NFT_MSG_NEWRULE:
      return "rule added";
    case NFT_MSG_DELRULE:
      return "rule deleted";
    case NFT_MSG_NEWSET:
      return "set added or changed";
    case NFT_MSG_DELSET:
      return "set deleted";
    case NFT_MSG_NEWSETELEM:
      return "set element added";
    case NFT_MSG_DELSETELEM:
      return "set element deleted";
    case NFT_MSG_NEWOBJ:
      return "object added or changed";
    case NFT_MSG_DELOBJ:
      return "object deleted";
    case NFT_MSG_NEWFLOWTABLE:
      return "flowtable added or changed";
    case NFT_MSG_DELFLOWTABLE:
      return "flowtable deleted";
    default:
      return {};
  }
}

/// Lets pass what other processes cause, and every new generation. The kernel writes the netlink header in the byte
/// order of the host, and a filter loads words in network order.
bool AttachFilter(int fd, uint32_t own_port) {
  const auto word = [](uint32_t value) { return htonl(value); };
  const auto half = [](uint16_t value) { return uint32_t{htons(value)}; };
  std::array<sock_filter, 6> program = {{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(nlmsghdr, nlmsg_pid)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, word(own_port), 0, 2),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offsetof(nlmsghdr, nlmsg_type)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, half(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWGEN), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xffffffff),
      BPF_STMT(BPF_RET | BPF_K, 0),
  }};
  const sock_fprog filter{static_cast<uint16_t>(program.size()), program.data()};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

}  // namespace

common::Result<Events> Events::Open(uint32_t own_port) {
  Events events{mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK)};
  if (events.socket_ == nullptr) return common::SystemError("socket", "netlink", errno);
  const int fd = events.fd();
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveRoom, sizeof kReceiveRoom) != 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveRoom, sizeof kReceiveRoom);
  if (!AttachFilter(fd, own_port)) return common::SystemError("filter", "nf_tables notifications", errno);
  if (mnl_socket_bind(events.socket_.get(), 0, MNL_SOCKET_AUTOPID) != 0)
    return common::SystemError("bind", "netlink", errno);
  int group = NFNLGRP_NFTABLES;
  if (mnl_socket_setsockopt(events.socket_.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
    return common::SystemError("subscribe to", "nf_tables notifications", errno);
  return events;
}

Events::Seen Events::Read(const std::string& table) {
  Seen seen;
  std::vector<char> buffer(kMessageRoom);
  while (true) {
    const ssize_t size = ::recv(fd(), buffer.data(), buffer.size(), 0);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == ENOBUFS) {
      seen.unclear = true;
      generation_.reset();
      continue;
    }
    if (size <= 0) break;
    int left = static_cast<int>(size);
    for (auto* message = reinterpret_cast<nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left))
      OnMessage(message, table, &seen);
  }
  // A transaction ends with its generation. The kernel itself, when an interface vanishes, makes none.
  if (!pending_.empty()) seen.unclear = true;
  pending_.clear();
  return seen;
}

void Events::OnMessage(const nlmsghdr* message, const std::string& table, Seen* seen) {
  if (NFNL_SUBSYS_ID(message->nlmsg_type) != NFNL_SUBSYS_NFTABLES) return;
  const int type = NFNL_MSG_TYPE(message->nlmsg_type);
  if (type == NFT_MSG_NEWGEN) return OnGeneration(message, seen);
  const std::string_view change = ChangeName(type);
  if (change.empty() || mnl_nlmsg_get_payload_len(message) < sizeof(nfgenmsg)) return;
  if (static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message))->nfgen_family != NFPROTO_NETDEV) return;
  std::string name;
  const auto take = [](const nlattr* attribute, void* text) {
    if (mnl_attr_get_type(attribute) != kTableName) return MNL_CB_OK;
    if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0)
      *static_cast<std::string*>(text) = mnl_attr_get_str(attribute);
    return MNL_CB_STOP;
  };
  mnl_attr_parse(message, sizeof(nfgenmsg), take, &name);
  if (name == table) ++pending_[std::string{change}];
}

void Events::OnGeneration(const nlmsghdr* message, Seen* seen) {
  struct Told {
    uint32_t generation = 0, process = 0;
    std::string name;
  } told;
  const auto take = [](const nlattr* attribute, void* data) {
    auto& into = *static_cast<Told*>(data);
    switch (mnl_attr_get_type(attribute)) {
      case NFTA_GEN_ID:
        into.generation = ntohl(mnl_attr_get_u32(attribute));
        break;
      case NFTA_GEN_PROC_PID:
        into.process = ntohl(mnl_attr_get_u32(attribute));
        break;
      case NFTA_GEN_PROC_NAME:
        into.name = mnl_attr_get_str(attribute);
        break;
      default:
        break;
    }
    return MNL_CB_OK;
  };
  mnl_attr_parse(message, sizeof(nfgenmsg), take, &told);
  const uint32_t next = generation_ ? std::max<uint32_t>(*generation_ + 1, 1) : told.generation;  // never 0
  if (told.generation != next) seen->unclear = true;
  generation_ = told.generation;
  if (pending_.empty()) return;
  std::string text;
  for (const auto& [change, count] : pending_)
    text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + change;
  if (told.process != 0) text += " by " + told.name + " (process " + std::to_string(told.process) + ")";
  seen->changes.push_back(text);
  pending_.clear();
}

}  // namespace mgr::nft
