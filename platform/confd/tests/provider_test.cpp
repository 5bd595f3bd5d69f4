// Requests one by one: transactions, delayed answers, answers that come too late, mistakes of the application.
#include "provider_fixture.h"

namespace confd_testing {
namespace {

using ::testing::ElementsAre;

TEST_F(ProviderTest, ServesAListRowByRow) {
  app_.on_init = [&](confd_trans_ctx* tctx) { return confd_trans_set_fd(tctx, worker_); };
  app_.on_next = [](confd_trans_ctx* tctx, confd_hkeypath_t*, long next) {
    const long position = next < 0 ? 0 : next;
    return position < 2 ? ReplyKey(tctx, position, position + 1) : ReplyEnd(tctx);
  };
  app_.on_object = [](confd_trans_ctx* tctx, confd_hkeypath_t* kp) {
    confd_tag_value_t values[2];
    CONFD_SET_TAG_XMLTAG(&values[0], 17, 0);
    CONFD_SET_STR(&values[0].v, "text");
    CONFD_SET_TAG_XMLTAG(&values[1], 18, 0);
    CONFD_SET_INT64(&values[1].v, CONFD_GET_INT64(&kp->v[0][0]));
    return confd_data_reply_tag_value_array(tctx, values, 2);
  };
  Begin(5);
  EXPECT_EQ(Deliver(Read(1, 5)), CONFD_OK);
  const Rows page = server_.Expect<Rows>();
  EXPECT_EQ(page.request, 1U);
  EXPECT_TRUE(page.end);
  const auto row = [](int64_t key) {
    return Row{{{ValueType::kInt64, StoreInt(key)}},
               {{17, 0, {ValueType::kString, "text"}}, {18, 0, {ValueType::kInt64, StoreInt(key)}}}};
  };
  EXPECT_EQ(page.rows, (std::vector<Row>{row(0), row(1)}));
  EXPECT_EQ(Deliver(TransFinish{5}), CONFD_OK);
  EXPECT_THAT(app_.trace,
              ElementsAre("init 5", "next /box/state/row -1", "object /box/state/row{0}", "next /box/state/row 1",
                          "object /box/state/row{1}", "next /box/state/row 2", "finish 5"));
}

TEST_F(ProviderTest, NothingWaitingIsNoError) {
  EXPECT_EQ(confd_fd_ready(daemon_, worker_), CONFD_OK);
  EXPECT_EQ(confd_fd_ready(daemon_, control_), CONFD_OK);
  EXPECT_EQ(confd_fd_ready(daemon_, 1000), CONFD_ERR);
}

TEST_F(ProviderTest, ADelayedAnswerArrivesLater) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  EXPECT_TRUE(server_.IsQuiet());
  app_.on_object = [](confd_trans_ctx* tctx, confd_hkeypath_t*) { return confd_data_reply_not_found(tctx); };
  app_.on_next = [](confd_trans_ctx* tctx, confd_hkeypath_t*, long next) {
    EXPECT_EQ(next, 8);
    return ReplyEnd(tctx);
  };
  EXPECT_EQ(ReplyKey(kept, 7, 8), CONFD_OK);
  EXPECT_FALSE(server_.Expect<Rows>().end);
  EXPECT_EQ(Deliver(Read(2, 5)), CONFD_OK);
  EXPECT_TRUE(server_.Expect<Rows>().end);
}

TEST_F(ProviderTest, ASecondAnswerIsRefused) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  EXPECT_EQ(ReplyKey(kept, 7, 8), CONFD_OK);
  server_.Expect<Rows>();
  ExpectRefused(ReplyKey(kept, 7, 8), "transaction 5 has no open request for this answer: it was answered before");
  ExpectRefused(confd_delayed_reply_error(kept, "x"), "was answered before");
}

TEST_F(ProviderTest, AnAnswerOfAnotherKindIsRefused) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  ExpectRefused(confd_data_reply_not_found(kept), "transaction 5 has no open request for this answer");
  EXPECT_EQ(ReplyKey(kept, 7, 8), CONFD_OK);
}

