#include <gtest/gtest.h>

#include "random_edit.h"
#include "store_fixture.h"

namespace cdbd::test {
namespace {

constexpr int kEdits = 4000;

class RandomEdits : public testing::TestWithParam<const char*> {};

TEST_P(RandomEdits, LeaveWhatTheSimpleModelSays) {
  StoreFixture fixture{GetParam()};
  const cdb_store::Schema& schema = fixture.model->schema();
  EditMaker maker{schema, 7};
  Tree tree;
  std::map<std::string, int> outcomes;
  for (int i = 0; i < kEdits; ++i) {
    const std::vector<Edit> edits = maker.Make();
    const std::string xml = ToXml(schema, edits);
    const size_t pick = maker.Below(40);
    const std::string operation = pick == 0 ? "replace" : pick < 6 ? "none" : "merge";
    Tree expected = tree;
    const std::string tag = Apply(schema, edits, operation, &expected);
    const cdb_store::Txid before = fixture.store->txid();
    const DataErrors errors = fixture.Edit(xml, *ParseOperation(operation));
    const std::string got = errors.empty() ? "" : errors.front().tag;
    ASSERT_EQ(got, tag) << "edit " << i << " (" << operation << "): " << xml << "\non\n"
                        << tree.Text() << (errors.empty() ? "" : errors.front().message + errors.front().path);
    ++outcomes[tag];
    if (!tag.empty()) {
      ASSERT_EQ(fixture.store->txid(), before);
      continue;
    }
    ASSERT_EQ(fixture.store->txid() == before, expected.Text() == tree.Text()) << xml;
    tree = std::move(expected);
    const auto document = netconf::XmlDocument::Parse("<data>" + fixture.Read() + "</data>");
    ASSERT_TRUE(document.ok()) << document.error().Text();
    ASSERT_EQ(TreeOf(schema, schema.root(), document.value()->root()).Text(), tree.Text())
        << "edit " << i << " (" << operation << "): " << xml;
  }
  EXPECT_GT(outcomes[""], kEdits / 4);
  EXPECT_GT(outcomes["data-exists"], 10);
  EXPECT_GT(outcomes["data-missing"], 10);
}

INSTANTIATE_TEST_SUITE_P(Models, RandomEdits, testing::Values("anti-ip-spoofing", "unlike"), [](const auto& row) {
  std::string name{row.param};
  std::erase(name, '-');
  return name;
});

}  // namespace
}  // namespace cdbd::test
