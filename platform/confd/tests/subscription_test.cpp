// Subscriptions: messages, acknowledgements and what a process sees while it handles one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cdb_store_testing/models.h"
#include "confd_testing/sockets.h"

namespace {

using confd_testing::Connect;
using confd_testing::Put;
using confd_testing::Subscriber;
using confd_testing::TestServer;
using namespace confd_wire;
using ::testing::HasSubstr;

class SubscriptionTest : public ::testing::Test {
 protected:
  ~SubscriptionTest() override { cdb_close(reader_); }
  std::string Read(cdb_db_type db) {
    char text[64] = "";
    if (cdb_start_session(reader_, db) != CONFD_OK) return confd_lasterr();
    const int result = cdb_get_str(reader_, text, sizeof text, "/tb:box/name");
    cdb_end_session(reader_);
    return result == CONFD_OK ? text : "none";
  }
  static confd_iter_ret Count(confd_hkeypath_t*, confd_iter_op, confd_value_t*, confd_value_t*, void* state) {
    ++*static_cast<int*>(state);
    return ITER_RECURSE;
  }

  TestServer server_{cdb_store::testing::BoxSchema()};
  const int reader_ = Connect(server_, CDB_READ_SOCKET);
};

TEST_F(SubscriptionTest, TellsTheServerWhatIsWanted) {
  const int sock = Connect(server_, CDB_SUBSCRIPTION_SOCKET);
  const auto schema = cdb_store::testing::BoxSchema();
  int first = 0;
  int second = 0;
  EXPECT_EQ(cdb_subscribe(sock, -3, cdb_store::testing::kBoxHash, &first, "/box/site/where/floor"), CONFD_OK);
  EXPECT_EQ(cdb_subscribe(sock, 1, 0, &second, "/tb:box/site{%s}", "a"), CONFD_OK);
  EXPECT_EQ(cdb_subscribe_done(sock), CONFD_OK);
  EXPECT_GT(first, 0);
  EXPECT_NE(first, second);
  const auto floor = server_.Expect<Subscribe>();
  EXPECT_EQ(floor.priority, -3);
  EXPECT_EQ(floor.ns_hash, cdb_store::testing::kBoxHash);
  EXPECT_EQ(floor.node, schema.FindPath("/tb:box/site/where/floor")->id);
  EXPECT_EQ(floor.keys, "");
  EXPECT_EQ(floor.path, "/box/site/where/floor");
  EXPECT_EQ(floor.schema, schema.Fingerprint());
  const auto site = server_.Expect<Subscribe>();
  EXPECT_EQ(site.node, schema.FindPath("/tb:box/site")->id);
  EXPECT_EQ(site.keys, std::string("a\0\1", 3));
  server_.Expect<SubscribeDone>();
  EXPECT_EQ(cdb_subscribe(sock, 1, 0, &second, "/tb:box"), CONFD_ERR) << "after done";
  EXPECT_EQ(cdb_subscribe_done(sock), CONFD_ERR);
  cdb_close(sock);
}

TEST_F(SubscriptionTest, BadSubscriptionsAreRefusedHere) {
  const int sock = Connect(server_, CDB_SUBSCRIPTION_SOCKET);
  int point = -1;
  const std::pair<const char*, const char*> cases[] = {
      {"/tb:box/nope", "there is no node \"nope\" below /tb:box"},
      {"/tb:box/site[0]", "has a position where keys are wanted"},
      {"/tb:box/site/where/floor{1}", "has keys below a list without keys"},
      {"/tb:box/state/row", "is operational data, which has no commits"},
      {"/twin", "several modules have a top node \"twin\""},
      {"/tb:box/%s", "'%s' has no argument"}};
  for (const auto& [path, text] : cases) {
    EXPECT_EQ(cdb_subscribe(sock, 0, 0, &point, path), CONFD_ERR);
    EXPECT_THAT(confd_lasterr(), HasSubstr(text));
  }
  EXPECT_EQ(cdb_subscribe(sock, 0, 99, &point, "/tb:box"), CONFD_ERR) << "no such namespace";
  EXPECT_EQ(cdb_subscribe(sock, 0, 0, nullptr, "/tb:box"), CONFD_ERR);
  EXPECT_EQ(point, -1);
  cdb_close(sock);
}

TEST_F(SubscriptionTest, OneMessageFromReadToSync) {
  Subscriber subscriber(server_, {"/tb:box/name", "/tb:box/site"}, 0);
  const uint64_t txid = server_.Commit({Put("/tb:box/name", "one")});
  subscriber.Deliver(txid);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_OK);
  const auto sync = server_.Expect<Sync>();
  EXPECT_EQ(sync.txid, txid);
  EXPECT_EQ(sync.kind, SyncKind::kDonePriority);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("has no message to acknowledge"));
  subscriber.Deliver(server_.Commit({Put("/tb:box/name", "two")}));
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, static_cast<cdb_subscription_sync_type>(7)), CONFD_ERR);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_SOCKET), CONFD_OK);
  EXPECT_EQ(server_.Expect<Sync>().kind, SyncKind::kDoneSocket);
}

TEST_F(SubscriptionTest, AllSessionsShareTheMessagesSnapshot) {
  server_.Commit({Put("/tb:box/name", "one")});
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  const uint64_t txid = server_.Commit({Put("/tb:box/name", "two")});
  subscriber.Deliver(txid);
  // The server gives up waiting and goes on with other commits.
  server_.Commit({Put("/tb:box/name", "three")});
  server_.Commit({Put("/tb:box/name", "four")});
  EXPECT_EQ(Read(CDB_RUNNING), "two");
  EXPECT_EQ(Read(CDB_PRE_COMMIT_RUNNING), "one");
  int calls = 0;
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], Count, 0, &calls), CONFD_OK);
  EXPECT_EQ(calls, 1);
  cdb_txid seen{};
  EXPECT_EQ(cdb_get_txid(reader_, &seen), CONFD_OK);
  EXPECT_EQ(seen.s3, txid);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_OK);
  EXPECT_EQ(Read(CDB_RUNNING), "four");
  EXPECT_EQ(Read(CDB_PRE_COMMIT_RUNNING), "three");
}

