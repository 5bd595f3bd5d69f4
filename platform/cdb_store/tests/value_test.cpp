#include <gtest/gtest.h>

#include "cdb_store/schema.h"
#include "cdb_store/value.h"

namespace cdb_store {
namespace {

struct TextCase {
  const char* name;
  ValueType type;
  std::string text;
  std::string canonical;  ///< "" with `bad`
  bool bad = false;
  BinaryText binary_text = BinaryText::kBase64;
};

class ValueText : public ::testing::TestWithParam<TextCase> {};

TEST_P(ValueText, RoundTripsOrIsRefused) {
  Node leaf;
  leaf.name = "leaf";
  leaf.type = GetParam().type;
  leaf.binary_text = GetParam().binary_text;
  leaf.fraction_digits = 2;
  leaf.enums = {{"up", 1}, {"down", -7}};
  const auto stored = ValueFromText(leaf, GetParam().text);
  ASSERT_EQ(stored.ok(), !GetParam().bad);
  if (stored.ok()) {
    EXPECT_EQ(ValueToText(leaf, stored.value()), GetParam().canonical);
  } else {
    EXPECT_NE(stored.error().Text().find(GetParam().text), std::string::npos) << stored.error().Text();
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, ValueText,
    ::testing::Values(
        TextCase{"Int8Least", ValueType::kInt8, "-128", "-128"},
        TextCase{"Int8Over", ValueType::kInt8, "128", "", true},
        TextCase{"Int16", ValueType::kInt16, "-32768", "-32768"}, TextCase{"Int32Plus", ValueType::kInt32, "+7", "7"},
        TextCase{"Int32Empty", ValueType::kInt32, "", "", true},
        TextCase{"Int32Junk", ValueType::kInt32, "7x", "", true},
        TextCase{"Int64", ValueType::kInt64, "-9223372036854775808", "-9223372036854775808"},
        TextCase{"Uint8Negative", ValueType::kUint8, "-1", "", true},
        TextCase{"Uint64", ValueType::kUint64, "18446744073709551615", "18446744073709551615"},
        TextCase{"Uint64Over", ValueType::kUint64, "18446744073709551616", "", true},
        TextCase{"BoolTrue", ValueType::kBool, "true", "true"}, TextCase{"BoolOne", ValueType::kBool, "1", "", true},
        TextCase{"Enum", ValueType::kEnum, "down", "down"}, TextCase{"EnumUnknown", ValueType::kEnum, "side", "", true},
        TextCase{"Empty", ValueType::kEmpty, "", ""}, TextCase{"EmptyWithText", ValueType::kEmpty, "x", "", true},
        TextCase{"String", ValueType::kString, " a{b}", " a{b}"},
        TextCase{"Ipv4", ValueType::kIpv4, "10.0.0.1", "10.0.0.1"},
        TextCase{"Ipv4Short", ValueType::kIpv4, "10.0.0", "", true},
        TextCase{"Ipv6", ValueType::kIpv6, "2001:DB8::0:1", "2001:db8::1"},
        TextCase{"Ipv6Bad", ValueType::kIpv6, "2001:::1", "", true},
        TextCase{"Base64", ValueType::kBinary, "AAEC/w==", "AAEC/w=="},
        TextCase{"Base64Blank", ValueType::kBinary, "AAEC\n/w==", "AAEC/w=="},
        TextCase{"Base64Short", ValueType::kBinary, "AAE", "", true},
        TextCase{"Base64PaddingInside", ValueType::kBinary, "A=EC", "", true},
        TextCase{"Octets", ValueType::kBinary, "00:1B:ff", "00:1b:ff", false, BinaryText::kOctets},
        TextCase{"OctetsTrailingColon", ValueType::kBinary, "00:1b:", "", true, BinaryText::kOctets},
        TextCase{"OctetsOddDigit", ValueType::kBinary, "00:1", "", true, BinaryText::kOctets},
        TextCase{"OctetsNone", ValueType::kBinary, "", "", false, BinaryText::kOctets},
        TextCase{"Decimal", ValueType::kDecimal64, "-1.5", "-1.5"},
        TextCase{"DecimalWhole", ValueType::kDecimal64, "3", "3.0"},
        TextCase{"DecimalSmall", ValueType::kDecimal64, "-0.05", "-0.05"},
        TextCase{"DecimalTrailingZeroes", ValueType::kDecimal64, "1.5000", "1.5"},
        TextCase{"DecimalTooFine", ValueType::kDecimal64, "1.505", "", true},
        TextCase{"DecimalSignInFraction", ValueType::kDecimal64, "1.-5", "", true},
        TextCase{"DecimalNoDigits", ValueType::kDecimal64, "1.", "", true}),
    [](const auto& row) { return row.param.name; });

template <class T>
void ExpectOrder(std::initializer_list<T> rising) {
  const T* last = nullptr;
  for (const T& value : rising) {
    EXPECT_EQ(LoadInt<T>(StoreInt(value)), value);
    if (last != nullptr) {
      EXPECT_LT(StoreInt(*last), StoreInt(value)) << +*last << " " << +value;
    }
    last = &value;
  }
}

TEST(StoredInt, OrdersAsTheNumbersDo) {
  ExpectOrder<int8_t>({-128, -1, 0, 1, 127});
  ExpectOrder<int32_t>({INT32_MIN, -256, -1, 0, 255, 256, INT32_MAX});
  ExpectOrder<int64_t>({INT64_MIN, -1, 0, 1, INT64_MAX});
  ExpectOrder<uint16_t>({0, 255, 256, 65535});
  ExpectOrder<uint64_t>({0, 1, UINT32_MAX, UINT64_MAX});
}

}  // namespace
}  // namespace cdb_store
