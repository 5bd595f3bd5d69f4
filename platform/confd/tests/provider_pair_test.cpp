// A row's object and the key after it, asked for together; rows that the library goes on to by itself.
#include "provider_fixture.h"

namespace confd_testing {
namespace {

/// What the application's callbacks do, in the order in which they are called: "answer", "delay" (and answer when told
/// to), "fail", "end" (a key: the end of the list), "release" (its own daemon, after the answer).
struct Pair {
  std::string name;
  std::string packet;                ///< "object 0, key 1": what the server asks for in one packet
  uint16_t ahead = 0;                ///< of its GetNext
  std::vector<std::string> actions;  ///< of the callbacks, one after the other
  std::vector<std::string> trace;    ///< calls and packets, in their order
};

class ProviderPair : public ProviderTest, public ::testing::WithParamInterface<Pair> {
 protected:
  ProviderPair() {
    app_.on_next = [this](confd_trans_ctx* tctx, confd_hkeypath_t*, long next) {
      kept_ = tctx;
      const std::string action = Act("key " + std::to_string(next));
      if (action == "delay") delayed_key_ = next;
      if (action == "delay") return CONFD_DELAYED_RESPONSE;
      if (action == "fail") return CONFD_ERR;
      return action == "end" ? confd_data_reply_next_key(tctx, nullptr, -1, -1) : Finish(action, AnswerKey(next));
    };
    app_.on_object = [this](confd_trans_ctx* tctx, confd_hkeypath_t* kp) {
      kept_ = tctx;
      const std::string action = Act("object " + std::to_string(CONFD_GET_INT64(&kp->v[0][0])));
      if (action == "delay") return CONFD_DELAYED_RESPONSE;
      if (action == "fail") return CONFD_ERR;
      return Finish(action, action == "gone" ? confd_data_reply_not_found(tctx) : AnswerObject());
    };
  }

  std::string Act(const std::string& call) {
    trace_.push_back(call);
    EXPECT_LT(calls_, GetParam().actions.size()) << call;
    return calls_ < GetParam().actions.size() ? GetParam().actions[calls_++] : "fail";
  }
  int Finish(const std::string& action, int result) {
    if (action != "release") return result;
    confd_release_daemon(daemon_);
    released_ = true;
    return result;
  }
  int AnswerKey(long next) { return ReplyKey(kept_, next < 0 ? 0 : next, next < 0 ? 1 : next + 1); }
  int AnswerObject() {
    confd_tag_value_t value;
    CONFD_SET_TAG_XMLTAG(&value, 17, 0);
    CONFD_SET_INT64(&value.v, 1);
    return confd_data_reply_tag_value_array(kept_, &value, 1);
  }
  /// Appends the packets that have come to the trace: "> 10 key 1, 11 object".
  void TracePackets() {
    uint64_t last = 0;
    while (!server_.IsQuiet()) {
      const Packet packet = server_.Receive();
      const std::string text = Text(packet.bytes);
      if (packet.number == last)
        trace_.back() += ", " + text;
      else
        trace_.push_back("> " + text);
      last = packet.number;
    }
  }
  static std::string Text(const std::string& message) {
    if (const auto key = Decode<NextKeyReply>(message)) {
      if (key->end) return std::to_string(key->request) + " end";
      return std::to_string(key->request) + " key " +
             std::to_string(cdb_store::LoadInt<int64_t>(key->keys.at(0).stored)) + (key->goes_on ? " goes on" : "");
    }
    if (const auto object = Decode<ObjectReply>(message)) return std::to_string(object->request) + " object";
    if (const auto gone = Decode<NotFoundReply>(message)) return std::to_string(gone->request) + " gone";
    if (const auto error = Decode<ErrorReply>(message)) return std::to_string(error->request) + " " + error->text;
    return message.empty() ? "closed" : "something else";
  }

