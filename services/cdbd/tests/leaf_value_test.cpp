// The canonical form of integers: what the fast way takes, and what is left to libyang.
#include <gtest/gtest.h>

#include "model/leaf_value.h"
#include "store_fixture.h"

namespace cdbd::test {
namespace {

struct Row {
  std::string name;
  std::string leaf;
  std::string text;
  std::string canonical;  ///< "": not a value
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.leaf << " " << row.text; }

class Integer : public testing::TestWithParam<Row> {};

TEST_P(Integer, HasOneCanonicalForm) {
  static const StoreFixture fixture{"numbers"};
  const cdb_store::Node* leaf = fixture.model->schema().FindPath("/nu:numbers/" + GetParam().leaf);
  ASSERT_NE(leaf, nullptr);
  DataError error;
  EXPECT_EQ(CanonicalValue(*fixture.model, *leaf, GetParam().text, &error).value_or(""), GetParam().canonical);
  EXPECT_EQ(error.message.empty(), !GetParam().canonical.empty()) << error.message;
}

INSTANTIATE_TEST_SUITE_P(
    Values, Integer,
    testing::Values(Row{"Zero", "ranged", "0", "0"}, Row{"Last", "ranged", "4094", "4094"},
                    Row{"AboveTheRange", "ranged", "4095", ""}, Row{"BelowTheRange", "ranged", "-1", ""},
                    Row{"MinusZero", "ranged", "-0", "0"}, Row{"Plus", "ranged", "+5", "5"},
                    Row{"LeadingZero", "ranged", "05", "5"}, Row{"BlanksAround", "ranged", " 7 ", "7"},
                    Row{"Hexadecimal", "ranged", "0x10", ""}, Row{"Nothing", "ranged", "", ""},
                    Row{"Letters", "ranged", "seven", ""}, Row{"TwoNumbers", "ranged", "1 2", ""},
                    Row{"FirstPart", "parts", "-5", "-5"}, Row{"SecondPart", "parts", "10", "10"},
                    Row{"BetweenTheParts", "parts", "0", ""}, Row{"LeastInt8", "i8", "-128", "-128"},
                    Row{"BelowInt8", "i8", "-129", ""}, Row{"MostInt8", "i8", "127", "127"},
                    Row{"AboveInt8", "i8", "128", ""}, Row{"MostUint8", "u8", "255", "255"},
                    Row{"AboveUint8", "u8", "256", ""}, Row{"BelowUint8", "u8", "-1", ""},
                    Row{"LeastInt16", "i16", "-32768", "-32768"}, Row{"AboveInt16", "i16", "32768", ""},
                    Row{"AboveUint16", "u16", "65536", ""}, Row{"LeastInt32", "i32", "-2147483648", "-2147483648"},
                    Row{"BelowInt32", "i32", "-2147483649", ""}, Row{"AboveInt32", "i32", "2147483648", ""},
                    Row{"MostUint32", "u32", "4294967295", "4294967295"}, Row{"AboveUint32", "u32", "4294967296", ""},
                    Row{"MostUint64", "u64", "18446744073709551615", "18446744073709551615"},
                    Row{"AboveUint64", "u64", "18446744073709551616", ""},
                    Row{"UnsignedPart", "uparts", "4000000000", "4000000000"},
                    Row{"OutsideUnsignedParts", "uparts", "4000000001", ""}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cdbd::test
