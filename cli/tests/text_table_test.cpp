#include "text_table.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace cli {
namespace {

class TextTableTest : public testing::Test {
 protected:
  std::string text_;
  TextTable table_{{"A", "B"}, [this](std::string_view lines) { text_ += lines; }};
};

TEST_F(TextTableTest, CountsCharactersAndNotBytes) {
  table_.Add({"öö", "1"});
  table_.Add({"xyz", ""});
  table_.End();
  EXPECT_EQ(text_, "A    B\nöö   1\nxyz\n");
}

TEST_F(TextTableTest, WithoutRowsIsTheHeading) {
  table_.End();
  EXPECT_EQ(text_, "A  B\n");
}

TEST_F(TextTableTest, WritesRowsBeforeTheEnd) {
  for (size_t i = 1; i < TextTable::kSizingRows; ++i) table_.Add({"xyz", "1"});
  EXPECT_EQ(text_, "") << "the widths are not known yet";
  table_.Add({"xyz", "1"});
  EXPECT_EQ(std::count(text_.begin(), text_.end(), '\n'), TextTable::kSizingRows + 1);
  text_.clear();
  const std::string wide(70000, 'w');
  table_.Add({wide, "1"});
  EXPECT_EQ(text_, wide + "  1\n") << "a wider cell shifts its line";
}

}  // namespace
}  // namespace cli
