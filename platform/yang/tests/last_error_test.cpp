#include "yang/last_error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <ostream>
#include <string>

namespace yang {
namespace {

struct FreeContext {
  void operator()(ly_ctx* context) const { ly_ctx_destroy(context); }
};
using Context = std::unique_ptr<ly_ctx, FreeContext>;

Context MakeContext() {
  ly_log_options(LY_LOSTORE);
  ly_ctx* raw = nullptr;
  EXPECT_EQ(ly_ctx_new(nullptr, LY_CTX_DISABLE_SEARCHDIRS, &raw), LY_SUCCESS);
  Context context{raw};
  constexpr const char* kModel = R"(module m { namespace "urn:m"; prefix m;
    container c {
      list port { key "name"; leaf name { type string; }
        leaf mtu { type uint16 { range "1..9000" { error-app-tag "odd-size"; error-message "an odd size"; } } }
        leaf up { type boolean; } } } })";
  EXPECT_EQ(lys_parse_mem(raw, kModel, LYS_IN_YANG, nullptr), LY_SUCCESS);
  return context;
}

LastError ErrorOf(const std::string& xml) {
  const Context context = MakeContext();
  lyd_node* tree = nullptr;
  EXPECT_NE(lyd_parse_data_mem(context.get(), xml.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree),
            LY_SUCCESS);
  lyd_free_all(tree);
  return ReadLastError(context.get());
}

TEST(LastError, NamesInstanceAndLineOfABadValue) {
  const LastError error = ErrorOf("<c xmlns=\"urn:m\">\n<port><name>a]'</name>\n<up>yes</up></port></c>");
  EXPECT_THAT(error.message, testing::HasSubstr("yes"));
  EXPECT_EQ(error.data_path, "/m:c/port[name=\"a]'\"]/up");
  EXPECT_EQ(error.line, 3);
  EXPECT_EQ(error.app_tag, "");
}

TEST(LastError, CarriesTheModelsTextAndAppTag) {
  const LastError error = ErrorOf("<c xmlns=\"urn:m\"><port><name>a</name><mtu>9001</mtu></port></c>");
  EXPECT_EQ(error.message, "an odd size");
  EXPECT_EQ(error.app_tag, "odd-size");
  EXPECT_EQ(error.data_path, "/m:c/port[name='a']/mtu");
}

TEST(LastError, GivesTheLineOfXmlThatDoesNotParse) {
  const LastError error = ErrorOf("<c xmlns=\"urn:m\">\n\n</d>");
  EXPECT_EQ(error.line, 3);
}

TEST(LastError, IsUnknownWithoutAnError) {
  const LastError error = ReadLastError(MakeContext().get());
  EXPECT_EQ(error.message, "unknown error");
  EXPECT_EQ(error.line, std::nullopt);
}

TEST(LastError, IsTheLatestOfTwo) {
  const Context context = MakeContext();
  lyd_node* tree = nullptr;
  for (const char* value : {"first", "second"}) {
    const std::string xml = std::string{"<c xmlns=\"urn:m\"><port><name>a</name><up>"} + value + "</up></port></c>";
    EXPECT_NE(lyd_parse_data_mem(context.get(), xml.c_str(), LYD_XML, LYD_PARSE_ONLY, 0, &tree), LY_SUCCESS);
  }
  EXPECT_THAT(ReadLastError(context.get()).message, testing::HasSubstr("second"));
}

struct LocationCase {
  std::string name;
  std::string text;
  std::string data_path;
  std::string schema_path;
  std::optional<uint64_t> line;
  friend void PrintTo(const LocationCase& row, std::ostream* out) { *out << row.name; }
};

class Locations : public testing::TestWithParam<LocationCase> {};

TEST_P(Locations, AreSplit) {
  const LastError error = SplitLocations(GetParam().text);
  EXPECT_EQ(error.data_path, GetParam().data_path);
  EXPECT_EQ(error.schema_path, GetParam().schema_path);
  EXPECT_EQ(error.line, GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Locations,
    testing::Values(
        LocationCase{"Nothing", "", "", "", {}},
        LocationCase{"BarePath", "/m:a/b[k='line number 7.']", "/m:a/b[k='line number 7.']", "", {}},
        LocationCase{"LineAlone", "Line number 6.", "", "", 6},
        LocationCase{"DataAndLine", "Data location \"/m:a[k='1']\", line number 3.", "/m:a[k='1']", "", 3},
        LocationCase{"All", "Schema location \"/m:a\", data location \"/m:a[k='x']\", line number 12.", "/m:a[k='x']",
                     "/m:a", 12},
        LocationCase{"SchemaAlone", "Schema location \"/m:a\".", "", "/m:a", {}},
        LocationCase{"QuoteInKey", "Data location \"/m:a[k=\"it's\"]\", line number 1.", "/m:a[k=\"it's\"]", "", 1},
        LocationCase{"NoLineInKey", "Data location \"/m:a[k='line number ']\".", "/m:a[k='line number ']", "", {}},
        LocationCase{"Cut", "Data location \"", "", "", {}}),
    [](const auto& row) { return row.param.name; });

TEST(FirstError, IsTheOneStoredFirst) {
  const Context context = MakeContext();
  EXPECT_EQ(ReadFirstError(context.get()).message, "unknown error");
  for (const char* model : {"module first {", "module second {"}) {
    EXPECT_NE(lys_parse_mem(context.get(), model, LYS_IN_YANG, nullptr), LY_SUCCESS);
  }
  const LastError first = ReadFirstError(context.get());
  EXPECT_EQ(first.message, ly_err_first(context.get())->msg);
  EXPECT_NE(ly_err_first(context.get()), ly_err_first(context.get())->prev);
}

}  // namespace
}  // namespace yang
