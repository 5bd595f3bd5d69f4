#include "confd_wire/codec.h"

#include <gtest/gtest.h>

namespace confd_wire {
namespace {

/// Round trip, every cut-off form and a trailing byte.
template <class M>
M ExpectSurvives(const M& message) {
  const std::string packet = Encode(message);
  EXPECT_EQ(TypeOf(packet), M::kType);
  for (size_t size = 0; size < packet.size(); ++size) {
    EXPECT_FALSE(Decode<M>(std::string_view(packet).substr(0, size)).has_value()) << size;
  }
  EXPECT_FALSE(Decode<M>(packet + "x").has_value());
  const std::optional<M> again = Decode<M>(packet);
  EXPECT_TRUE(again.has_value());
  EXPECT_EQ(Encode(again.value_or(M{})), packet);
  return again.value_or(M{});
}

TEST(Codec, EveryMessageSurvives) {
  EXPECT_EQ(ExpectSurvives(Hello{1, ClientKind::kWorker, "daemon", 7}).kind, ClientKind::kWorker);
  EXPECT_EQ(ExpectSurvives(HelloReply{1, "", "/state/cdb", 3, 9}).store_path, "/state/cdb");
  EXPECT_EQ(ExpectSurvives(Subscribe{-2, 0x41fef11b, 5, std::string("\0k", 2), "/a", 11}).keys, std::string("\0k", 2));
  EXPECT_EQ(ExpectSurvives(SubscribeReply{"no", 4}).point, 4);
  ExpectSurvives(SubscribeDone{});
  ExpectSurvives(SubscribeDoneReply{"x"});
  EXPECT_EQ(ExpectSurvives(Trigger{8, 1, {3, 4}}).points, (std::vector<int32_t>{3, 4}));
  EXPECT_EQ(ExpectSurvives(Sync{8, 1, SyncKind::kDoneSocket}).kind, SyncKind::kDoneSocket);
  EXPECT_TRUE(ExpectSurvives(Register{{{"one", true, false}, {"two", false, true}}}).callpoints[1].get_object);
  ExpectSurvives(RegisterReply{"e"});
  ExpectSurvives(TransInit{5, "admin"});
  EXPECT_EQ(ExpectSurvives(TransInitReply{5, "", 6}).worker_id, 6U);
  ExpectSurvives(TransFinish{5});
  EXPECT_EQ(ExpectSurvives(GetNext{1, 5, "cp", 4, "keys", -1, 64}).ahead, 64);
  EXPECT_EQ(ExpectSurvives(GetObject{2, 5, "cp", 4, "keys"}).request, 2U);
  EXPECT_TRUE(ExpectSurvives(NextKeyReply{1, false, {{cdb_store::ValueType::kInt64, "12345678"}}, 3, true}).goes_on);
  EXPECT_EQ(ExpectSurvives(ObjectReply{2, {{0x1c4b7396, 0, {cdb_store::ValueType::kBinary, "mac"}}}}).values[0].tag,
            0x1c4b7396U);
  ExpectSurvives(NotFoundReply{2});
  EXPECT_EQ(ExpectSurvives(ErrorReply{2, "text"}).text, "text");
}

TEST(Codec, AHugeCountDoesNotAllocate) {
  std::string packet = Encode(Trigger{1, 0, {1}});
  packet[packet.size() - 8] = '\xff';
  packet[packet.size() - 5] = '\x7f';
  EXPECT_FALSE(Decode<Trigger>(packet).has_value());
}

std::vector<std::string> MessagesOf(std::string_view packet, bool* whole) {
  std::vector<std::string> messages;
  *whole = ForEachMessage(packet, [&](std::string_view message) {
    messages.emplace_back(message);
    return true;
  });
  return messages;
}

TEST(Codec, SeveralMessagesShareAPacket) {
  const std::vector<std::string> messages{Encode(TransFinish{1}), Encode(ErrorReply{2, "x"}), Encode(TransFinish{3})};
  bool whole = false;
  PacketOfSeveral packet;
  EXPECT_EQ(packet.Take(), "");
  packet.AddEncoded(messages[0]);
  EXPECT_EQ(packet.Take(), messages[0]) << "alone it is as it is";
  for (const std::string& message : messages) {
    const size_t size = packet.SizeWith(message.size());
    packet.AddEncoded(message);
    EXPECT_LE(packet.SizeWith(0), size + 6);
  }
  const std::string bytes = packet.Take();
  EXPECT_TRUE(packet.empty());
  EXPECT_EQ(MessagesOf(bytes, &whole), messages);
  EXPECT_TRUE(whole);
  EXPECT_EQ(MessagesOf(messages[1], &whole), std::vector<std::string>{messages[1]});
  EXPECT_TRUE(whole);
}

TEST(Codec, APacketOfSeveralThatIsCutOffIsNotWhole) {
  PacketOfSeveral packet;
  packet.Add(TransFinish{1});
  packet.Add(TransFinish{2});
  const std::string bytes = packet.Take();
  bool whole = false;
  const size_t first = 2 + 4 + Encode(TransFinish{1}).size();  // where it could have ended
  for (size_t size = 3; size < bytes.size(); ++size) {
    MessagesOf(bytes.substr(0, size), &whole);
    EXPECT_EQ(whole, size == first) << size;
  }
  packet.AddEncoded(bytes);
  packet.AddEncoded(bytes);
  EXPECT_EQ(MessagesOf(packet.Take(), &whole), std::vector<std::string>{});
  EXPECT_FALSE(whole) << "none within another";
}

TEST(Codec, AnotherTypeIsNoMessage) { EXPECT_FALSE(Decode<TransFinish>(Encode(TransInit{5, ""})).has_value()); }

}  // namespace
}  // namespace confd_wire
