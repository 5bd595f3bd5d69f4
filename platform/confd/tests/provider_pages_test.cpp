// Pages of rows: the order of the callbacks, and what ends a page.
#include "provider_fixture.h"

namespace confd_testing {
namespace {

/// What the application's callbacks do, in the order in which they are called: "answer", "delay" (and answer when told
/// to), "fail", "gone" (an object: there is none), "end" (a key: the end of the list), "release" (its own daemon, after
/// the answer).
struct Reading {
  std::string name;
  std::vector<std::string> pages;    ///< what the server asks for: "from -1", "limit 2 from 3", "later" (see above)
  std::vector<std::string> actions;  ///< of the callbacks, one after the other
  std::vector<std::string> trace;    ///< calls and answers, in their order
};

class ProviderPages : public ProviderTest {
 protected:
  std::string Act(const std::string& call) {
    trace_.push_back(call);
    EXPECT_LT(calls_, actions_.size()) << call;
    return calls_ < actions_.size() ? actions_[calls_++] : "fail";
  }
  int Finish(const std::string& action, int result) {
    if (action != "release") return result;
    confd_release_daemon(daemon_);
    daemon_ = nullptr;
    return result;
  }
  void ActAsTold() {
    app_.on_next = [this](confd_trans_ctx* tctx, confd_hkeypath_t*, long next) {
      kept_ = tctx;
      const std::string action = Act("key " + std::to_string(next));
      later_ = [this, next] { return AnswerKey(next); };
      if (action == "delay") return CONFD_DELAYED_RESPONSE;
      if (action == "fail") return CONFD_ERR;
      return action == "end" ? ReplyEnd(tctx) : Finish(action, AnswerKey(next));
    };
    app_.on_object = [this](confd_trans_ctx* tctx, confd_hkeypath_t* kp) {
      kept_ = tctx;
      const std::string action = Act("object " + std::to_string(CONFD_GET_INT64(&kp->v[0][0])));
      later_ = [this] { return AnswerObject(); };
      if (action == "delay") return CONFD_DELAYED_RESPONSE;
      if (action == "fail") return CONFD_ERR;
      return Finish(action, action == "gone" ? confd_data_reply_not_found(tctx) : AnswerObject());
    };
  }
  int AnswerKey(long next) { return ReplyKey(kept_, next < 0 ? 0 : next, next < 0 ? 1 : next + 1); }
  int AnswerObject() {
    confd_tag_value_t value;
    CONFD_SET_TAG_XMLTAG(&value, 17, 0);
    CONFD_SET_INT64(&value.v, 1);
    return confd_data_reply_tag_value_array(kept_, &value, 1);
  }
  /// Appends the answers that have come: "> 1: 0 1 next 2".
  void TraceAnswers() {
    while (!server_.IsQuiet()) trace_.push_back("> " + Text(server_.Receive().bytes));
  }
  static std::string Text(const std::string& message) {
    if (const auto failed = Decode<ReadFailed>(message)) return std::to_string(failed->request) + ": " + failed->text;
    const auto page = Decode<Rows>(message);
    if (!page) return message.empty() ? "closed" : "something else";
    std::string text = std::to_string(page->request) + ":";
    for (const Row& row : page->rows) {
      text += " " + std::to_string(cdb_store::LoadInt<int64_t>(row.keys.at(0).stored));
      EXPECT_EQ(row.values, (std::vector<TagValue>{{17, 0, {ValueType::kInt64, StoreInt<int64_t>(1)}}}));
    }
    return text + (page->end ? " end" : " next " + std::to_string(page->next));
  }

