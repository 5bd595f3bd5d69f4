#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "confd_cdb.h"
#include "confd_testing/test_server.h"

namespace confd_testing {

/// An unconnected socket of the kind that the library wants.
inline int NewSocket() { return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0); }

/// A CDB socket connected to `server`.
inline int Connect(const TestServer& server, cdb_sock_type type, const char* name = "test") {
  const int sock = NewSocket();
  const sockaddr_un address = server.address();
  EXPECT_EQ(cdb_connect_name(sock, type, reinterpret_cast<const sockaddr*>(&address), sizeof address, name), CONFD_OK)
      << confd_lasterr();
  return sock;
}

/// A subscription socket with these paths subscribed at priority 0.
struct Subscriber {
  Subscriber(TestServer& the_server, const std::vector<std::string>& paths, unsigned ns_hash)
      : server{the_server}, sock{Connect(the_server, CDB_SUBSCRIPTION_SOCKET)} {
    for (const std::string& path : paths) {
      int point = 0;
      EXPECT_EQ(cdb_subscribe(sock, 0, ns_hash, &point, "%s", path.c_str()), CONFD_OK) << confd_lasterr();
      points.push_back(point);
    }
    EXPECT_EQ(cdb_subscribe_done(sock), CONFD_OK) << confd_lasterr();
    server.Expect<confd_wire::SubscribeDone>(&connection);
  }
  ~Subscriber() { cdb_close(sock); }
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;

  /// Sends the message of commit `txid` for all points and reads it. `more`: another one of that commit is to follow.
  void Deliver(uint64_t txid, bool more = false) {
    server.Send(connection, confd_wire::Trigger{txid, 0, points, more});
    std::vector<int> read(points.size());
    int count = 0;
    ASSERT_EQ(cdb_read_subscription_socket(sock, read.data(), &count), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(count, static_cast<int>(points.size()));
    EXPECT_EQ(read, points);
  }

  TestServer& server;
  const int sock;
  uint64_t connection = 0;
  std::vector<int> points;
};

}  // namespace confd_testing
