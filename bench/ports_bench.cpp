// How long an interface that is made anew under a port's name stays open: from the kernel's notification to the filter
// in force. Needs root.
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "harness.h"
#include "manager_under_test.h"
#include "netns/netns.h"

namespace {

constexpr int kRounds = 100;
constexpr const char* kPort = "port0";

struct CloseSocket {
  void operator()(mnl_socket* socket) const noexcept { mnl_socket_close(socket); }
};

/// The notifications of the kernel about interfaces.
class Notifications final {
 public:
  Notifications() : socket_{mnl_socket_open(NETLINK_ROUTE)} {
    mnl_socket_bind(socket_.get(), RTMGRP_LINK, MNL_SOCKET_AUTOPID);
  }
  /// Waits for the first one about an interface of the port's name that is not `old`; its index.
  uint32_t WaitForAnother(uint32_t old) {
    std::array<char, 32768> buffer{};
    while (true) {
      const ssize_t size = mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
      const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
      for (int left = static_cast<int>(size); mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
        const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message));
        const auto index = static_cast<uint32_t>(info->ifi_index);
        if (message->nlmsg_type != RTM_NEWLINK || index == old) continue;
        bool is_port = false;
        const auto look = [](const nlattr* attribute, void* found) {
          if (mnl_attr_get_type(attribute) == IFLA_IFNAME)
            *static_cast<bool*>(found) = std::strcmp(mnl_attr_get_str(attribute), kPort) == 0;
          return MNL_CB_OK;
        };
        mnl_attr_parse(message, sizeof *info, look, &is_port);
        if (is_port) return index;
      }
    }
  }

 private:
  std::unique_ptr<mnl_socket, CloseSocket> socket_;
};

}  // namespace

int main() {
  if (const auto reason = netns::Enter(netns::As::kRoot)) {
    std::printf("skipped: no network namespace of its own: %s\n", reason->c_str());
    return 0;
  }
  kernel_test::ManagerUnderTest manager{"tcx"};
  if (!manager.Start()) {
    std::printf("skipped: the system does not allow the tcx dataplane\n");
    return 0;
  }
  if (!manager.Submit({kernel_test::EnablePort(kPort)}, true)) return 2;
  Notifications notifications;
  std::vector<double> times;
  uint32_t last = 0;
  for (int round = -1; round < kRounds; ++round) {
    std::thread creator{[] { const netns::Wire wire{kPort}; }};
    last = notifications.WaitForAnother(last);
    // The attachment is pinned right after it is in force, so its pin tells without asking the kernel for its locks.
    const std::string pin = manager.run_dir() + "/bpf/links/if-" + std::to_string(last);
    bool in_force = false;
    const double time = bench::TimeOf([&] {
      const auto deadline = bench::Clock::now() + std::chrono::seconds{10};
      while (!(in_force = access(pin.c_str(), F_OK) == 0) && bench::Clock::now() < deadline) std::this_thread::yield();
    });
    creator.join();
    netns::MustRun(std::string{"ip link del "} + kPort);
    if (!in_force) return 2;
    if (round >= 0) times.push_back(time / 1000);
  }
  bench::Report report;
  report.Heading("interfaces made anew under a port's name, " + std::to_string(kRounds) + " times");
  report.Figure("from the kernel's notification to the filter in force, median", bench::Median(times), "ms");
  report.Figure("the longest", *std::max_element(times.begin(), times.end()), "ms");
  return report.ExitStatus();
}