  std::vector<std::string> actions_;
  confd_trans_ctx* kept_ = nullptr;
  std::vector<std::string> trace_;
  size_t calls_ = 0;
  std::function<int()> later_;
};

class ProviderReading : public ProviderPages, public ::testing::WithParamInterface<Reading> {};

TEST_P(ProviderReading, IsServedLikeThis) {
  actions_ = GetParam().actions;
  ActAsTold();
  Begin(5);
  uint64_t request = 0;
  for (const std::string& page : GetParam().pages) {
    if (page == "later") {
      EXPECT_EQ(later_(), CONFD_OK);
    } else {
      const bool limited = page.starts_with("limit");
      const auto limit = static_cast<uint16_t>(limited ? page[6] - '0' : 8);
      EXPECT_EQ(Deliver(Read(++request, 5, std::atoi(page.substr(page.find("from") + 5).c_str()), limit)), CONFD_OK);
    }
    TraceAnswers();
  }
  EXPECT_EQ(trace_, GetParam().trace);
}

constexpr const char* kFailed = "the provider's callback failed";

INSTANTIATE_TEST_SUITE_P(
    All, ProviderReading,
    ::testing::Values(
        Reading{"EmptyList", {"from -1"}, {"end"}, {"key -1", "> 1: end"}},
        Reading{"OnePage",
                {"from -1"},
                {"answer", "answer", "answer", "answer", "end"},
                {"key -1", "object 0", "key 1", "object 1", "key 2", "> 1: 0 1 end"}},
        Reading{
            "AsManyRowsAsAskedFor",
            {"limit 2 from -1", "limit 2 from 2"},
            {"answer", "answer", "answer", "answer", "answer", "answer", "end"},
            {"key -1", "object 0", "key 1", "object 1", "> 1: 0 1 next 2", "key 2", "object 2", "key 3", "> 2: 2 end"}},
        Reading{"RowsThatAreGone",
                {"from -1"},
                {"answer", "gone", "answer", "answer", "answer", "gone", "end"},
                {"key -1", "object 0", "key 1", "object 1", "key 2", "object 2", "key 3", "> 1: 1 end"}},
        Reading{"FirstKeyDelayed",
                {"from -1", "later", "from -1"},
                {"delay", "answer", "end"},
                {"key -1", "> 1: next -1", "object 0", "key 1", "> 2: 0 end"}},
        Reading{"LaterKeyDelayed",
                {"from -1", "later", "from 1"},
                {"answer", "answer", "delay", "answer", "end"},
                {"key -1", "object 0", "key 1", "> 1: 0 next 1", "object 1", "key 2", "> 2: 1 end"}},
        Reading{"ObjectDelayed",
                {"from -1", "later", "from 1"},
                {"answer", "delay", "end"},
                {"key -1", "object 0", "> 1: 0 next 1", "key 1", "> 2: end"}},
        Reading{"KeyFails",
                {"from -1"},
                {"answer", "answer", "fail"},
                {"key -1", "object 0", "key 1", std::string{"> 1: "} + kFailed}},
        Reading{"ObjectFails", {"from -1"}, {"answer", "fail"}, {"key -1", "object 0", std::string{"> 1: "} + kFailed}},
        Reading{"ReleasedByTheKey", {"from -1"}, {"release"}, {"key -1"}},
        Reading{"ReleasedByTheObject", {"from -1"}, {"answer", "release"}, {"key -1", "object 0"}}),
    [](const auto& row) { return row.param.name; });

TEST_F(ProviderPages, FinishedOneIsNotAnsweredLater) {
  confd_trans_ctx* const kept = BeginDelayed(5, 1);
  EXPECT_EQ(ReplyKey(kept, 0, 1), CONFD_OK);
  EXPECT_EQ(server_.Expect<Rows>().rows.size(), 0U);
  app_.on_object = [](confd_trans_ctx*, confd_hkeypath_t*) { return CONFD_DELAYED_RESPONSE; };
  EXPECT_EQ(Deliver(Read(2, 5)), CONFD_OK);
  EXPECT_EQ(Deliver(TransFinish{5}), CONFD_OK);
  ExpectRefused(confd_data_reply_not_found(kept), "transaction 5 is over: the answer comes too late");
  ExpectRefused(ReplyKey(kept, 1, 2), "transaction 5 is over: the answer comes too late");
}

TEST_F(ProviderPages, LateAnswerOfAnotherTransactionIsItsOwn) {
  confd_trans_ctx* const late = BeginDelayed(5, 1);
  Begin(6);
  app_.on_next = [late](confd_trans_ctx* tctx, confd_hkeypath_t*, long) {
    EXPECT_EQ(ReplyKey(late, 7, 8), CONFD_OK);
    return ReplyEnd(tctx);
  };
  EXPECT_EQ(Deliver(Read(10, 6)), CONFD_OK);
  const Rows first = server_.Expect<Rows>();
  EXPECT_EQ(first.request, 1U);
  EXPECT_FALSE(first.end);
  const Rows second = server_.Expect<Rows>();
  EXPECT_EQ(second.request, 10U);
  EXPECT_TRUE(second.end);
}

TEST_F(ProviderPages, LossNoticedWithTheAnswerEndsTheTransaction) {
  confd_trans_ctx* kept = nullptr;
  app_.on_next = [&](confd_trans_ctx* tctx, confd_hkeypath_t*, long) {
    kept = tctx;
    server_.Kill();
    return ReplyEnd(tctx);
  };
  Begin(5);
  EXPECT_EQ(Deliver(Read(10, 5)), CONFD_EOF);
  EXPECT_EQ(ReplyKey(kept, 1, 2), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "transaction 5: its connection is gone");
}

TEST_F(ProviderPages, EndAfterSomeTime) {
  app_.on_object = [](confd_trans_ctx* tctx, confd_hkeypath_t*) { return confd_data_reply_not_found(tctx); };
  app_.on_next = [&](confd_trans_ctx* tctx, confd_hkeypath_t*, long next) {
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds{6}) continue;  // busy, as a slow one is
    return ReplyKey(tctx, next, next + 1);
  };
  Begin(5);
  EXPECT_EQ(Deliver(Read(10, 5, 0, 1000)), CONFD_OK);
  const Rows page = server_.Expect<Rows>();
  EXPECT_FALSE(page.end);
  EXPECT_GE(page.next, 1);
  EXPECT_LE(page.next, 2);
}

TEST_F(ProviderPages, HoldWhatFitsInAPacket) {
  const std::string text(confd_wire::kMaxMessage / 3, 'x');
  app_.on_object = [&](confd_trans_ctx* tctx, confd_hkeypath_t*) {
    confd_tag_value_t value;
    CONFD_SET_TAG_XMLTAG(&value, 17, 0);
    CONFD_SET_STR(&value.v, text.c_str());
    return confd_data_reply_tag_value_array(tctx, &value, 1);
  };
  app_.on_next = [](confd_trans_ctx* tctx, confd_hkeypath_t*, long next) {
    return next < 5 ? ReplyKey(tctx, next, next + 1) : ReplyEnd(tctx);
  };
  Begin(5);
  std::vector<int64_t> keys;
  std::vector<size_t> sizes;
  Rows page;
  for (page.next = 0; !page.end && sizes.size() < 10;) {
    EXPECT_EQ(Deliver(Read(10, 5, page.next)), CONFD_OK);
    page = server_.Expect<Rows>();
    sizes.push_back(page.rows.size());
    for (const Row& row : page.rows) {
      keys.push_back(cdb_store::LoadInt<int64_t>(row.keys.at(0).stored));
      EXPECT_EQ(row.values.at(0).value.stored, text);
    }
  }
  EXPECT_EQ(keys, (std::vector<int64_t>{0, 1, 2, 3, 4}));
  EXPECT_EQ(sizes, (std::vector<size_t>{2, 2, 1}));
}

TEST_F(ProviderPages, RowThatFitsInNoPacketIsRefused) {
  const std::string text(confd_wire::kMaxMessage, 'x');
  app_.on_next = [](confd_trans_ctx* tctx, confd_hkeypath_t*, long) { return ReplyKey(tctx, 0, 1); };
  app_.on_object = [&](confd_trans_ctx* tctx, confd_hkeypath_t*) {
    confd_tag_value_t value;
    CONFD_SET_TAG_XMLTAG(&value, 17, 0);
    CONFD_SET_STR(&value.v, text.c_str());
    EXPECT_EQ(confd_data_reply_tag_value_array(tctx, &value, 1), CONFD_ERR);
    EXPECT_THAT(confd_lasterr(), HasSubstr("bytes is too long"));
    return CONFD_ERR;
  };
  Begin(5);
  EXPECT_EQ(Deliver(Read(10, 5)), CONFD_OK);
  EXPECT_EQ(server_.Expect<ReadFailed>().text, "the provider's callback failed");
}

}  // namespace
}  // namespace confd_testing
