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
  EXPECT_EQ(ExpectSurvives(ReadRows{1, 5, "cp", 4, "keys", -1, 64}).limit, 64);
  const Row row{{{cdb_store::ValueType::kInt64, "12345678"}},
                {{0x1c4b7396, 0, {cdb_store::ValueType::kBinary, "mac"}}}};
  EXPECT_EQ(ExpectSurvives(Rows{1, {row, row}, false, 3}).rows, (std::vector<Row>{row, row}));
  EXPECT_EQ(ExpectSurvives(ReadFailed{2, "text"}).text, "text");
}

TEST(Codec, AHugeCountDoesNotAllocate) {
  std::string packet = Encode(Trigger{1, 0, {1}});
  packet[packet.size() - 8] = '\xff';
  packet[packet.size() - 5] = '\x7f';
  EXPECT_FALSE(Decode<Trigger>(packet).has_value());
}

TEST(Codec, AnotherTypeIsNoMessage) { EXPECT_FALSE(Decode<TransFinish>(Encode(TransInit{5, ""})).has_value()); }

}  // namespace
}  // namespace confd_wire