TEST_F(ProviderTest, ALateAnswerAnswersNobodyElse) {
  confd_trans_ctx* const late = BeginDelayed(5, 1);
  EXPECT_EQ(Deliver(TransFinish{5}), CONFD_OK);
  confd_trans_ctx* const other = BeginDelayed(5, 2);  // the handle comes again
  ASSERT_NE(late, other);
  ExpectRefused(ReplyKey(late, 1, 2), "transaction 5 is over: the answer comes too late");
  EXPECT_EQ(late->thandle, 5);
  EXPECT_EQ(late->dx, daemon_);
  EXPECT_EQ(ReplyKey(other, 3, 4), CONFD_OK);
  EXPECT_EQ(server_.Expect<Rows>().request, 2U);
}

TEST_F(ProviderTest, ALateAnswerAnswersNoLaterRequestOfItsTransaction) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  EXPECT_EQ(Deliver(Read(2, 5)), CONFD_OK);  // the server gave up on request 1 and asks again
  const ReadFailed refused = server_.Expect<ReadFailed>();
  EXPECT_EQ(refused.request, 2U);
  EXPECT_EQ(refused.text, "the provider has not answered an earlier request");
  EXPECT_EQ(ReplyKey(kept, 7, 8), CONFD_OK);
  EXPECT_EQ(server_.Expect<Rows>().request, 1U);
}

TEST_F(ProviderTest, AContextOwedAnAnswerOutlivesThousandsOfOthers) {
  confd_trans_ctx* const late = BeginDelayed(5, 1);
  EXPECT_EQ(Deliver(TransFinish{5}), CONFD_OK);
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(Deliver(TransInit{100 + i, ""}), CONFD_OK);
    ASSERT_EQ(server_.Expect<TransInitReply>().error, "");
    ASSERT_EQ(Deliver(TransFinish{100 + i}), CONFD_OK);
  }
  ExpectRefused(ReplyKey(late, 1, 2), "transaction 5 is over: the answer comes too late");
  ExpectRefused(ReplyKey(late, 1, 2), "transaction 5 is over: the answer comes too late");
}

TEST_F(ProviderTest, AnswersAfterTheConnectionIsGone) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  server_.Kill();
  EXPECT_EQ(confd_fd_ready(daemon_, worker_), CONFD_EOF);
  EXPECT_EQ(confd_fd_ready(daemon_, control_), CONFD_EOF);
  EXPECT_EQ(confd_fd_ready(daemon_, control_), CONFD_EOF);
  EXPECT_EQ(ReplyKey(kept, 1, 2), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "transaction 5: its connection is gone");
}

TEST_F(ProviderTest, AnswersBeforeTheLossWasNoticed) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  server_.Kill();
  EXPECT_EQ(ReplyKey(kept, 1, 2), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "transaction 5: its connection is gone");
  EXPECT_EQ(ReplyKey(kept, 1, 2), CONFD_ERR);
}

TEST_F(ProviderTest, AnswersAfterTheDaemonContextWasReleased) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  Disconnect();
  EXPECT_EQ(ReplyKey(kept, 1, 2), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "transaction 5: its daemon context was released");
  EXPECT_EQ(&App(kept), &app_) << "the daemon context is still there";
  Connect();  // the descriptors' numbers come again
  EXPECT_EQ(ReplyKey(kept, 1, 2), CONFD_ERR);
  EXPECT_TRUE(server_.IsQuiet());
}

TEST_F(ProviderTest, ADescriptorClosedBehindTheLibraryIsNotWrittenTo) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
  ASSERT_EQ(dup2(pair[0], worker_), worker_);  // the number now names another socket
  EXPECT_EQ(ReplyKey(kept, 1, 2), CONFD_ERR);
  char byte = 0;
  EXPECT_EQ(recv(pair[1], &byte, 1, MSG_DONTWAIT), -1);
  close(pair[0]);
  close(pair[1]);
}

