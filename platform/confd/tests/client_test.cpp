// Connections, sessions and snapshots.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "cdb_store_testing/models.h"
#include "confd_testing/sockets.h"
#include "forked/forked.h"

namespace {

using confd_testing::Connect;
using confd_testing::NewSocket;
using confd_testing::Put;
using confd_testing::TestServer;
using ::testing::HasSubstr;

class ClientTest : public ::testing::Test {
 protected:
  std::string Name(int sock) {
    char text[64] = "";
    return cdb_get_str(sock, text, sizeof text, "/tb:box/name") == CONFD_OK ? text : confd_lasterr();
  }
  int ConnectRaw(int sock, int type = CDB_READ_SOCKET) {
    const sockaddr_un address = server_.address();
    return cdb_connect(sock, static_cast<cdb_sock_type>(type), reinterpret_cast<const sockaddr*>(&address),
                       sizeof address);
  }
  TestServer server_{cdb_store::testing::BoxSchema()};
};

TEST_F(ClientTest, ASessionIsASnapshot) {
  server_.Commit({Put("/tb:box/name", "one")});
  const int first = Connect(server_, CDB_READ_SOCKET);
  const int second = Connect(server_, CDB_READ_SOCKET);
  ASSERT_EQ(cdb_start_session(first, CDB_RUNNING), CONFD_OK);
  server_.Commit({Put("/tb:box/name", "two")});
  ASSERT_EQ(cdb_start_session(second, CDB_RUNNING), CONFD_OK);
  EXPECT_EQ(Name(first), "one");
  EXPECT_EQ(Name(second), "two");
  ASSERT_EQ(cdb_end_session(first), CONFD_OK);
  ASSERT_EQ(cdb_start_session(first, CDB_PRE_COMMIT_RUNNING), CONFD_OK);
  EXPECT_EQ(Name(first), "one");
  ASSERT_EQ(cdb_end_session(first), CONFD_OK);
  ASSERT_EQ(cdb_start_session(first, CDB_RUNNING), CONFD_OK);
  EXPECT_EQ(Name(first), "two");
  cdb_close(first);
  cdb_close(second);
}

TEST_F(ClientTest, TheTransactionIdFollowsTheSession) {
  server_.Commit({Put("/tb:box/name", "one")});
  const int sock = Connect(server_, CDB_READ_SOCKET);
  cdb_txid before{};
  cdb_txid after{};
  ASSERT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  server_.Commit({Put("/tb:box/name", "two")});
  EXPECT_EQ(cdb_get_txid(sock, &before), CONFD_OK);
  EXPECT_EQ(before.s3, 1U);
  EXPECT_STREQ(before.primary, "test-server");
  EXPECT_NE(before.s1, 0U);
  cdb_end_session(sock);
  EXPECT_EQ(cdb_get_txid(sock, &after), CONFD_OK);
  EXPECT_EQ(after.s3, 2U);
  EXPECT_EQ(after.s1, before.s1);
  server_.Commit({Put("/tb:box/name", "two")});  // changes nothing
  EXPECT_EQ(cdb_get_txid(sock, &before), CONFD_OK);
  EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
  EXPECT_EQ(cdb_get_txid(sock, nullptr), CONFD_ERR);
  cdb_close(sock);
}

TEST_F(ClientTest, TheTransactionIdSurvivesARestartOfTheServer) {
  server_.Commit({Put("/tb:box/name", "one")});
  cdb_txid before{};
  cdb_txid after{};
  int sock = Connect(server_, CDB_READ_SOCKET);
  EXPECT_EQ(cdb_get_txid(sock, &before), CONFD_OK);
  server_.Restart();
  EXPECT_EQ(cdb_get_txid(sock, &after), CONFD_EOF) << "the old connection is gone";
  cdb_close(sock);
  sock = Connect(server_, CDB_READ_SOCKET);
  EXPECT_EQ(cdb_get_txid(sock, &after), CONFD_OK);
  EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
  cdb_close(sock);
}

TEST_F(ClientTest, AServerKilledInTheMiddle) {
  server_.Commit({Put("/tb:box/name", "one")});
  const int reading = Connect(server_, CDB_READ_SOCKET);
  const int idle = Connect(server_, CDB_READ_SOCKET);
  const int subscribing = Connect(server_, CDB_SUBSCRIPTION_SOCKET);
  ASSERT_EQ(cdb_start_session(reading, CDB_RUNNING), CONFD_OK);
  server_.Kill();
  EXPECT_EQ(Name(reading), "one") << "a session goes on";
  EXPECT_EQ(cdb_start_session(idle, CDB_RUNNING), CONFD_EOF);
  EXPECT_THAT(confd_lasterr(), HasSubstr("the connection to the configuration database is gone"));
  int point = 0;
  EXPECT_EQ(cdb_subscribe(subscribing, 0, 0, &point, "/tb:box"), CONFD_EOF);
  EXPECT_EQ(cdb_subscribe_done(subscribing), CONFD_EOF);
  EXPECT_EQ(Name(reading), "one");
  const int late = NewSocket();
  EXPECT_EQ(ConnectRaw(late), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "connect to the configuration database: Connection refused");
  close(late);
  server_.Restart();
  server_.Commit({Put("/tb:box/name", "two")});
  EXPECT_EQ(Name(reading), "one");
  const int again = Connect(server_, CDB_READ_SOCKET);
  ASSERT_EQ(cdb_start_session(again, CDB_RUNNING), CONFD_OK);
  EXPECT_EQ(Name(again), "two");
  for (const int sock : {reading, idle, subscribing, again}) EXPECT_EQ(cdb_close(sock), CONFD_OK);
}

TEST_F(ClientTest, AServerThatDoesNotAnswer) {
  const int sock = Connect(server_, CDB_SUBSCRIPTION_SOCKET);
  EXPECT_EQ(cdb_set_timeout(sock, 1), CONFD_OK);
  ASSERT_EQ(kill(server_.pid(), SIGSTOP), 0);
  int point = 0;
  EXPECT_EQ(cdb_subscribe(sock, 0, 0, &point, "/tb:box"), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_TIMEOUT);
  EXPECT_THAT(confd_lasterr(), HasSubstr("the configuration database did not answer within 1 s"));
  ASSERT_EQ(kill(server_.pid(), SIGCONT), 0);
  EXPECT_EQ(cdb_subscribe(sock, 0, 0, &point, "/tb:box"), CONFD_EOF)
      << "the late answer must not be taken for this one's";
  cdb_close(sock);
}

TEST_F(ClientTest, ARefusedHelloIsTold) {
  server_.RefuseHello("too many clients");
  const int sock = NewSocket();
  EXPECT_EQ(ConnectRaw(sock), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_EXTERNAL);
  EXPECT_STREQ(confd_lasterr(), "too many clients");
  close(sock);
}

TEST_F(ClientTest, TheServerLearnsKindAndName) {
  const int sock = Connect(server_, CDB_SUBSCRIPTION_SOCKET, "my-name");
  const auto hello = server_.Expect<confd_wire::Hello>();
  EXPECT_EQ(hello.name, "my-name");
  EXPECT_EQ(hello.kind, confd_wire::ClientKind::kSubscription);
  cdb_close(sock);
  EXPECT_EQ(server_.Receive().bytes, "") << "closed";
}

TEST_F(ClientTest, SocketsOfTheWrongKindAreRefused) {
  const int stream = socket(AF_UNIX, SOCK_STREAM, 0);
  EXPECT_EQ(ConnectRaw(stream), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("is not of type SOCK_SEQPACKET"));
  close(stream);
  EXPECT_EQ(ConnectRaw(-1), CONFD_ERR);
  const int sock = NewSocket();
  EXPECT_EQ(ConnectRaw(sock, 7), CONFD_ERR);
  EXPECT_EQ(cdb_connect(sock, CDB_READ_SOCKET, nullptr, 0), CONFD_ERR);
  EXPECT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("is not connected to the configuration database"));
  close(sock);
  const int reading = Connect(server_, CDB_READ_SOCKET);
  int point = 0;
  EXPECT_EQ(cdb_subscribe(reading, 0, 0, &point, "/tb:box"), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("is no subscription socket"));
  cdb_close(reading);
  const int subscribing = Connect(server_, CDB_SUBSCRIPTION_SOCKET);
  EXPECT_EQ(cdb_start_session(subscribing, CDB_RUNNING), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("is no read socket"));
  cdb_close(subscribing);
  EXPECT_EQ(cdb_close(subscribing), CONFD_ERR);
}

