// cdbd without free descriptors, and with more connections than it takes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "cdbd_process.h"
#include "common/unix_socket.h"
#include "support/descriptors/descriptors.h"

namespace cdbd::test {
namespace {

using ::test::ComesToRest;
using ::test::LimitDescriptors;
using ::test::LinesWith;
using ::test::UnlimitDescriptors;

constexpr int kRounds = 100;

struct Socket {
  std::string name;
  std::string file;
  int type;
};
class Descriptors : public testing::TestWithParam<Socket> {
 protected:
  void SetUp() override {
    if (::test::kSanitized) GTEST_SKIP() << ::test::kSanitizedReason;
    server_.Start();
  }
  std::vector<common::UniqueFd> Connections(int count) {
    std::vector<common::UniqueFd> all;
    for (int i = 0; i < count; ++i) {
      auto connected = common::ConnectUnix(server_.RunDir() + "/" + GetParam().file, GetParam().type);
      EXPECT_TRUE(connected.ok()) << connected.error().Text();
      if (connected) all.push_back(std::move(connected).value());
    }
    return all;
  }
  CdbdProcess server_;
};

TEST_P(Descriptors, NoneFreeNeitherSpinsNorFillsTheLog) {
  NetconfClient session = server_.Connect();
  const pid_t pid = server_.process().pid();
  LimitDescriptors(pid, 0);
  auto waiting = Connections(5);
  for (int i = 0; i < kRounds; ++i) EXPECT_EQ(session.GetConfig(), "");
  EXPECT_LE(LinesWith(server_.Log(), "Too many open files"), 2U);
  EXPECT_TRUE(ComesToRest(pid));
  UnlimitDescriptors(pid);
  EXPECT_EQ(server_.Connect().GetConfig(), "");
}

TEST_P(Descriptors, NoneFreeTurnsConnectionsAway) {
  NetconfClient session = server_.Connect();
  LimitDescriptors(server_.process().pid(), 0);
  auto waiting = Connections(3);
  for (const common::UniqueFd& fd : waiting) {
    const timeval limit{.tv_sec = 10, .tv_usec = 0};
    ASSERT_EQ(::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
    // An operator is told why before the end.
    std::array<char, 4096> said{};
    ssize_t got = 0;
    while ((got = ::recv(fd.get(), said.data(), said.size(), 0)) > 0) {
    }
    EXPECT_EQ(got, 0) << std::strerror(errno);
  }
  EXPECT_EQ(session.GetConfig(), "");
}

INSTANTIATE_TEST_SUITE_P(Limits, Descriptors,
                         testing::Values(Socket{"Netconf", "netconf.sock", SOCK_STREAM},
                                         Socket{"Programs", "cdb.sock", SOCK_SEQPACKET}),
                         [](const auto& row) { return row.param.name; });

// The programs' socket takes 256 connections; those beyond are closed at once, and free places are given again.
TEST(ConnectionLimit, ProgramsBeyondItAreTurnedAway) {
  CdbdProcess server;
  server.Start();
  const auto connect = [&] {
    auto connected = common::ConnectUnix(server.CdbSocket(), SOCK_SEQPACKET);
    EXPECT_TRUE(connected.ok()) << connected.error().Text();
    return std::move(connected).value();
  };
  const auto closed = [](const common::UniqueFd& fd) {
    char byte = 0;
    return ::recv(fd.get(), &byte, 1, MSG_DONTWAIT) == 0;
  };
  std::vector<common::UniqueFd> all;
  for (int i = 0; i < 260; ++i) all.push_back(connect());
  EXPECT_TRUE(Eventually([&] { return closed(all.back()); }, std::chrono::seconds{10}));
  EXPECT_EQ(std::count_if(all.begin(), all.end(), closed), 4);
  EXPECT_LE(LinesWith(server.Log(), "refused"), 2U);
  all.clear();
  EXPECT_TRUE(Eventually(
      [&] {
        const common::UniqueFd one = connect();
        NetconfClient session = server.Connect();  // the server has had its turn
        return session.GetConfig().empty() && !closed(one);
      },
      NetconfClient::kLimit));
}

}  // namespace
}  // namespace cdbd::test