  confd_trans_ctx* kept_ = nullptr;
  std::vector<std::string> trace_;
  size_t calls_ = 0;
  long delayed_key_ = 0;
  bool released_ = false;
};

TEST_P(ProviderPair, IsServedLikeThis) {
  Begin(5);
  PacketOfSeveral packet;
  if (GetParam().packet.starts_with("object")) packet.Add(Object(10, 5, 0));
  if (GetParam().packet.ends_with("key 1")) {
    GetNext next = Next(11, 5, 1);
    next.ahead = GetParam().ahead;
    packet.Add(next);
  }
  server_.SendBytes(worker_id_, packet.Take());
  EXPECT_EQ(HandleOne(worker_), CONFD_OK);
  TracePackets();
  // What was delayed is answered now: the object first, then the key.
  if (released_) daemon_ = nullptr;
  for (const bool object : {true, false}) {
    if (kept_ == nullptr) continue;
    const int result = object ? AnswerObject() : AnswerKey(delayed_key_);
    if (result == CONFD_OK) trace_.emplace_back("later");
    TracePackets();
  }
  EXPECT_EQ(trace_, GetParam().trace);
}

constexpr const char* kFailed = "the provider's callback failed";

INSTANTIATE_TEST_SUITE_P(
    All, ProviderPair,
    ::testing::Values(
        Pair{"BothAtOnce", "object 0, key 1", 0, {"answer", "answer"}, {"object 0", "key 1", "> 10 object, 11 key 1"}},
        Pair{"TheEndOfTheList", "object 0, key 1", 8, {"answer", "end"}, {"object 0", "key 1", "> 10 object, 11 end"}},
        Pair{"TheObjectDelayed",
             "object 0, key 1",
             8,
             {"delay", "answer"},
             {"object 0", "key 1", "> 11 key 1", "later", "> 10 object"}},
        Pair{"TheObjectDelayedAndTheEnd",
             "object 0, key 1",
             8,
             {"delay", "end"},
             {"object 0", "key 1", "> 11 end", "later", "> 10 object"}},
        Pair{"TheKeyDelayed",
             "object 0, key 1",
             8,
             {"answer", "delay"},
             {"object 0", "key 1", "> 10 object", "later", "> 11 key 1"}},
        Pair{"BothDelayed",
             "object 0, key 1",
             8,
             {"delay", "delay"},
             {"object 0", "key 1", "later", "> 10 object", "later", "> 11 key 1"}},
        Pair{"TheObjectFails",
             "object 0, key 1",
             0,
             {"fail", "answer"},
             {"object 0", "key 1", std::string{"> 10 "} + kFailed + ", 11 key 1"}},
        Pair{"TheKeyFails",
             "object 0, key 1",
             8,
             {"answer", "fail"},
             {"object 0", "key 1", std::string{"> 10 object, 11 "} + kFailed}},
        Pair{"TheRowIsGone", "object 0, key 1", 0, {"gone", "end"}, {"object 0", "key 1", "> 10 gone, 11 end"}},
        Pair{"GoingOn",
             "object 0, key 1",
             8,
             {"answer", "answer", "answer", "answer", "answer", "end"},
             {"object 0", "key 1", "object 1", "key 2", "object 2", "key 3",
              "> 10 object, 11 key 1 goes on, 12 object, 13 key 2 goes on, 14 object, 15 end"}},
        Pair{"GoingOnAsFarAsAllowed",
             "object 0, key 1",
             1,
             {"answer", "answer", "answer", "answer"},
             {"object 0", "key 1", "object 1", "key 2", "> 10 object, 11 key 1 goes on, 12 object, 13 key 2"}},
        Pair{"GoingOnUntilAnObjectIsDelayed",
             "object 0, key 1",
             8,
             {"answer", "answer", "delay", "answer"},
             {"object 0", "key 1", "object 1", "key 2", "> 10 object, 11 key 1 goes on, 13 key 2", "later",
              "> 12 object"}},
        Pair{"GoingOnUntilAKeyIsDelayed",
             "object 0, key 1",
             8,
             {"answer", "answer", "answer", "delay"},
             {"object 0", "key 1", "object 1", "key 2", "> 10 object, 11 key 1 goes on, 12 object", "later",
              "> 13 key 2"}},
        Pair{"GoingOnFromTheFirstKey",
             "key 1",
             8,
             {"answer", "gone", "end"},
             {"key 1", "object 1", "key 2", "> 11 key 1 goes on, 12 gone, 13 end"}},
        Pair{"ReleasedBetweenTheTwo", "object 0, key 1", 8, {"release"}, {"object 0"}},
        Pair{"ReleasedWhileGoingOn",
             "object 0, key 1",
             8,
             {"answer", "answer", "release"},
             {"object 0", "key 1", "object 1"}},
        Pair{"ReleasedByTheKey", "object 0, key 1", 8, {"answer", "release"}, {"object 0", "key 1"}}),
    [](const auto& row) { return row.param.name; });

class ProviderPairs : public ProviderTest {
 protected:
  /// A pair in one packet, not yet handled.
  void SendPair(int thandle, uint64_t request, uint16_t ahead = 0) {
    PacketOfSeveral packet;
    packet.Add(Object(request, thandle, 0));
    GetNext next = Next(request + 1, thandle, 1);
    next.ahead = ahead;
    packet.Add(next);
    server_.SendBytes(worker_id_, packet.Take());
  }
  static int Gone(confd_trans_ctx* tctx, confd_hkeypath_t*) { return confd_data_reply_not_found(tctx); }
  static int End(confd_trans_ctx* tctx, confd_hkeypath_t*, long) {
    return confd_data_reply_next_key(tctx, nullptr, -1, -1);
  }
};

TEST_F(ProviderPairs, AFinishedOneIsAnsweredByNobodyLater) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  app_.on_object = [](confd_trans_ctx*, confd_hkeypath_t*) { return CONFD_DELAYED_RESPONSE; };
  app_.on_next = [](confd_trans_ctx*, confd_hkeypath_t*, long) { return CONFD_DELAYED_RESPONSE; };
  EXPECT_EQ(ReplyKey(kept, 0, 1), CONFD_OK);
  EXPECT_FALSE(server_.Expect<NextKeyReply>().goes_on) << "it was not answered by its callback";
  SendPair(5, 2, 8);
  EXPECT_EQ(HandleOne(worker_), CONFD_OK);
  EXPECT_EQ(Deliver(TransFinish{5}), CONFD_OK);
  ExpectRefused(confd_data_reply_not_found(kept), "transaction 5 is over: the answer comes too late");
  ExpectRefused(ReplyKey(kept, 1, 2), "transaction 5 is over: the answer comes too late");
}

TEST_F(ProviderPairs, OneWithAFinishInThePacketIsOverForItsRest) {
  app_.on_object = [](confd_trans_ctx*, confd_hkeypath_t*) { return CONFD_DELAYED_RESPONSE; };
  Begin(5);
  PacketOfSeveral packet;
  packet.Add(Object(10, 5, 0));
  packet.Add(TransFinish{5});
  packet.Add(Next(11, 5, 1));
  server_.SendBytes(worker_id_, packet.Take());
  EXPECT_EQ(HandleOne(worker_), CONFD_OK);
  const ErrorReply refused = server_.Expect<ErrorReply>();
  EXPECT_EQ(refused.request, 11U);
  EXPECT_EQ(refused.text, "the provider knows no such transaction");
}

TEST_F(ProviderPairs, AnotherTransactionsLateAnswerTravelsWithThem) {
  confd_trans_ctx* const late = BeginDelayed(5, 1);
  Begin(6);
  app_.on_object = [late](confd_trans_ctx* tctx, confd_hkeypath_t*) {
    EXPECT_EQ(ReplyKey(late, 7, 8), CONFD_OK);
    return confd_data_reply_not_found(tctx);
  };
  app_.on_next = End;
  SendPair(6, 10, 8);
  EXPECT_EQ(HandleOne(worker_), CONFD_OK);
  const NextKeyReply first = server_.Expect<NextKeyReply>();
  EXPECT_EQ(first.request, 1U);
  EXPECT_FALSE(first.goes_on);
  EXPECT_EQ(server_.Expect<NotFoundReply>().request, 10U);
  EXPECT_EQ(server_.Expect<NextKeyReply>().request, 11U);
}

TEST_F(ProviderPairs, ALossThatIsNoticedWithTheAnswersEndsTheTransaction) {
  confd_trans_ctx* kept = nullptr;
  app_.on_object = [&](confd_trans_ctx* tctx, confd_hkeypath_t*) {
    kept = tctx;
    server_.Kill();
    return confd_data_reply_not_found(tctx);
  };
  app_.on_next = [](confd_trans_ctx*, confd_hkeypath_t*, long) { return CONFD_DELAYED_RESPONSE; };
  Begin(5);
  SendPair(5, 10);
  EXPECT_EQ(HandleOne(worker_), CONFD_EOF);
  EXPECT_EQ(ReplyKey(kept, 1, 2), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "transaction 5: its connection is gone");
}

TEST_F(ProviderPairs, TheLibraryDoesNotGoOnForever) {
  size_t calls = 0;
  app_.on_object = Gone;
  app_.on_next = [&](confd_trans_ctx* tctx, confd_hkeypath_t*, long next) {
    ++calls;
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds{6}) continue;  // busy, as a slow one is
    return ReplyKey(tctx, next, next + 1);
  };
  Begin(5);
  SendPair(5, 10, 1000);
  EXPECT_EQ(HandleOne(worker_), CONFD_OK);
  EXPECT_GE(calls, 2U);
  EXPECT_LE(calls, 3U);
  EXPECT_TRUE(server_.Expect<NextKeyReply>().goes_on);
}

