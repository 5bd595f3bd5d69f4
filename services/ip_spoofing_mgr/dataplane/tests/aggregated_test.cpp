#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

#include "common/unique_fd.h"
#include "frames/verdict_corpus.h"
#include "real_plane.h"

/// Large TCP packets that stand for many, as a sender with segmentation offload or a receiver that aggregates makes
/// them.
namespace mgr::test {
namespace {

using frames::Ip;

constexpr uint16_t kGsoIpv4MaxSize = 63;  // IFLA_GSO_IPV4_MAX_SIZE; older headers lack it
/// What stands before a frame of a socket with PACKET_VNET_HDR; <linux/virtio_net.h> is not C++.
struct OffloadHeader {
  uint8_t flags = 1;     // the checksum is still to be made
  uint8_t gso_type = 1;  // TCP over IPv4
  uint16_t header_size = 14 + 20 + 20;
  uint16_t segment_size = 1448;
  uint16_t checksum_start = 14 + 20;
  uint16_t checksum_offset = 16;
};
static_assert(sizeof(OffloadHeader) == 10);

/// False where the kernel has no such limit to set.
bool AllowLargePackets(const std::string& interface, uint32_t size) {
  struct {
    nlmsghdr header;
    ifinfomsg link;
    rtattr attribute;
    uint32_t size;
  } request{};
  request.header = {sizeof request, RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK, 1, 0};
  request.link.ifi_index = static_cast<int>(if_nametoindex(interface.c_str()));
  request.attribute = {RTA_LENGTH(sizeof size), kGsoIpv4MaxSize};
  request.size = size;
  const common::UniqueFd socket{::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
  struct {
    nlmsghdr header;
    nlmsgerr error;
    uint8_t more[4096];
  } answer{};
  return send(socket.get(), &request, sizeof request, 0) == sizeof request &&
         recv(socket.get(), &answer, sizeof answer, 0) > 0 && answer.error.error == 0;
}

/// Sends frames with the sender's word that they are to be cut into TCP segments later.
class LargeSender final {
 public:
  explicit LargeSender(const std::string& interface) : socket_{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)} {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    const int on = 1, room = 4 << 20;
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(setsockopt(socket_.get(), SOL_PACKET, PACKET_VNET_HDR, &on, sizeof on), 0);
    EXPECT_EQ(setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
  }
  bool Send(const frames::Frame& frame, const OffloadHeader& header = {}) {
    std::vector<uint8_t> bytes(sizeof header);
    std::memcpy(bytes.data(), &header, sizeof header);
    bytes.insert(bytes.end(), frame.bytes.begin(), frame.bytes.end());
    return send(socket_.get(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
  }

 private:
  common::UniqueFd socket_;
};

/// A TCP packet with `payload` bytes after its headers. Above 65,535 bytes its total length is 0.
frames::Frame Tcp(const char* source, size_t payload) {
  const size_t total = 20 + 20 + payload;
  frames::Frame frame = frames::FrameBuilder{frames::kStation}.With(
      frames::Ipv4{.source_be = Ip(source),
                   .protocol = 6,
                   .total_length = static_cast<uint16_t>(total > 0xffff ? 0 : total),
                   .payload = 20 + payload});
  frame.bytes[14 + 20 + 12] = 0x50;  // TCP header of five words
  return frame;
}

class Aggregated : public RealPlane {
 protected:
  void SetUp() override {
    RealPlane::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    wire_.emplace("port0");
    MustApply({.puts = {MakeEntry(1, 0, Ip("10.0.0.1"))},
               .ports = {MakePort(1, "port0", wire_->ifindex())},
               .removes = {},
               .drop_ports = {}});
  }
  std::optional<netns::Wire> wire_;
};

TEST_P(Aggregated, JudgedBySourceAtEverySize) {
  if (!AllowLargePackets(wire_->station(), 200'000)) GTEST_SKIP() << "the kernel makes no packets above 65,535 bytes";
  LargeSender sender{wire_->station()};
  netns::Receiver receiver{"port0", 0x0800};
  Counts counts;
  uint64_t sent = 0;
  for (const size_t payload : {size_t{1448}, size_t{20'000}, size_t{65'495}, size_t{65'496}, size_t{150'000}}) {
    ASSERT_TRUE(sender.Send(Tcp("10.0.0.1", payload))) << payload << ": " << std::strerror(errno);
    ASSERT_TRUE(sender.Send(Tcp("10.0.0.66", payload))) << payload;
    sent += 2;
    ++counts[{"entry", true}];
    ++counts[{"no-entry", false}];
    EXPECT_EQ(WaitForTotal(1, sent), counts) << payload;
    EXPECT_EQ(receiver.Count(1), 1U) << payload;
  }
}

TEST_P(Aggregated, OtherPacketsWithLengthZeroAreMalformed) {
  netns::Sender sender{wire_->station()};
  frames::Frame plain = Tcp("10.0.0.1", 1000);
  plain.bytes[16] = plain.bytes[17] = 0;
  ASSERT_TRUE(sender.Send(plain));
  EXPECT_EQ(WaitForTotal(1, 1), (Counts{{{"malformed", false}, 1}}));
}

TEST_P(Aggregated, UdpWithLengthZeroIsMalformed) {
  constexpr OffloadHeader kUdp = {.gso_type = 5,  // one UDP packet per segment
                                  .header_size = 14 + 20 + 8,
                                  .segment_size = 1400,
                                  .checksum_offset = 6};
  LargeSender sender{wire_->station()};
  frames::Frame frame = frames::FrameBuilder{frames::kStation}.With(
      frames::Ipv4{.source_be = Ip("10.0.0.1"), .total_length = 0, .payload = 8 + 14'000});
  if (!sender.Send(frame, kUdp)) GTEST_SKIP() << "the kernel aggregates no UDP: " << std::strerror(errno);
  EXPECT_EQ(WaitForTotal(1, 1), (Counts{{{"malformed", false}, 1}}));
}

INSTANTIATE_TEST_SUITE_P(Planes, Aggregated, testing::ValuesIn(Planes(true)), NameOf);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Aggregated);

}  // namespace
}  // namespace mgr::test