TEST_F(ClientTest, SessionsAreStartedAndEndedInTurn) {
  const int sock = Connect(server_, CDB_READ_SOCKET);
  EXPECT_EQ(cdb_end_session(sock), CONFD_ERR);
  EXPECT_EQ(cdb_set_namespace(sock, static_cast<int>(cdb_store::testing::kBoxHash)), CONFD_ERR);
  EXPECT_EQ(cdb_exists(sock, "/tb:box"), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("holds no session"));
  EXPECT_EQ(cdb_start_session(sock, CDB_STARTUP), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("there is no startup datastore"));
  EXPECT_EQ(cdb_start_session(sock, CDB_OPERATIONAL), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("there is no operational datastore"));
  EXPECT_EQ(cdb_start_session(sock, static_cast<cdb_db_type>(9)), CONFD_ERR);
  EXPECT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  EXPECT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("holds a session already"));
  EXPECT_EQ(cdb_exists(sock, "/tb:box"), 0);
  EXPECT_EQ(cdb_set_timeout(sock, -1), CONFD_ERR);
  EXPECT_EQ(cdb_set_timeout(sock, 0), CONFD_OK);
  EXPECT_EQ(cdb_end_session(sock), CONFD_OK);
  cdb_close(sock);
}

TEST_F(ClientTest, ErrorsNameThePathAndTheProblem) {
  const int sock = Connect(server_, CDB_READ_SOCKET);
  ASSERT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  int32_t number = 0;
  EXPECT_EQ(cdb_get_int32(sock, &number, "/tb:box/name"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "path \"/tb:box/name\": name is of type string, not int32");
  EXPECT_EQ(cdb_exists(sock, "/tb:box/site{a}/nope"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "path \"/tb:box/site{a}/nope\": there is no node \"nope\" below /tb:box/site");
  EXPECT_EQ(cdb_exists(sock, "/twin"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "path \"/twin\": several modules have a top node \"twin\": it needs its prefix");
  EXPECT_EQ(cdb_exists(sock, "/tb:box/%s"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "path format \"/tb:box/%s\": '%s' has no argument");
  EXPECT_EQ(cdb_exists(sock, "%s", static_cast<const char*>(nullptr)), CONFD_ERR);
  EXPECT_EQ(cdb_exists(sock, "50%"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "path format \"50%\": ends in a lone '%'");
  const std::string long_name(600, 'x');
  EXPECT_EQ(cdb_exists(sock, "/tb:box/site{%s}", long_name.c_str()), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("the keys down to site are longer than 507 bytes"));
  EXPECT_EQ(cdb_set_namespace(sock, 1), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "no module has the namespace hash 0x00000001");
  cdb_close(sock);
}

TEST_F(ClientTest, ANamespaceChoosesAmongEqualNames) {
  server_.Commit({Put("/tb:twin", "first"), Put("/tx:twin", "second")});
  const int sock = Connect(server_, CDB_READ_SOCKET);
  ASSERT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  ASSERT_EQ(cdb_set_namespace(sock, static_cast<int>(cdb_store::testing::kBoxHash)), CONFD_OK);
  char text[16] = "";
  EXPECT_EQ(cdb_get_str(sock, text, sizeof text, "/twin"), CONFD_OK);
  EXPECT_STREQ(text, "first");
  ASSERT_EQ(cdb_set_namespace(sock, static_cast<int>(cdb_store::NameHash("urn:test:extra"))), CONFD_OK);
  EXPECT_EQ(cdb_get_str(sock, text, sizeof text, "/twin"), CONFD_OK);
  EXPECT_STREQ(text, "second");
  EXPECT_EQ(cdb_exists(sock, "/box"), CONFD_ERR) << "the other module's";
  EXPECT_EQ(cdb_exists(sock, "/tb:box"), 0);
  cdb_close(sock);
}

TEST_F(ClientTest, AForkedChildStartsAnew) {
  server_.Commit({Put("/tb:box/name", "one")});
  const int sock = Connect(server_, CDB_READ_SOCKET);
  ASSERT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  const int result = test::InChild([&] {
    if (cdb_exists(sock, "/tb:box/name") != CONFD_ERR) return 1;  // the parent's session
    const int own = NewSocket();
    if (ConnectRaw(own) != CONFD_OK || cdb_start_session(own, CDB_RUNNING) != CONFD_OK) return 2;
    return Name(own) == "one" ? 0 : 3;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(Name(sock), "one");
  server_.Commit({Put("/tb:box/name", "two")});
  EXPECT_EQ(Name(sock), "one");
  cdb_end_session(sock);
  ASSERT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  EXPECT_EQ(Name(sock), "two");
  cdb_close(sock);
}

TEST_F(ClientTest, ADescriptorThatComesAgainIsANewSocket) {
  server_.Commit({Put("/tb:box/name", "one")});
  const int sock = Connect(server_, CDB_READ_SOCKET);
  ASSERT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  close(sock);  // without cdb_close()
  const int again = Connect(server_, CDB_READ_SOCKET);
  ASSERT_EQ(again, sock);
  EXPECT_EQ(cdb_exists(again, "/tb:box/name"), CONFD_ERR) << "the old session is not the new socket's";
  EXPECT_EQ(cdb_start_session(again, CDB_RUNNING), CONFD_OK);
  close(again);
  const int other = NewSocket();  // the number names something else now
  ASSERT_EQ(other, sock);
  EXPECT_EQ(cdb_end_session(other), CONFD_OK);
  EXPECT_EQ(cdb_start_session(other, CDB_RUNNING), CONFD_EOF);
  EXPECT_EQ(cdb_close(other), CONFD_OK);
  EXPECT_EQ(close(other), 0) << "the library closes only what it was given";
}

}  // namespace