TEST_F(SubscriptionTest, ACommitCountsAsReadOnceAllItsMessagesCame) {
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  const auto seen = [&] {
    cdb_txid txid{};
    EXPECT_EQ(cdb_get_txid(reader_, &txid), CONFD_OK) << confd_lasterr();
    return uint64_t{txid.s3};
  };
  const uint64_t txid = server_.Commit({Put("/tb:box/name", "one")});
  subscriber.Deliver(txid, true);
  EXPECT_EQ(seen(), txid - 1);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_OK);
  EXPECT_EQ(seen(), txid - 1);
  subscriber.Deliver(txid);
  EXPECT_EQ(seen(), txid);
  // Dropped before it was done: what it has handled so far is not the whole commit.
  server_.Close(subscriber.connection);
  EXPECT_EQ(seen(), txid - 1);
}

TEST_F(SubscriptionTest, ADroppedSubscribersMessageHoldsNobodyBack) {
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  subscriber.Deliver(server_.Commit({Put("/tb:box/name", "one")}));
  server_.Commit({Put("/tb:box/name", "two")});
  EXPECT_EQ(Read(CDB_RUNNING), "one");
  server_.Close(subscriber.connection);
  EXPECT_EQ(Read(CDB_RUNNING), "two");
  int points[1];
  int count = 0;
  EXPECT_EQ(cdb_read_subscription_socket(subscriber.sock, points, &count), CONFD_EOF);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_ERR);
}

TEST_F(SubscriptionTest, AnUnacknowledgedMessageEndsWithItsSocket) {
  {
    Subscriber subscriber(server_, {"/tb:box/name"}, 0);
    subscriber.Deliver(server_.Commit({Put("/tb:box/name", "one")}));
    server_.Commit({Put("/tb:box/name", "two")});
    EXPECT_EQ(Read(CDB_RUNNING), "one");
  }
  EXPECT_EQ(Read(CDB_RUNNING), "two");
}

TEST_F(SubscriptionTest, TheServerDiesWhileAMessageIsHandled) {
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  subscriber.Deliver(server_.Commit({Put("/tb:box/name", "one")}));
  ASSERT_EQ(cdb_start_session(reader_, CDB_RUNNING), CONFD_OK);
  server_.Kill();
  int calls = 0;
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], Count, 0, &calls), CONFD_OK);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(cdb_exists(reader_, "/tb:box/name"), 1);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_EOF);
  int points[1];
  int count = 0;
  EXPECT_EQ(cdb_read_subscription_socket(subscriber.sock, points, &count), CONFD_EOF);
}

TEST_F(SubscriptionTest, AWalkNeedsItsCommitsChanges) {
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  int calls = 0;
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], Count, 0, &calls), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("has no message whose changes could be walked"));
  const uint64_t first = server_.Commit({Put("/tb:box/name", "one")});
  server_.Commit({Put("/tb:box/name", "two")});
  subscriber.Deliver(first);  // read too late
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], Count, 0, &calls), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("the changes of commit 1 are no longer kept"));
  EXPECT_EQ(calls, 0);
}

TEST_F(SubscriptionTest, WalksCheckTheirArguments) {
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  subscriber.Deliver(server_.Commit({Put("/tb:box/name", "one")}));
  int calls = 0;
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, 12345, Count, 0, &calls), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("has no subscription point 12345"));
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], nullptr, 0, &calls), CONFD_ERR);
  EXPECT_EQ(cdb_diff_iterate(reader_, subscriber.points[0], Count, 0, &calls), CONFD_ERR);
  const auto bad = [](confd_hkeypath_t*, confd_iter_op, confd_value_t*, confd_value_t*, void*) {
    return static_cast<confd_iter_ret>(9);
  };
  EXPECT_EQ(cdb_diff_iterate(subscriber.sock, subscriber.points[0], bad, 0, nullptr), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "the iterator answered 9, which means nothing");
}

TEST_F(SubscriptionTest, AMessageThatMakesNoSenseEndsTheConnection) {
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  server_.SendBytes(subscriber.connection, "nonsense");
  int points[1];
  int count = 0;
  EXPECT_EQ(cdb_read_subscription_socket(subscriber.sock, points, &count), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("unexpected message from the server"));
  EXPECT_EQ(cdb_read_subscription_socket(subscriber.sock, points, &count), CONFD_EOF);
}

TEST_F(SubscriptionTest, MorePointsThanSubscribedAreNeverWritten) {
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  server_.Send(subscriber.connection, Trigger{0, 0, {1, 2, 3}});
  int points[1] = {77};
  int count = 77;
  EXPECT_EQ(cdb_read_subscription_socket(subscriber.sock, points, &count), CONFD_ERR);
  EXPECT_EQ(points[0], 77);
  EXPECT_EQ(count, 77);
}

TEST_F(SubscriptionTest, AnEmptyMessageIsReadAndAcknowledged) {
  Subscriber subscriber(server_, {"/tb:box/name"}, 0);
  server_.Send(subscriber.connection, Trigger{0, 0, {}});
  int points[1];
  int count = 77;
  EXPECT_EQ(cdb_read_subscription_socket(subscriber.sock, points, &count), CONFD_OK);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(cdb_sync_subscription_socket(subscriber.sock, CDB_DONE_PRIORITY), CONFD_OK);
}

}  // namespace
