#include "netns/netns.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace netns {
namespace {

std::string Reason(const char* what) { return std::string{what} + ": " + std::strerror(errno); }

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::abort();
}

bool WriteFile(const char* path, const std::string& text) {
  std::ofstream file{path};
  file << text;
  return static_cast<bool>(file.flush());
}

}  // namespace

std::optional<std::string> Enter(As as) {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  const int user = as == As::kUnprivileged ? CLONE_NEWUSER : 0;
  if (unshare(user | CLONE_NEWNET | CLONE_NEWNS) != 0) return Reason("unshare");
  if (user != 0) {
    if (!WriteFile("/proc/self/setgroups", "deny") ||
        !WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
      return Reason("map the user");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return Reason("private mounts");
  if (!Run("ip link set lo up").ok) return "ip link set lo up fails";
  WriteFile("/proc/sys/net/ipv6/conf/all/disable_ipv6", "1");
  WriteFile("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
  return std::nullopt;
}

Ran Run(const std::string& command) {
  Ran ran;
  FILE* pipe = popen(("PATH=$PATH:/usr/sbin:/sbin; " + command + " 2>&1").c_str(), "r");  // NOLINT: fixed commands
  if (pipe == nullptr) return ran;
  std::array<char, 4096> buffer{};
  while (const size_t size = fread(buffer.data(), 1, buffer.size(), pipe)) ran.output.append(buffer.data(), size);
  ran.ok = pclose(pipe) == 0;
  return ran;
}

std::string MustRun(const std::string& command) {
  Ran ran = Run(command);
  if (!ran.ok) Die(command + ": " + ran.output);
  return ran.output;
}

OtherNamespace::OtherNamespace() {
  std::array<int, 2> ready{};
  if (pipe(ready.data()) != 0) Die(Reason("pipe"));
  keeper_ = fork();
  if (keeper_ < 0) Die(Reason("fork"));
  if (keeper_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (unshare(CLONE_NEWNET) != 0 || write(ready[1], "", 1) != 1) _exit(1);
    while (true) pause();
  }
  close(ready[1]);
  char byte = 0;
  if (read(ready[0], &byte, 1) != 1) Die("no second network namespace");
  close(ready[0]);
}

OtherNamespace::~OtherNamespace() {
  kill(keeper_, SIGKILL);
  waitpid(keeper_, nullptr, 0);
}

Wire::Wire(std::string port) : port_{std::move(port)}, station_{"s-" + port_} {
  const std::string size = " mtu 3000 arp off";
  MustRun("ip link add " + port_ + size + " type veth peer name " + station_ + size);
  MustRun("ip link set " + station_ + " up && ip link set " + port_ + " up");
  WaitUntilRunning(station_);
  WaitUntilRunning(port_);
}

void WaitUntilRunning(const std::string& interface) {
  const common::UniqueFd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  ifreq request{};
  std::strncpy(request.ifr_name, interface.c_str(), sizeof request.ifr_name - 1);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{10};
  while (std::chrono::steady_clock::now() < deadline) {
    if (ioctl(socket.get(), SIOCGIFFLAGS, &request) != 0) return;
    if ((request.ifr_flags & IFF_RUNNING) != 0) return;
    poll(nullptr, 0, 1);
  }
}

uint32_t Wire::ifindex() const { return if_nametoindex(port_.c_str()); }

frames::Bytes OnTheWire(const frames::Frame& frame) {
  frames::Bytes bytes = frame.bytes;
  if (const auto& tag = frame.metadata_tag; tag && bytes.size() >= 12) {
    const std::array<uint8_t, 4> raw = {static_cast<uint8_t>(tag->protocol >> 8),
                                        static_cast<uint8_t>(tag->protocol & 0xff), static_cast<uint8_t>(tag->tci >> 8),
                                        static_cast<uint8_t>(tag->tci & 0xff)};
    bytes.insert(bytes.begin() + 12, raw.begin(), raw.end());
  }
  return bytes;
}

uint16_t ReceivedType(const frames::Frame& frame) {
  const frames::Bytes bytes = OnTheWire(frame);
  size_t at = 12;
  const auto type = [&] { return static_cast<uint16_t>(bytes.at(at) << 8 | bytes.at(at + 1)); };
  const auto is_tag = [&] { return type() == 0x8100 || type() == 0x88a8; };
  if (is_tag()) {
    const int vid = (bytes.at(at + 2) << 8 | bytes.at(at + 3)) & 0xfff;
    at += 4;
    if (vid == 0 && is_tag()) at += 4;  // after a priority tag, the kernel takes out one more
  }
  if (type() >= 0x0600) return type();
  const bool raw = bytes.size() >= at + 4 && bytes[at + 2] == 0xff && bytes[at + 3] == 0xff;
  return raw ? uint16_t{ETH_P_802_3} : uint16_t{ETH_P_802_2};
}

Sender::Sender(const std::string& interface) : socket_{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)} {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  if (bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Die(Reason("bind the sender"));
}

bool Sender::Send(const frames::Frame& frame) {
  const frames::Bytes bytes = OnTheWire(frame);
  return send(socket_.get(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
}

Receiver::Receiver(const std::string& interface, uint16_t type)
    : socket_{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)} {
  const int room = 64 << 20;
  if (setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(type);
  address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  if (bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Die(Reason("bind the receiver"));
}

size_t Receiver::Count(size_t expected) {
  size_t count = 0;
  std::array<uint8_t, 4096> buffer{};
  while (true) {
    const ssize_t size = recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (size >= 0) {
      ++count;
      continue;
    }
    pollfd wait{socket_.get(), POLLIN, 0};
    if (count >= expected || poll(&wait, 1, 1000) <= 0) return count;
  }
}

}  // namespace netns