TEST_F(ProviderTest, UnknownContextsAreRefused) {
  confd_trans_ctx stranger{};
  EXPECT_EQ(ReplyKey(&stranger, 1, 2), CONFD_ERR);
  EXPECT_EQ(confd_data_reply_not_found(nullptr), CONFD_ERR);
  EXPECT_THAT(confd_lasterr(), HasSubstr("no such transaction context"));
  confd_daemon_ctx other{};
  EXPECT_EQ(confd_fd_ready(&other, worker_), CONFD_ERR);
  EXPECT_EQ(confd_register_done(&other), CONFD_ERR);
}

struct BadCallback {
  const char* name;
  std::function<int(confd_trans_ctx*)> callback;
  const char* error;
};

class ProviderMistake : public ProviderTest, public ::testing::WithParamInterface<BadCallback> {};

TEST_P(ProviderMistake, IsToldToTheServer) {
  app_.on_next = [](confd_trans_ctx* tctx, confd_hkeypath_t*, long) { return GetParam().callback(tctx); };
  Begin(5);
  EXPECT_EQ(Deliver(Read(9, 5)), CONFD_OK);
  const ReadFailed reply = server_.Expect<ReadFailed>();
  EXPECT_EQ(reply.request, 9U);
  EXPECT_EQ(reply.text, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    All, ProviderMistake,
    ::testing::Values(
        BadCallback{"NoAnswer", [](confd_trans_ctx*) { return CONFD_OK; }, "the provider's callback gave no answer"},
        BadCallback{"Failure", [](confd_trans_ctx*) { return CONFD_ERR; }, "the provider's callback failed"},
        BadCallback{"ErrorText", [](confd_trans_ctx* tctx) { return confd_delayed_reply_error(tctx, "no data"); },
                    "no data"},
        BadCallback{"TooManyKeys",
                    [](confd_trans_ctx* tctx) {
                      confd_value_t keys[2];
                      CONFD_SET_INT64(&keys[0], 1);
                      CONFD_SET_INT64(&keys[1], 1);
                      EXPECT_EQ(confd_data_reply_next_key(tctx, keys, 2, 0), CONFD_ERR);
                      EXPECT_STREQ(confd_lasterr(), "row has 1 keys, not 2");
                      return CONFD_OK;
                    },
                    "the provider's callback gave no answer"},
        BadCallback{"KeyOfAnotherType",
                    [](confd_trans_ctx* tctx) {
                      confd_value_t key;
                      CONFD_SET_INT32(&key, 1);
                      EXPECT_EQ(confd_data_reply_next_key(tctx, &key, 1, 0), CONFD_ERR);
                      EXPECT_STREQ(confd_lasterr(), "key position of row is of type int64");
                      return CONFD_ERR;
                    },
                    "the provider's callback failed"}),
    [](const auto& row) { return row.param.name; });

TEST_F(ProviderTest, RequestsThatCannotBeServedAreRefused) {
  Begin(5);
  EXPECT_EQ(Deliver(Read(1, 6)), CONFD_OK);
  EXPECT_EQ(server_.Expect<ReadFailed>().text, "the provider knows no such transaction");
  ReadRows other = Read(2, 5);
  other.callpoint = "else";
  EXPECT_EQ(Deliver(other), CONFD_OK);
  EXPECT_EQ(server_.Expect<ReadFailed>().text, "the provider has no callpoint else");
  other = Read(3, 5);
  other.node = 60000;
  EXPECT_EQ(Deliver(other), CONFD_OK);
  EXPECT_EQ(server_.Expect<ReadFailed>().text, "the provider has another data model");
  EXPECT_THAT(app_.trace, ElementsAre("init 5"));
}

TEST_F(ProviderTest, ATransactionCanBeRefused) {
  app_.on_init = [](confd_trans_ctx*) { return CONFD_ERR; };
  EXPECT_EQ(Deliver(TransInit{5, ""}), CONFD_OK);
  EXPECT_EQ(server_.Expect<TransInitReply>().error, "the provider refused the transaction");
}

TEST_F(ProviderTest, TheWorkerSocketMustBeTheDaemons) {
  app_.on_init = [](confd_trans_ctx* tctx) {
    EXPECT_EQ(confd_trans_set_fd(tctx, 1000), CONFD_ERR);
    EXPECT_STREQ(confd_lasterr(), "socket 1000 is not a worker socket of this daemon context");
    return CONFD_OK;
  };
  Begin(5);
}

TEST_F(ProviderTest, ACallbackMayReleaseItsOwnDaemon) {
  app_.on_next = [&](confd_trans_ctx*, confd_hkeypath_t*, long) {
    confd_release_daemon(daemon_);
    return CONFD_OK;
  };
  Begin(5);
  EXPECT_EQ(Deliver(Read(1, 5)), CONFD_OK);
  EXPECT_TRUE(server_.IsQuiet());
  daemon_ = nullptr;
}

TEST_F(ProviderTest, RegistrationsAreChecked) {
  confd_data_cbs cbs{};
  EXPECT_EQ(confd_register_data_cb(daemon_, &cbs), CONFD_ERR);
  memset(cbs.callpoint, 'x', sizeof cbs.callpoint);
  EXPECT_EQ(confd_register_data_cb(daemon_, &cbs), CONFD_ERR);
  EXPECT_EQ(confd_register_data_cb(daemon_, nullptr), CONFD_ERR);
  EXPECT_EQ(confd_register_trans_cb(daemon_, nullptr), CONFD_ERR);
}

TEST_F(ProviderTest, UnsupportedMembersAreRefused) {
  const auto refusal = [&](const std::function<void(confd_data_cbs&)>& set) {
    confd_data_cbs cbs{};
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "rows");
    cbs.get_next = OnNext;
    cbs.get_object = OnObject;
    set(cbs);
    return confd_register_data_cb(daemon_, &cbs) == CONFD_OK ? "" : std::string{confd_lasterr()};
  };
  const auto path_callback = [](confd_trans_ctx*, confd_hkeypath_t*) { return CONFD_OK; };
  const std::string end = " is not supported and must be zero";
  EXPECT_EQ(refusal([](confd_data_cbs&) {}), "");
  EXPECT_EQ(refusal([&](confd_data_cbs& cbs) { cbs.exists_optional = path_callback; }),
            "callpoint rows: exists_optional" + end);
  EXPECT_EQ(refusal([&](confd_data_cbs& cbs) { cbs.get_elem = path_callback; }), "callpoint rows: get_elem" + end);
  EXPECT_EQ(refusal([&](confd_data_cbs& cbs) { cbs.num_instances = path_callback; }),
            "callpoint rows: num_instances" + end);
  EXPECT_EQ(refusal([&](confd_data_cbs& cbs) { cbs.cb_opaque = &cbs; }), "callpoint rows: cb_opaque" + end);
  EXPECT_EQ(refusal([&](confd_data_cbs& cbs) { cbs.flags = 1; }), "callpoint rows: flags" + end);
}

TEST_F(ProviderTest, ControlComesBeforeWorker) {
  confd_daemon_ctx* const other = confd_init_daemon("other");
  EXPECT_STREQ(other->name, "other");
  const int sock = NewSocket();
  const sockaddr_un address = server_.address();
  EXPECT_EQ(confd_connect(other, sock, WORKER_SOCKET, reinterpret_cast<const sockaddr*>(&address), sizeof address),
            CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "the control socket is connected before a worker socket");
  EXPECT_EQ(confd_register_done(other), CONFD_ERR);
  confd_release_daemon(other);
  confd_release_daemon(other);  // a second time does nothing
  close(sock);
}

}  // namespace
}  // namespace confd_testing
