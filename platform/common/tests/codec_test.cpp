#include "common/codec.h"

#include <gtest/gtest.h>

namespace {

enum class Colour : uint16_t { kRed = 1, kBlue = 0x0203 };

struct Record {
  uint32_t number = 0;
  uint16_t half = 0;
  uint8_t bytes[2] = {};
  bool operator==(const Record&) const = default;
};

struct Inner {
  std::string text;
  bool flag = false;
  template <class A>
  void Fields(A& a) {
    a(text, flag);
  }
  bool operator==(const Inner&) const = default;
};

struct Message {
  int64_t number = 0;
  Colour colour = Colour::kRed;
  std::vector<Inner> inner;
  std::vector<Record> records;
  Record record;
  template <class A>
  void Fields(A& a) {
    a(number, colour, inner, records, record);
  }
  bool operator==(const Message&) const = default;
};

struct SpanOfRecords {
  std::span<const Record> records;
  template <class A>
  void Fields(A& a) {
    a(records);
  }
};
struct VectorOfRecords {
  std::vector<Record> records;
  template <class A>
  void Fields(A& a) {
    a(records);
  }
};

}  // namespace

template <>
inline constexpr bool common::kIsRecord<Record> = true;

namespace {

const Message kMessage{
    -5, Colour::kBlue, {{"one", true}, {std::string("\0x", 2), false}}, {{1, 2, {3, 4}}, {5, 6, {}}}, {7, 8, {9, 10}}};

TEST(Codec, ReadsWhatItWrote) {
  EXPECT_EQ(common::DecodeFields<Message>(common::EncodeFields(kMessage)), kMessage);
  EXPECT_EQ(common::DecodeFields<Message>(common::EncodeFields(Message{})), Message{});
}

TEST(Codec, WritesTheseBytes) {
  EXPECT_EQ(common::EncodeFields(Inner{"ab", true}), std::string("\2\0\0\0ab\1", 7));
  EXPECT_EQ(common::EncodeFields(VectorOfRecords{{{1, 2, {3, 4}}}}), std::string("\1\0\0\0\1\0\0\0\2\0\3\4", 12));
}

TEST(Codec, RefusesEveryOtherLength) {
  const std::string bytes = common::EncodeFields(kMessage);
  for (size_t size = 0; size < bytes.size(); ++size)
    EXPECT_FALSE(common::DecodeFields<Message>(std::string_view{bytes}.substr(0, size))) << size;
  EXPECT_FALSE(common::DecodeFields<Message>(bytes + "x"));
}

TEST(Codec, SpanIsWrittenAsItsVector) {
  const std::vector<Record> records{{1, 2, {3, 4}}, {5, 6, {7, 8}}};
  EXPECT_EQ(common::EncodeFields(SpanOfRecords{records}), common::EncodeFields(VectorOfRecords{records}));
}

TEST(Codec, HugeCountsAllocateNothing) {
  EXPECT_FALSE(
      common::DecodeFields<VectorOfRecords>(std::string("\xff\xff\xff\xff"
                                                        "12345678",
                                                        12)));
  EXPECT_FALSE(common::DecodeFields<Message>(std::string(10, '\0') + std::string("\xff\xff\xff\xff"
                                                                                 "12345678",
                                                                                 12)));
}

}  // namespace
