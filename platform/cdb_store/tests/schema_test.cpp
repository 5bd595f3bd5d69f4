#include "cdb_store/schema.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "cdb_store/schema_builder.h"
#include "cdb_store_testing/models.h"

namespace cdb_store {
namespace {

TEST(Schema, SurvivesTheStore) {
  for (const Schema& schema : {testing::BoxSchema(), testing::AntiSpoofingSchema()}) {
    const auto again = Schema::Parse(schema.Serialise());
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(again.value().Serialise(), schema.Serialise());
    EXPECT_EQ(again.value().Fingerprint(), schema.Fingerprint());
    EXPECT_EQ(again.value().size(), schema.size());
  }
}

TEST(Schema, RefusesEveryCutOffForm) {
  const std::string bytes = testing::BoxSchema().Serialise();
  for (size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_FALSE(Schema::Parse(std::string_view(bytes).substr(0, size)).ok()) << size;
  }
  EXPECT_FALSE(Schema::Parse(bytes + "x").ok());
}

TEST(Schema, RefusesNumbersThatNothingHas) {
  SchemaBuilder builder;
  const uint16_t ns = builder.AddNamespace({1, "p", "m", "urn:m"});
  const NodeId list = builder.Add(kRootId, ns, {.kind = NodeKind::kList, .name = "LIST", .keys = {"KEY"}});
  builder.Add(list, ns, {.name = "KEY", .type = ValueType::kString, .enums = {{"one", 1}}});
  const std::string good = builder.Build().value().Serialise();
  const size_t list_at = good.find("LIST");
  const size_t key_at = good.find("KEY");
  const size_t after_key = key_at + 3 + sizeof(uint32_t);  // the type follows the name and an empty callpoint
  struct Row {
    const char* name;
    size_t at;
    std::vector<uint8_t> bad;
  };
  const Row rows[] = {{"kind of the list", list_at - 12, {0, 1, 2, 4, 5, 6, 0xff}},
                      {"namespace", list_at - 10, {1, 0xff}},
                      {"type of the key", after_key, {0, 2, 18, 0xff}},
                      {"form of a binary", after_key + 1, {2, 0xff}},
                      {"number of names", after_key + 3, {0, 2, 0xff}},
                      {"kind of the key", key_at - 12, {0, 1, 2, 3, 5, 6, 0xff}},
                      {"parent of the key", key_at - 14, {0, 2, 3}},
                      {"key of the list", key_at - 16, {0, 1, 3, 0xff}}};
  ASSERT_TRUE(Schema::Parse(good).ok());
  for (const Row& row : rows) {
    for (const uint8_t bad : row.bad) {
      std::string bytes = good;
      bytes[row.at] = static_cast<char>(bad);
      EXPECT_FALSE(Schema::Parse(bytes).ok()) << row.name << " " << int{bad};
    }
  }
}

TEST(Schema, AnyDamageIsRefusedOrHarmless) {
  const std::string good = testing::BoxSchema().Serialise();
  for (size_t at = 0; at < good.size(); ++at) {
    for (const char change : {'\x01', '\x80', '\xff'}) {
      std::string bytes = good;
      bytes[at] = static_cast<char>(bytes[at] ^ change);
      const auto schema = Schema::Parse(bytes);
      if (!schema) continue;
      EXPECT_EQ(Schema::Parse(schema.value().Serialise()).value().Serialise(), schema.value().Serialise());
    }
  }
}

TEST(Schema, FindsNodesByPathNameAndTag) {
  const Schema schema = testing::BoxSchema();
  const Node* floor = schema.FindPath("/tb:box/site/where/floor");
  ASSERT_NE(floor, nullptr);
  EXPECT_EQ(schema.PathOf(*floor), "/tb:box/site/where/floor");
  EXPECT_EQ(schema.FindChildByTag(schema.node(floor->parent), floor->tag, 0), floor);
  EXPECT_EQ(schema.FindChildByTag(schema.node(floor->parent), floor->tag, 1), nullptr);
  EXPECT_EQ(schema.FindPath("/tb:box/nothing"), nullptr);
  EXPECT_EQ(schema.FindPath("/tb:box/tx:nothing"), nullptr);
  const Node* owner = schema.FindPath("/tb:box/tx:owner");
  ASSERT_NE(owner, nullptr);
  EXPECT_EQ(schema.FindPath("/tb:box/owner"), owner);
  EXPECT_EQ(schema.PathOf(*owner), "/tb:box/tx:owner");
  EXPECT_EQ(schema.FindPath("/test-box:box"), schema.FindPath("/tb:box"));
  EXPECT_FALSE(schema.FindPath("/tb:box/state/row")->config);
}

TEST(Schema, RowsBelongToTheNearestInstance) {
  const Schema schema = testing::BoxSchema();
  const auto row_of = [&](const char* path) { return schema.PathOf(schema.node(schema.FindPath(path)->row)); };
  EXPECT_EQ(row_of("/tb:box/clock/zone"), "/");
  EXPECT_EQ(row_of("/tb:box/login/banner"), "/tb:box/login");
  EXPECT_EQ(row_of("/tb:box/site/where/latitude"), "/tb:box/site");
  EXPECT_EQ(row_of("/tb:box/site/where/floor/room/notes/text"), "/tb:box/site/where/floor/room");
}

TEST(Schema, OperationalNodesDoNotChangeTheFingerprint) {
  const auto build = [](const char* name, bool config) {
    SchemaBuilder builder;
    const uint16_t ns = builder.AddNamespace({1, "p", "m", "u"});
    const NodeId top = builder.Add(kRootId, ns, {.kind = NodeKind::kContainer, .name = "top"});
    builder.Add(top, ns, {.name = name, .config = config, .type = ValueType::kInt8});
    return builder.Build().value().Fingerprint();
  };
  EXPECT_EQ(build("a", false), build("b", false));
  EXPECT_NE(build("a", true), build("b", true));
}

struct MistakeCase {
  const char* name;
  std::function<void(SchemaBuilder&, uint16_t ns, NodeId top)> add;
  const char* text;
};

class SchemaMistake : public ::testing::TestWithParam<MistakeCase> {};

TEST_P(SchemaMistake, IsTold) {
  SchemaBuilder builder;
  const uint16_t ns = builder.AddNamespace({1, "p", "m", "u"});
  GetParam().add(builder, ns, builder.Add(kRootId, ns, {.kind = NodeKind::kContainer, .name = "top"}));
  const auto schema = builder.Build();
  ASSERT_FALSE(schema.ok());
  EXPECT_EQ(schema.error().Text(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    All, SchemaMistake,
    ::testing::Values(MistakeCase{"KeyThatIsNoLeaf",
                                  [](SchemaBuilder& b, uint16_t ns, NodeId top) {
                                    b.Add(top, ns, {.kind = NodeKind::kList, .name = "l", .keys = {"k"}});
                                  },
                                  "schema /p:top/l: has no leaf for its key k"},
                      MistakeCase{"ListWithoutKey",
                                  [](SchemaBuilder& b, uint16_t ns, NodeId top) {
                                    b.Add(top, ns, {.kind = NodeKind::kList, .name = "l"});
                                  },
                                  "schema /p:top/l: has no key"},
                      MistakeCase{"SameName",
                                  [](SchemaBuilder& b, uint16_t ns, NodeId top) {
                                    b.Add(top, ns, {.name = "a", .type = ValueType::kInt8});
                                    b.Add(top, ns, {.name = "a", .tag = 9, .type = ValueType::kInt8});
                                  },
                                  "schema /p:top/a: exists twice"},
                      MistakeCase{"SameTag",
                                  [](SchemaBuilder& b, uint16_t ns, NodeId top) {
                                    b.Add(top, ns, {.name = "a", .tag = 9, .type = ValueType::kInt8});
                                    b.Add(top, ns, {.name = "b", .tag = 9, .type = ValueType::kInt8});
                                  },
                                  "schema /p:top/b: has a sibling's tag"},
                      MistakeCase{"LeafWithoutType",
                                  [](SchemaBuilder& b, uint16_t ns, NodeId top) { b.Add(top, ns, {.name = "a"}); },
                                  "schema /p:top/a: has no type, or one that it cannot have"},
                      MistakeCase{"SameNamespaceHash",
                                  [](SchemaBuilder& b, uint16_t, NodeId) {
                                    b.AddNamespace({1, "q", "n", "v"});
                                  },
                                  "schema v: has another namespace's hash"},
                      MistakeCase{"OutOfOrder",
                                  [](SchemaBuilder& b, uint16_t ns, NodeId top) {
                                    b.Add(kRootId, ns, {.kind = NodeKind::kContainer, .name = "second"});
                                    b.Add(top, ns, {.name = "late", .type = ValueType::kInt8});
                                  },
                                  "schema late: comes after its parent's subtree was left"},
                      MistakeCase{"TooDeep",
                                  [](SchemaBuilder& b, uint16_t ns, NodeId top) {
                                    for (int i = 0; i < 20; ++i)
                                      top = b.Add(top, ns, {.kind = NodeKind::kContainer, .name = "c"});
                                  },
                                  "schema /p:top/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c/c: is too deep"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cdb_store
