#include "cdb_store/instance_key.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "cdb_store/path.h"
#include "cdb_store_testing/models.h"

namespace cdb_store {
namespace {

TEST(InstanceKey, StringsOrderAndDecodeWhateverBytesTheyHold) {
  std::mt19937 random(7);
  std::vector<std::string> texts = {"", std::string("\0", 1), std::string("\0\xff", 2), std::string("\0\1", 2), "\xff",
                                    "a"};
  for (int i = 0; i < 200; ++i) {
    std::string text(random() % 6, '\0');
    for (char& c : text) c = static_cast<char>("\0\1\xfe\xffz"[random() % 5]);
    texts.push_back(text);
  }
  for (const std::string& a : texts) {
    InstanceKey key_a;
    ASSERT_TRUE(key_a.Append(ValueType::kString, a));
    ASSERT_EQ(EncodedKeySize(ValueType::kString, std::string(key_a.keys()) + "more"), key_a.size());
    ASSERT_EQ(DecodeKey(ValueType::kString, key_a.keys()), a);
    for (const std::string& b : texts) {
      InstanceKey key_b;
      ASSERT_TRUE(key_b.Append(ValueType::kString, b));
      ASSERT_EQ(a < b, key_a.keys() < key_b.keys());
      ASSERT_EQ(a == b, key_a.keys().starts_with(key_b.keys())) << "no encoding may begin another";
    }
  }
}

TEST(InstanceKey, OneOwnKeyIsWhatAllOwnKeysSay) {
  const Schema schema = testing::BoxSchema();
  const std::string zero("a\0\1b", 4);
  struct Case {
    const char* node;
    std::vector<std::pair<ValueType, std::string>> above, own;
  };
  const std::vector<Case> cases = {
      {"/tb:box/site", {}, {{ValueType::kString, "north"}}},
      {"/tb:box/site", {}, {{ValueType::kString, zero}}},
      {"/tb:box/site", {}, {{ValueType::kString, ""}}},
      {"/tb:box/site/where/floor/room",
       {{ValueType::kString, zero}, {ValueType::kInt8, StoreInt<int8_t>(-3)}},
       {{ValueType::kUint16, StoreInt<uint16_t>(0)}, {ValueType::kEnum, StoreInt<int32_t>(-2)}}},
      {"/tb:box/other",
       {},
       {{ValueType::kBool, StoreInt<uint8_t>(1)},
        {ValueType::kEnum, StoreInt<int32_t>(30)},
        {ValueType::kBinary, std::string("\0\0", 2)},
        {ValueType::kIpv4, std::string("\0\1\2\3", 4)},
        {ValueType::kIpv6, std::string(16, '\0')},
        {ValueType::kDecimal64, StoreInt<int64_t>(5)},
        {ValueType::kString, "end"}}},
      {"/tb:box/dns", {}, {{ValueType::kIpv4, std::string("\12\0\0\1", 4)}}},
  };
  for (const Case& row : cases) {
    const Node& node = *schema.FindPath(row.node);
    InstanceKey key;
    for (const auto& [type, value] : row.above) ASSERT_TRUE(key.Append(type, value));
    const size_t own_at = key.size();
    for (const auto& [type, value] : row.own) ASSERT_TRUE(key.Append(type, value));
    const std::vector<std::string> all = OwnKeys(schema, node, key.keys());
    ASSERT_EQ(all.size(), row.own.size());
    for (size_t i = 0; i < all.size(); ++i) {
      std::string buffer = "of an earlier read";
      EXPECT_EQ(OwnKey(schema, node, key.keys().substr(own_at), i, buffer), all[i]) << row.node << " key " << i;
      EXPECT_EQ(all[i], row.own[i].second);
    }
    std::string buffer;
    EXPECT_EQ(OwnKey(schema, node, "", row.own.size() - 1, buffer), "") << "damaged";
  }
}

TEST(InstanceKey, LongKeysAreRefusedAndLeaveTheRest) {
  InstanceKey key;
  ASSERT_TRUE(key.Append(ValueType::kString, std::string(kMaxKeys - 2, 'x')));
  EXPECT_EQ(key.Count(1).size(), kMaxRecordKey);
  EXPECT_FALSE(key.Append(ValueType::kInt8, "\x80"));
  key.Truncate(0);
  EXPECT_FALSE(key.Append(ValueType::kString, std::string(kMaxKeys - 1, 'x')));
  EXPECT_FALSE(key.Append(ValueType::kString, std::string(kMaxKeys / 2, '\0')));
  EXPECT_EQ(key.size(), 0U);
}

TEST(InstanceKey, RecordKeysTellNodeAndKeys) {
  InstanceKey key("abc");
  const RecordKey row = ParseRecordKey(key.Row(0x102)).value();
  EXPECT_FALSE(row.is_count);
  EXPECT_EQ(row.node, 0x102);
  EXPECT_EQ(row.keys, "abc");
  const RecordKey count = ParseRecordKey(key.Count(3)).value();
  EXPECT_TRUE(count.is_count);
  EXPECT_EQ(count.node, 3);
  EXPECT_EQ(count.keys, "abc");
  EXPECT_EQ(ParseRecordKey("\1"), std::nullopt);
  EXPECT_EQ(ParseRecordKey("\xff\xff\1"), std::nullopt);
}

TEST(InstanceKey, SuccessorIsPastEveryExtension) {
  EXPECT_EQ(Successor("ab"), "ac");
  EXPECT_EQ(Successor("a\xff\xff"), "b");
  EXPECT_EQ(Successor("\xff"), "");
}

struct PathCase {
  const char* name;
  const char* path;
  const char* text;  ///< as InstanceText() writes it, or the error
};

class PathText : public ::testing::TestWithParam<PathCase> {};

TEST_P(PathText, ResolvesOrTellsWhy) {
  const Schema schema = testing::BoxSchema();
  const auto found = LocatePath(schema, GetParam().path);
  if (!found.ok()) {
    EXPECT_EQ(found.error().Text(), "path \"" + std::string(GetParam().path) + "\": " + GetParam().text);
    return;
  }
  EXPECT_EQ(InstanceText(schema, *found.value().node, found.value().keys), GetParam().text);
  const auto again = LocatePath(schema, GetParam().text);
  ASSERT_TRUE(again.ok());
  EXPECT_EQ(again.value().keys, found.value().keys);
}

INSTANTIATE_TEST_SUITE_P(
    All, PathText,
    ::testing::Values(
        PathCase{"Plain", "/tb:box/name", "/tb:box/name"}, PathCase{"Relative", "tb:box/name", "/tb:box/name"},
        PathCase{"OtherModule", "/tb:box/owner", "/tb:box/tx:owner"},
        PathCase{"OneKey", "/tb:box/site{a}/height", "/tb:box/site{a}/height"},
        PathCase{"QuotedForNothing", "/tb:box/site{\"a\"}", "/tb:box/site{a}"},
        PathCase{"QuotedBlank", "/tb:box/site{\"a b\"}", "/tb:box/site{\"a b\"}"},
        PathCase{"QuotedSlashBrace", "/tb:box/site{\"a/}{\"}/name", "/tb:box/site{\"a/}{\"}/name"},
        PathCase{"PlainSlash", "/tb:box/site{a/b}/name", "/tb:box/site{a/b}/name"},
        PathCase{"Escapes", R"(/tb:box/site{"q\"b\\n\n"}/name)", R"(/tb:box/site{"q\"b\\n\n"}/name)"},
        PathCase{"EmptyKey", "/tb:box/site{\"\"}", "/tb:box/site{\"\"}"},
        PathCase{"SeveralKeys", "/tb:box/site{a}/where/floor{-3}/room{ 7   east }",
                 "/tb:box/site{a}/where/floor{-3}/room{7 east}"},
        PathCase{"EveryIntegerKey", "/tb:box/number{-1 -2 -3 -4 1 2 3 4}", "/tb:box/number{-1 -2 -3 -4 1 2 3 4}"},
        PathCase{"EveryOtherKey", "/tb:box/other{true south AAE= 10.0.0.1 ::1 -2.5 x}",
                 "/tb:box/other{true south AAE= 10.0.0.1 ::1 -2.5 x}"},
        PathCase{"LeafListValue", "/tb:box/dns{10.1.2.3}", "/tb:box/dns{10.1.2.3}"}, PathCase{"Empty", "", "is empty"},
        PathCase{"RootOnly", "/", "names no node"}, PathCase{"TrailingSlash", "/tb:box/", "ends in '/'"},
        PathCase{"DoubleSlash", "/tb:box//name", "has an empty node name"},
        PathCase{"NoPrefix", "/box/name", "/tb:box/name"},
        PathCase{"NoPrefixInSeveralModules", "/twin", "several modules have a top node \"twin\": it needs its prefix"},
        PathCase{"PrefixInSeveralModules", "/tx:twin", "/tx:twin"},
        PathCase{"UnknownPrefix", "/zz:box", "there is no module with the prefix \"zz\""},
        PathCase{"UnknownNode", "/tb:box/nope", "there is no node \"nope\" below /tb:box"},
        PathCase{"WrongModule", "/tb:box/tx:name", "there is no node \"name\" below /tb:box in module test-extra"},
        PathCase{"BelowALeaf", "/tb:box/name/x", "there is no node \"x\" below /tb:box/name"},
        PathCase{"TooFewKeys", "/tb:box/site{a}/where/floor{1}/room{7}", "room has 2 keys, not 1"},
        PathCase{"TooManyKeys", "/tb:box/site{a b}", "site has 1 keys, not 2"},
        PathCase{"KeysOnAContainer", "/tb:box{a}", "box is no list and has no keys"},
        PathCase{"BadKeyValue", "/tb:box/site{a}/where/floor{300}", "key level of floor: \"300\": not a valid int8"},
        PathCase{"UnclosedBrace", "/tb:box/site{a", "has a '{' without its '}'"},
        PathCase{"UnclosedQuote", "/tb:box/site{\"a}", "has a quote without its end"},
        PathCase{"NoKeys", "/tb:box/site{}", "has no key between '{' and '}'"},
        PathCase{"BadEscape", R"(/tb:box/site{"\q"})", "has an unknown escape in a key"},
        PathCase{"JunkAfterQuote", "/tb:box/site{\"a\"b}", "has something after a key's closing quote"},
        PathCase{"JunkAfterBrace", "/tb:box/site{a}x", "has something other than '/' after a node"},
        PathCase{"Position", "/tb:box/site[0]", "has a position where keys are wanted"},
        PathCase{"PositionNoNumber", "/tb:box/site[x]", "has a position that is no number"},
        PathCase{"PositionUnclosed", "/tb:box/site[1", "has a '[' without its ']'"},
        PathCase{"PositionTooBig", "/tb:box/site[99999999999]", "has a position that is no number"},
        PathCase{"KeysAndPosition", "/tb:box/site{a}[1]", "has both keys and a position"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cdb_store
