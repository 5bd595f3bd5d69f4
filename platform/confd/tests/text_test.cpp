// Keypaths and values as text.
#include <gtest/gtest.h>

#include "cdb_store/path.h"
#include "cdb_store_testing/models.h"
#include "confd_testing/sockets.h"

namespace {

using cdb_store::Schema;

class KeypathText : public ::testing::Test {
 protected:
  KeypathText() : sock_{confd_testing::Connect(server_, CDB_READ_SOCKET)} {}
  ~KeypathText() override { cdb_close(sock_); }

  static std::string Text(const confd_hkeypath_t& path, int size = 256) {
    char buffer[256];
    const int length = confd_pp_kpath(buffer, size, &path);
    return length < 0 ? std::string("error ") + confd_lasterr() : buffer;
  }
  void Tag(const char* name, const Schema& schema, const cdb_store::Node*& node) {
    node = schema.FindChild(*node, name);
    for (int i = path_.len; i > 0; --i) memcpy(path_.v[i], path_.v[i - 1], sizeof path_.v[0]);
    ++path_.len;
    CONFD_SET_XMLTAG(&path_.v[0][0], node->tag, schema.ns(*node).hash);
  }
  void Keys(std::initializer_list<confd_value_t> keys) {
    for (int i = path_.len; i > 0; --i) memcpy(path_.v[i], path_.v[i - 1], sizeof path_.v[0]);
    ++path_.len;
    size_t k = 0;
    for (const confd_value_t& key : keys) path_.v[0][k++] = key;
    CONFD_SET_NOEXISTS(&path_.v[0][k]);
  }

