// How a provider is asked for its list, and its answers in every order.
#include "provider_fixture.h"

namespace cdbd::test {
namespace {

using testing::HasSubstr;

/// What is said on the worker connection, packet by packet: "< " the server's, "> " the provider's, "died" when it
/// goes. "object 1" and "key 1" are requests for row 1 and for the key after position 1, or the answers to the open
/// ones; "goes on": the provider goes on by itself with the row of that key.
struct Course {
  std::string name;
  std::vector<std::string> packets;
  std::string reply;  ///< numbers of the rows in the reply, one digit each, or a part of the error
};

class Conversation final {
 public:
  explicit Conversation(Provider& provider) : provider_{provider} {}

  /// What the server's next packet says.
  std::string Hear() {
    std::string said{"<"};
    for (const std::string& message : provider_.worker.ReceivePacket()) {
      if (said.size() > 1) said += ",";
      if (const auto object = confd_wire::Decode<GetObject>(message)) {
        object_ = object->request;
        said += " object " + std::to_string(cdb_store::LoadInt<int64_t>(object->keys));
      } else if (const auto next = confd_wire::Decode<GetNext>(message)) {
        key_ = next->request;
        said += " key " + std::to_string(next->next);
      } else {
        said += confd_wire::Decode<confd_wire::TransFinish>(message) ? " finish" : " something else";
      }
    }
    return said;
  }
  /// Sends the answers of "> ANSWER, ANSWER" in one packet.
  void Say(const std::string& answers) {
    confd_wire::PacketOfSeveral packet;
    for (size_t at = 2; at < answers.size();) {
      const size_t end = std::min(answers.find(", ", at), answers.size());
      Add(answers.substr(at, end - at), packet);
      at = end + 2;
    }
    provider_.worker.SendBytes(packet.Take());
  }

 private:
  void Add(const std::string& answer, confd_wire::PacketOfSeveral& packet) {
    const bool goes_on = answer.find("goes on") != std::string::npos;
    const int row = std::atoi(answer.c_str() + answer.find(' ') + 1);
    if (answer == "end") {
      packet.Add(EndReply(key_));
    } else if (answer == "gone") {
      packet.Add(confd_wire::NotFoundReply{object_});
    } else if (answer == "error for object") {
      packet.Add(confd_wire::ErrorReply{object_, "no such luck"});
    } else if (answer == "error for key") {
      packet.Add(confd_wire::ErrorReply{key_, "no such luck"});
    } else if (answer.starts_with("object")) {
      packet.Add(confd_wire::ObjectReply{object_, test::Row("eth0", static_cast<char>(row))});
    } else {
      packet.Add(KeyReply(key_, row, goes_on));
      if (goes_on) object_ = key_ + 1;
      if (goes_on) key_ += 2;
    }
  }

