#include "dataplane/nft/netlink.h"

#include <arpa/inet.h>
#include <libnftnl/common.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

namespace mgr::nft {
namespace {

constexpr int kSendRoom = 64 << 20;
constexpr size_t kReceiveRoom = size_t{256} << 10;
constexpr timeval kAnswerTime{.tv_sec = 10, .tv_usec = 0};  // an answer waits for the kernel alone

}  // namespace

Batch::Batch() {
  std::vector<char> buffer(MNL_SOCKET_BUFFER_SIZE);
  Append(nftnl_batch_begin(buffer.data(), 0));
}

void Batch::Append(const nlmsghdr* message) {
  const auto* begin = reinterpret_cast<const char*>(message);
  last_ = bytes_.size();
  bytes_.insert(bytes_.end(), begin, begin + NLMSG_ALIGN(message->nlmsg_len));
}

void Batch::Add(uint16_t type, uint16_t flags, const std::function<void(nlmsghdr*)>& fill) {
  static thread_local std::vector<char> buffer(kMaxMessage);
  nlmsghdr* message = nftnl_nlmsg_build_hdr(buffer.data(), type, NFPROTO_NETDEV, flags, 0);
  fill(message);
  Append(message);
  ++messages_;
}

common::Result<Socket> Socket::Open() {
  Socket socket{mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC)};
  if (socket.socket_ == nullptr) return common::SystemError("socket", "netlink", errno);
  if (mnl_socket_bind(socket.socket_.get(), 0, MNL_SOCKET_AUTOPID) != 0)
    return common::SystemError("bind", "netlink", errno);
  const int fd = mnl_socket_get_fd(socket.socket_.get());
  // Without privilege the room is what the system grants, and transactions are as large as that.
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSendRoom, sizeof kSendRoom) != 0)
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendRoom, sizeof kSendRoom);
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kAnswerTime, sizeof kAnswerTime);
  return socket;
}

int Socket::Commit(Batch batch) {
  if (batch.empty()) return 0;
  auto* last = reinterpret_cast<nlmsghdr*>(&batch.bytes_[batch.last_]);
  last->nlmsg_flags |= NLM_F_ACK;
  std::vector<char> end(MNL_SOCKET_BUFFER_SIZE);
  batch.Append(nftnl_batch_end(end.data(), 0));
  const uint32_t first_sequence = sequence_;
  uint32_t acknowledged = 0;
  for (size_t at = 0; at < batch.bytes_.size();) {
    auto* message = reinterpret_cast<nlmsghdr*>(&batch.bytes_[at]);
    message->nlmsg_seq = sequence_++;
    if ((message->nlmsg_flags & NLM_F_ACK) != 0) acknowledged = message->nlmsg_seq;
    at += NLMSG_ALIGN(message->nlmsg_len);
  }
  if (mnl_socket_sendto(socket_.get(), batch.bytes_.data(), batch.bytes_.size()) < 0) return errno;

  // Failed messages are reported first, then the acknowledgement that was asked for, made or not.
  std::vector<char> answer(kReceiveRoom);
  int error = 0;
  while (true) {
    const ssize_t size = mnl_socket_recvfrom(socket_.get(), answer.data(), answer.size());
    if (size < 0) return error != 0 ? error : errno;
    int left = static_cast<int>(size);
    for (auto* message = reinterpret_cast<nlmsghdr*>(answer.data()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left)) {
      if (message->nlmsg_type != NLMSG_ERROR || message->nlmsg_seq < first_sequence) continue;
      const auto* report = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
      if (error == 0) error = -report->error;
      // The first message of a batch opens it; refused, there is no more to come.
      if (message->nlmsg_seq == acknowledged || message->nlmsg_seq == first_sequence) return error;
    }
  }
}

int Socket::Dump(uint16_t type, const std::function<void(nlmsghdr*)>& fill, const Take& take) {
  // An answer that was changed under way is asked for again.
  for (int attempt = 0;; ++attempt) {
    if (const int error = StartDump(type, fill); error != 0) return error;
    int error = EINPROGRESS;
    while (error == EINPROGRESS) error = ContinueDump(take);
    if (error != EINTR || attempt == 4) return error;
  }
}

int Socket::StartDump(uint16_t type, const std::function<void(nlmsghdr*)>& fill) {
  std::vector<char> buffer(MNL_SOCKET_BUFFER_SIZE);
  nlmsghdr* request = nftnl_nlmsg_build_hdr(buffer.data(), type, NFPROTO_NETDEV, NLM_F_DUMP, ++sequence_);
  fill(request);
  return mnl_socket_sendto(socket_.get(), request, request->nlmsg_len) < 0 ? errno : 0;
}

int Socket::ContinueDump(const Take& take) {
  static thread_local std::vector<char> buffer(kReceiveRoom);
  const ssize_t size = mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
  if (size < 0) return errno;
  const auto forward = [](const nlmsghdr* message, void* data) {
    (*static_cast<const Take*>(data))(message);
    return MNL_CB_OK;
  };
  const int result =
      mnl_cb_run(buffer.data(), static_cast<size_t>(size), sequence_, port(), forward, const_cast<Take*>(&take));
  if (result > MNL_CB_STOP) return EINPROGRESS;
  return result == MNL_CB_STOP ? 0 : errno;
}

common::Result<uint32_t> Socket::Generation() {
  std::vector<char> buffer(kReceiveRoom);
  nlmsghdr* request = nftnl_nlmsg_build_hdr(buffer.data(), NFT_MSG_GETGEN, NFPROTO_NETDEV, 0, ++sequence_);
  if (mnl_socket_sendto(socket_.get(), request, request->nlmsg_len) < 0)
    return common::SystemError("ask for", "the nf_tables generation", errno);
  const ssize_t size = mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
  if (size < 0) return common::SystemError("read", "the nf_tables generation", errno);
  uint32_t generation = 0;
  const auto take = [](const nlmsghdr* message, void* data) {
    return mnl_attr_parse(
        message, sizeof(nfgenmsg),
        [](const nlattr* attribute, void* into) {
          if (mnl_attr_get_type(attribute) == NFTA_GEN_ID)
            *static_cast<uint32_t*>(into) = ntohl(mnl_attr_get_u32(attribute));
          return MNL_CB_OK;
        },
        data);
  };
  if (mnl_cb_run(buffer.data(), static_cast<size_t>(size), sequence_, port(), take, &generation) < 0)
    return common::SystemError("read", "the nf_tables generation", errno);
  return generation;
}

}  // namespace mgr::nft
