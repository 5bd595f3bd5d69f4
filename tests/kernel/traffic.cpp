#include "traffic.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace kernel_test {
namespace {

constexpr size_t kBurst = 64;

[[noreturn]] void Die(const char* what) {
  std::perror(what);
  std::abort();
}

common::UniqueFd BoundSocket(const std::string& interface, uint16_t type) {
  common::UniqueFd socket{::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(type);
  address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  if (bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Die("bind a packet socket");
  return socket;
}

}  // namespace

PassedFrames::PassedFrames(const std::string& interface, uint8_t first_byte) : socket_{BoundSocket(interface, 0)} {
  constexpr uint32_t kSourceAt = 26;
  std::array<sock_filter, 4> program = {{
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kSourceAt),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, first_byte, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xffff),
      BPF_STMT(BPF_RET | BPF_K, 0),
  }};
  const sock_fprog filter{static_cast<uint16_t>(program.size()), program.data()};
  if (setsockopt(socket_.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0) Die("attach a filter");
  // Bound to the type only now, so that nothing is counted that the filter has not seen.
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_IP);
  address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  if (bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Die("bind a packet socket");
}

uint64_t PassedFrames::Count() {
  tpacket_stats statistics{};
  socklen_t size = sizeof statistics;
  if (getsockopt(socket_.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &size) != 0) Die("read the statistics");
  total_ += statistics.tp_packets;  // also those for which the socket, which nobody reads, had no room
  return total_;
}

Traffic::Traffic(const std::string& interface, const std::vector<frames::Frame>& frames)
    : socket_{BoundSocket(interface, 0)} {
  for (const frames::Frame& frame : frames) frames_.push_back(frame.bytes);
  const int on = 1;
  setsockopt(socket_.get(), SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
  thread_ = std::thread{[this] { Run(); }};
}

void Traffic::Stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

void Traffic::Run() {
  const size_t rounds = std::max<size_t>(1, kBurst / frames_.size());
  std::vector<iovec> pieces;
  for (size_t i = 0; i < rounds; ++i)
    for (frames::Bytes& frame : frames_) pieces.push_back({frame.data(), frame.size()});
  std::vector<mmsghdr> messages(pieces.size());
  for (size_t i = 0; i < messages.size(); ++i) {
    messages[i].msg_hdr.msg_iov = &pieces[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  while (!stop_) {
    for (size_t sent = 0; sent < messages.size();) {
      const int count = sendmmsg(socket_.get(), &messages[sent], static_cast<unsigned>(messages.size() - sent), 0);
      if (count > 0) sent += static_cast<size_t>(count);
      // Out of buffers: the rest of the burst follows. An interface that is gone ends the traffic.
      if (count < 0 && errno != ENOBUFS && errno != EAGAIN && errno != EINTR) return;
    }
    rounds_ += rounds;
  }
}

uint64_t LostOnWire(const std::string& station) {
  std::ifstream file{"/proc/net/dev"};
  std::string line;
  while (std::getline(file, line)) {
    std::array<char, 64> name{};
    std::array<unsigned long long, 12> value{};
    if (std::sscanf(line.c_str(), " %63[^:]: %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu", name.data(),
                    &value[0], &value[1], &value[2], &value[3], &value[4], &value[5], &value[6], &value[7], &value[8],
                    &value[9], &value[10], &value[11]) == 13 &&
        station == name.data())
      return value[11];
  }
  return 0;
}

void WaitForRounds(const Traffic& traffic, uint64_t rounds) {
  const uint64_t end = traffic.Rounds() + rounds;
  while (traffic.Rounds() < end) std::this_thread::yield();
}

}  // namespace kernel_test