  Provider& provider_;
  uint64_t object_ = 0;
  uint64_t key_ = 0;
};

class ProviderCourse : public OneProvider, public testing::WithParamInterface<Course> {};

TEST_P(ProviderCourse, GoesLikeThis) {
  PendingGet get{server, kFilter};
  provider.Accept();
  Conversation conversation{provider};
  for (const std::string& packet : GetParam().packets) {
    if (packet == "died") {
      provider.worker.Disconnect();
    } else if (packet[0] == '>') {
      conversation.Say(packet);
    } else {
      ASSERT_EQ(conversation.Hear(), packet);
    }
  }
  const std::string& wanted = GetParam().reply;
  std::string rows;
  for (const char row : wanted) rows += RowText(row - '0', "eth0", row - '0');
  if (wanted.find_first_not_of("0123456789") != std::string::npos)
    EXPECT_THAT(get.Reply(), HasSubstr("callpoint 'show-allowed-ip': " + wanted));
  else
    EXPECT_EQ(get.Reply(), wanted.empty() ? "" : kOpen + rows + kClose);
}

constexpr const char* kNonsense = "the data provider's answer cannot be understood";

INSTANTIATE_TEST_SUITE_P(
    Answers, ProviderCourse,
    testing::Values(
        Course{"EmptyList", {"< key -1", "> end", "< finish"}, ""},
        Course{"PairByPair",
               {"< key -1", "> key 0", "< object 0, key 1", "> object 0, key 1", "< object 1, key 2", "> object 1, end",
                "< finish"},
               "01"},
        Course{"TheObjectFirst",
               {"< key -1", "> key 0", "< object 0, key 1", "> object 0", "> key 1", "< object 1, key 2", "> object 1",
                "> end", "< finish"},
               "01"},
        Course{"TheKeyFirst",
               {"< key -1", "> key 0", "< object 0, key 1", "> key 1", "> object 0", "< object 1, key 2", "> end",
                "> object 1", "< finish"},
               "01"},
        Course{"TheKeyBeforeTheObjectInOnePacket",
               {"< key -1", "> key 0", "< object 0, key 1", "> key 1, object 0", "< object 1, key 2", "> end, object 1",
                "< finish"},
               "01"},
        Course{"GoingOn",
               {"< key -1", "> key 0", "< object 0, key 1",
                "> object 0, key 1 goes on, object 1, key 2 goes on, object 2, end", "< finish"},
               "012"},
        Course{"GoingOnFromTheStart", {"< key -1", "> key 0 goes on, object 0, end", "< finish"}, "0"},
        Course{"GoingOnInPacketsOfTheirOwn",
               {"< key -1", "> key 0 goes on", "> object 0", "> key 1 goes on", "> object 1", "> end", "< finish"},
               "01"},
        Course{"GoingOnAndStopping",
               {"< key -1", "> key 0 goes on, object 0, key 1", "< object 1, key 2",
                "> object 1, key 2 goes on, object 2", "> key 3", "< object 3, key 4", "> object 3, end", "< finish"},
               "0123"},
        Course{"GoingOnWithAnObjectOwed",
               {"< key -1", "> key 0 goes on, key 1", "> object 0", "< object 1, key 2", "> object 1, end", "< finish"},
               "01"},
        Course{"ARowThatIsGone",
               {"< key -1", "> key 0", "< object 0, key 1", "> gone, key 1 goes on, object 1, key 2 goes on, gone, end",
                "< finish"},
               "1"},
        Course{"AnAnswerGivenTwice",
               {"< key -1", "> key 0, key 0", "< object 0, key 1", "> object 0, object 0", "> end, end", "< finish"},
               "0"},
        Course{"AnErrorForTheObject",
               {"< key -1", "> key 0", "< object 0, key 1", "> error for object", "< finish", "> key 1"},
               "no such luck"},
        Course{"AnErrorForTheKey",
               {"< key -1", "> key 0", "< object 0, key 1", "> object 0, error for key", "< finish"},
               "no such luck"},
        Course{"AnErrorForTheObjectAfterTheKey",
               {"< key -1", "> key 0", "< object 0, key 1", "> key 1", "> error for object", "< finish"},
               "no such luck"},
        Course{"AnErrorForTheObjectAfterTheEnd",
               {"< key -1", "> key 0", "< object 0, key 1", "> end", "> error for object", "< finish"},
               "no such luck"},
        Course{"AnErrorWhileGoingOn",
               {"< key -1", "> key 0 goes on, object 0, key 1 goes on, error for object, key 2", "< finish"},
               "no such luck"},
        Course{"GoingOnAlthoughAnObjectIsOwed",
               {"< key -1", "> key 0", "< object 0, key 1", "> key 1 goes on", "< finish"},
               kNonsense},
        Course{"DyingWithTheKeyOwed", {"< key -1", "> key 0", "< object 0, key 1", "> object 0", "died"}, kWho},
        Course{"DyingWithTheObjectOwed", {"< key -1", "> key 0", "< object 0, key 1", "> end", "died"}, kWho},
        Course{"DyingWhileGoingOn", {"< key -1", "> key 0 goes on, object 0", "died"}, kWho}),
    [](const auto& row) { return row.param.name; });

TEST_F(OneProvider, GoesOnAsFarAsItIsAllowedTo) {
  for (const bool too_far : {false, true}) {
    PendingGet get{server, kFilter};
    provider.Accept();
    const auto first = provider.worker.Receive<GetNext>();
    ASSERT_TRUE(first && first->ahead > 1);
    confd_wire::PacketOfSeveral packet;
    std::string rows;
    const int last = first->ahead - 1 + (too_far ? 1 : 0);
    for (int i = 0; i <= last; ++i) {
      packet.Add(KeyReply(first->request + 2 * static_cast<uint64_t>(i), i, true));
      packet.Add(confd_wire::ObjectReply{first->request + 2 * static_cast<uint64_t>(i) + 1, test::Row("eth0", 1)});
      rows += RowText(i, "eth0", 1);
    }
    packet.Add(EndReply(first->request + 2 * static_cast<uint64_t>(last) + 2));
    provider.worker.SendBytes(packet.Take());
    EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
    if (too_far)
      EXPECT_THAT(get.Reply(), HasSubstr(kNonsense));
    else
      EXPECT_EQ(get.Reply(), kOpen + rows + kClose);
  }
}

TEST_F(ProviderData, APacketWithoutSenseEndsTheConnection) {
  for (const bool nested : {false, true}) {
    Provider provider{server};
    ASSERT_EQ(provider.Register(), "");
    PendingGet get{server, kFilter};
    provider.Accept();
    const auto first = provider.worker.Receive<GetNext>();
    ASSERT_TRUE(first);
    confd_wire::PacketOfSeveral inner;
    inner.Add(EndReply(first->request));
    inner.Add(EndReply(first->request));
    std::string packet = inner.Take();
    if (nested) {
      confd_wire::PacketOfSeveral outer;
      outer.AddEncoded(packet);
      outer.AddEncoded(packet);
      packet = outer.Take();
    } else {
      packet.insert(2, std::string(4, '\x7f'));
    }
    provider.worker.SendBytes(packet);
    EXPECT_THAT(get.Reply(), HasSubstr(kWho));
    EXPECT_TRUE(provider.worker.Closed());
  }
}

TEST_F(OneProvider, ARowThatIsGoneWhenItIsAskedForIsLeftOut) {
  PendingGet get{server, kFilter};
  provider.Accept();
  provider.Key(provider.worker.Receive<GetNext>().value(), 0);
  confd_wire::NotFoundReply gone;
  gone.request = provider.worker.Receive<GetObject>().value().request;
  provider.worker.Send(gone);
  provider.End(provider.worker.Receive<GetNext>().value());
  EXPECT_EQ(get.Reply(), "");
}

TEST_F(OneProvider, AReaderThatGoesAwayEndsTheTransaction) {
  {
    NetconfClient reader = server.Connect();
    ASSERT_TRUE(reader.raw()
                    .Send("<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><get><filter>" +
                              std::string{kFilter} + "</filter></get></rpc>",
                          NetconfClient::kLimit)
                    .ok());
    provider.Accept();
  }
  EXPECT_TRUE(
      Eventually([&] { return server.Log().find("session 1 ended") != std::string::npos; }, NetconfClient::kLimit));
  provider.Key(provider.worker.Receive<GetNext>().value(), 0);
  EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
}

TEST_F(OneProvider, AReaderThatGoesAwayInMidListEndsTheTransaction) {
  std::optional<GetObject> object;
  std::optional<GetNext> next;
  {
    NetconfClient reader = server.Connect();
    ASSERT_TRUE(reader.raw()
                    .Send("<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><get><filter>" +
                              std::string{kFilter} + "</filter></get></rpc>",
                          NetconfClient::kLimit)
                    .ok());
    provider.Accept();
    provider.Key(provider.worker.Receive<GetNext>().value(), 0);
    object = provider.worker.Receive<GetObject>();
    next = provider.worker.Receive<GetNext>();
  }
  ASSERT_TRUE(object && next);
  EXPECT_TRUE(
      Eventually([&] { return server.Log().find("session 1 ended") != std::string::npos; }, NetconfClient::kLimit));
  provider.Object(*object, Row("eth0", 1));
  EXPECT_TRUE(provider.worker.Receive<confd_wire::TransFinish>());
  provider.Key(*next, 1);  // nobody's
  PendingGet again{server, kFilter};
  provider.Serve({Row("eth0", 2)});
  EXPECT_EQ(again.Reply(), kOpen + RowText(0, "eth0", 2) + kClose);
}

}  // namespace
}  // namespace cdbd::test