  confd_testing::TestServer server_{cdb_store::testing::BoxSchema()};
  const int sock_;
  confd_hkeypath_t path_{};
};

confd_value_t Str(const char* text) {
  confd_value_t value;
  CONFD_SET_CBUF(&value, reinterpret_cast<const unsigned char*>(text), static_cast<unsigned>(strlen(text)));
  return value;
}
confd_value_t Int8(int8_t number) {
  confd_value_t value;
  CONFD_SET_INT8(&value, number);
  return value;
}

TEST_F(KeypathText, ParsesBackWhateverIsInAKey) {
  const Schema schema = cdb_store::testing::BoxSchema();
  const char* const keys[] = {"eth3", "a b", "a{b}", "\"q\"", "back\\slash", "", "new\nline", "[1]", "a/b", "%s"};
  for (const char* key : keys) {
    path_ = {};
    const cdb_store::Node* node = &schema.root();
    Tag("box", schema, node);
    Tag("site", schema, node);
    Keys({Str(key)});
    Tag("where", schema, node);
    Tag("floor", schema, node);
    Keys({Int8(-5)});
    const std::string text = Text(path_);
    const auto found = cdb_store::LocatePath(schema, text);
    ASSERT_TRUE(found.ok()) << text;
    EXPECT_EQ(found.value().node, node);
    EXPECT_EQ(cdb_store::OwnKeys(schema, *schema.FindPath("/tb:box/site"), found.value().keys)[0], key) << text;
  }
}

TEST_F(KeypathText, NoQuotesWhereNoneAreNeeded) {
  const Schema schema = cdb_store::testing::BoxSchema();
  const cdb_store::Node* node = &schema.root();
  EXPECT_EQ(Text(path_), "/");
  Tag("box", schema, node);
  Tag("site", schema, node);
  Keys({Str("eth3")});
  EXPECT_EQ(Text(path_), "/box/site{eth3}");
  Tag("owner", schema, node);
  EXPECT_EQ(Text(path_), "/box/site{eth3}/tx:owner");
  EXPECT_EQ(Text(path_, 10), "/box/site") << "cut, and NUL-terminated";
  char untouched = 'x';
  EXPECT_EQ(confd_pp_kpath(&untouched, 0, &path_), 24);
  EXPECT_EQ(untouched, 'x');
}

TEST_F(KeypathText, TagsWithoutANamespaceAreUnderstood) {
  const Schema schema = cdb_store::testing::BoxSchema();
  const cdb_store::Node* node = &schema.root();
  Tag("box", schema, node);
  Tag("name", schema, node);
  path_.v[0][0].val.xmltag.ns = 0;
  EXPECT_EQ(Text(path_), "/box/name");
}

TEST_F(KeypathText, WhatIsNoKeypathIsRefused) {
  const Schema schema = cdb_store::testing::BoxSchema();
  const cdb_store::Node* node = &schema.root();
  path_.len = MAXDEPTH + 1;
  EXPECT_EQ(Text(path_), "error keypath: its length is out of range");
  path_.len = 0;
  EXPECT_EQ(confd_pp_kpath(nullptr, 0, nullptr), CONFD_ERR);
  Tag("box", schema, node);
  Keys({Str("x")});
  EXPECT_EQ(Text(path_), "error keypath: box is followed by keys but is no list");
  path_.len = 1;
  CONFD_SET_XMLTAG(&path_.v[0][0], 12345, 0);
  EXPECT_EQ(Text(path_), "error keypath: there is no such node below /");
}

struct ValueCase {
  const char* name;
  confd_value_t value;
  const char* text;
};

template <class Set>
confd_value_t Make(Set set) {
  confd_value_t value;
  set(&value);
  return value;
}
#define VALUE(macro, ...) Make([](confd_value_t* v) { macro(v, __VA_ARGS__); })

class ValueText : public ::testing::TestWithParam<ValueCase> {};

TEST_P(ValueText, Is) {
  char buffer[64];
  EXPECT_EQ(confd_pp_value(buffer, sizeof buffer, &GetParam().value), static_cast<int>(strlen(GetParam().text)));
  EXPECT_STREQ(buffer, GetParam().text);
}

const unsigned char kMac[] = {0, 0x1b, 0xff};

INSTANTIATE_TEST_SUITE_P(
    All, ValueText,
    ::testing::Values(ValueCase{"Nothing", Make([](confd_value_t* v) { CONFD_SET_NOEXISTS(v); }), ""},
                      ValueCase{"Tag", VALUE(CONFD_SET_XMLTAG, 1, 2), ""},
                      ValueCase{"Str", VALUE(CONFD_SET_STR, "a b"), "a b"}, ValueCase{"Buf", Str("text"), "text"},
                      ValueCase{"Int8", Int8(-5), "-5"},
                      ValueCase{"Uint64", VALUE(CONFD_SET_UINT64, UINT64_MAX), "18446744073709551615"},
                      ValueCase{"Bool", VALUE(CONFD_SET_BOOL, 1), "true"},
                      ValueCase{"Enum", VALUE(CONFD_SET_ENUM_VALUE, -3), "-3"},
                      ValueCase{"Binary", VALUE(CONFD_SET_BINARY, kMac, 3), "00:1b:ff"},
                      ValueCase{"Ipv4", VALUE(CONFD_SET_IPV4, in_addr{htonl(0x0a000001)}), "10.0.0.1"},
                      ValueCase{"Decimal", VALUE(CONFD_SET_DECIMAL64, (confd_decimal64{-150, 2})), "-1.5"}),
    [](const auto& row) { return row.param.name; });

TEST(Value, EveryTypeIsReadAsItWasStored) {
  confd_testing::TestServer server(cdb_store::testing::BoxSchema());
  server.Commit({confd_testing::Put("/tb:box/number{-1 -2 -3 -4 1 2 3 4}"),
                 confd_testing::Put("/tb:box/other{true east AAE= 10.0.0.1 ::1 -2.5 x}"),
                 confd_testing::Put("/tb:box/dns{10.0.0.7}"), confd_testing::Put("/tb:box/site{a}/enabled")});
  const int sock = confd_testing::Connect(server, CDB_READ_SOCKET);
  ASSERT_EQ(cdb_start_session(sock, CDB_RUNNING), CONFD_OK);
  const auto get = [&](const std::string& path) {
    confd_value_t value;
    if (cdb_get(sock, &value, "%s", path.c_str()) != CONFD_OK) return std::string(confd_lasterr());
    char text[64];
    confd_pp_value(text, sizeof text, &value);
    const std::string out = std::to_string(value.type) + " " + text;
    confd_free_value(&value);
    return out;
  };
  const std::pair<const char*, const char*> expected[] = {
      {"/tb:box/number[0]/i8", "4 -1"},
      {"/tb:box/number[0]/i16", "5 -2"},
      {"/tb:box/number[0]/i32", "6 -3"},
      {"/tb:box/number[0]/i64", "7 -4"},
      {"/tb:box/number[0]/u8", "8 1"},
      {"/tb:box/number[0]/u16", "9 2"},
      {"/tb:box/number[0]/u32", "10 3"},
      {"/tb:box/number[0]/u64", "11 4"},
      {"/tb:box/other[0]/flag", "12 true"},
      {"/tb:box/other[0]/side", "13 -2"},
      {"/tb:box/other[0]/blob", "14 00:01"},
      {"/tb:box/other[0]/v4", "15 10.0.0.1"},
      {"/tb:box/other[0]/v6", "16 ::1"},
      {"/tb:box/other[0]/price", "17 -2.5"},
      {"/tb:box/other[0]/text", "3 x"},
      {"/tb:box/dns[0]", "15 10.0.0.7"},
      {"/tb:box/dns{10.0.0.7}", "15 10.0.0.7"},
      {"/tb:box/site{a}/enabled", "1 "},
      {"/tb:box/dns", "path \"/tb:box/dns\": dns is no leaf"},
      {"/tb:box/state/row",
       "path \"/tb:box/state/row\": /tb:box/state is operational data, which is not in the database"}};
  for (const auto& [path, text] : expected) EXPECT_EQ(get(path), text) << path;
  cdb_close(sock);
}

}  // namespace