TEST_F(ProviderPairs, AnswersThatDoNotFitInOnePacketTravelInSeveral) {
  const std::string text(confd_wire::kMaxMessage / 3, 'x');
  app_.on_object = [&](confd_trans_ctx* tctx, confd_hkeypath_t*) {
    confd_tag_value_t value;
    CONFD_SET_TAG_XMLTAG(&value, 17, 0);
    CONFD_SET_STR(&value.v, text.c_str());
    return confd_data_reply_tag_value_array(tctx, &value, 1);
  };
  app_.on_next = [](confd_trans_ctx* tctx, confd_hkeypath_t*, long next) {
    return next < 5 ? ReplyKey(tctx, next, next + 1) : confd_data_reply_next_key(tctx, nullptr, -1, -1);
  };
  Begin(5);
  SendPair(5, 10, 8);
  EXPECT_EQ(HandleOne(worker_), CONFD_OK);
  for (uint64_t row = 0; row < 5; ++row) {
    const ObjectReply object = server_.Expect<ObjectReply>();
    EXPECT_EQ(object.request, 10 + 2 * row);
    EXPECT_EQ(object.values.at(0).value.stored, text);
  }
  EXPECT_TRUE(server_.Expect<NextKeyReply>().request > 10);
}

}  // namespace
}  // namespace confd_testing
