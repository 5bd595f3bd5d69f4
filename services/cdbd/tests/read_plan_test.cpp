// Which provided lists a read has to wait for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cdb_store/instance_key.h"
#include "read/data_writer.h"
#include "read/provided_row.h"
#include "read/read_plan.h"
#include "store_fixture.h"

namespace cdbd::test {
namespace {

struct Row {
  std::string name;
  std::optional<std::string> filter;  ///< nothing: everything is read
  std::vector<std::string> needed;    ///< paths of the lists, with the instances that hold them
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.filter.value_or("everything"); }

class ReadPlan : public testing::TestWithParam<Row> {};

TEST_P(ReadPlan, NamesTheListsThatTheSelectionNeeds) {
  StoreFixture fixture{"provided"};
  ASSERT_TRUE(
      fixture
          .Edit("<plant xmlns='urn:ip-spoofing:test:provided'><machine><name>lathe</name><room>1</room></machine>"
                "<machine><name>press</name><room>2</room></machine></plant>")
          .empty());
  const auto snapshot = fixture.store->Take();
  ASSERT_TRUE(snapshot.ok());
  const cdb_store::View running = snapshot.value()->Running();
  const auto document = netconf::XmlDocument::Parse("<filter>" + GetParam().filter.value_or("") + "</filter>");
  ASSERT_TRUE(document.ok());
  const Selection selection = GetParam().filter ? Selection::Of(document.value()->root()) : Selection::Everything();
  std::vector<std::string> needed;
  ASSERT_TRUE(ReadStored(running, [&](const StoredInstance& root) {
    for (const NeededList& one : PlanRead(fixture.model->schema(), root, selection))
      needed.push_back(cdb_store::InstanceText(fixture.model->schema(), *one.list, one.parent_keys));
  }));
  EXPECT_THAT(needed, testing::ElementsAreArray(GetParam().needed));
}

const std::string kAlarms = "/pr:plant/alarms/alarm";
const std::string kOfLathe = "/pr:plant/machine{lathe}/counter";
const std::string kOfPress = "/pr:plant/machine{press}/counter";

INSTANTIATE_TEST_SUITE_P(
    Reads, ReadPlan,
    testing::Values(Row{"Everything", std::nullopt, {kOfLathe, kOfPress, kAlarms}}, Row{"Nothing", "", {}},
                    Row{"TheWholeTop", "<plant/>", {kOfLathe, kOfPress, kAlarms}},
                    Row{"ConfigurationOnly", "<plant><site/><machine><room/></machine></plant>", {}},
                    Row{"AContainerOfState", "<plant><alarms/></plant>", {kAlarms}},
                    Row{"ALeafInAProvidedEntry", "<plant><alarms><alarm><cause/></alarm></alarms></plant>", {kAlarms}},
                    Row{"EveryEntrysList", "<plant><machine><counter/></machine></plant>", {kOfLathe, kOfPress}},
                    Row{"OneEntryByItsKey", "<plant><machine><name>press</name></machine></plant>", {kOfPress}},
                    Row{"OneEntryByALeaf", "<plant><machine><room>1</room><counter/></machine></plant>", {kOfLathe}},
                    Row{"AnEntryThatIsNotThere", "<plant><machine><name>saw</name></machine></plant>", {}},
                    Row{"AnotherNamespace", "<plant xmlns='urn:other'/>", {}}),
    [](const auto& row) { return row.param.name; });

/// Entries that were "fetched": one for every list that is asked for.
class OneEntryEach final : public WrittenLists {
 public:
  [[nodiscard]] const std::string* Entries(const cdb_store::Node& list, std::string_view) const override {
    return list.name == "alarm" ? &alarm_ : nullptr;
  }

 private:
  const std::string alarm_ = "<alarm><id>7</id></alarm>";
};

TEST(DataWriter, PutsEntriesOfProvidersInTheirPlace) {
  StoreFixture fixture{"provided"};
  const std::string machine = "<machine><name>lathe</name><room>1</room></machine>";
  ASSERT_TRUE(fixture.Edit("<plant xmlns='urn:ip-spoofing:test:provided'>" + machine + "</plant>").empty());
  const auto snapshot = fixture.store->Take();
  ASSERT_TRUE(snapshot.ok());
  const cdb_store::View running = snapshot.value()->Running();
  const OneEntryEach lists;
  std::string out;
  ASSERT_TRUE(ReadStored(running, [&](const StoredInstance& root) {
    DataWriter{*fixture.model, &lists}.Write(root, Selection::Everything(), &out);
  }));
  EXPECT_EQ(out, "<plant xmlns=\"urn:ip-spoofing:test:provided\">" + machine +
                     "<alarms><alarm><id>7</id></alarm></alarms></plant>");
}

TEST(DataWriter, SelectsInEntriesOfProviders) {
  const StoreFixture fixture{"provided"};
  const cdb_store::Schema& schema = fixture.model->schema();
  const cdb_store::Node* alarm = schema.FindPath("/pr:plant/alarms/alarm");
  const cdb_store::Node* text = schema.FindPath("/pr:plant/alarms/alarm/cause/text");
  ASSERT_TRUE(alarm != nullptr && text != nullptr);
  const ProvidedRow row{{{text->id, "smoke & fire"}, {alarm->keys[0], "7"}}};
  const OneEntryEach lists;
  const DataWriter writer{*fixture.model, &lists};
  const auto written = [&](const std::string& filter) {
    const auto document = netconf::XmlDocument::Parse("<filter>" + filter + "</filter>");
    std::string out;
    writer.WriteEntry(*alarm, ProvidedInstance{row}, Selection::Of(document.value()->root()), &out);
    return out;
  };
  const std::string whole = "<alarm><id>7</id><cause><text>smoke &amp; fire</text></cause></alarm>";
  EXPECT_EQ(written("<alarm/>"), whole);
  EXPECT_EQ(written("<alarm><id>7</id></alarm>"), whole);
  EXPECT_EQ(written("<alarm><id>8</id></alarm>"), "");
  EXPECT_EQ(written("<alarm><id/></alarm>"), "<alarm><id>7</id></alarm>");
  EXPECT_EQ(written("<alarm><cause><text>smoke &amp; fire</text></cause></alarm>"), whole);
  EXPECT_EQ(written("<alarm><cause><text>water</text></cause></alarm>"), "");
}

}  // namespace
}  // namespace cdbd::test
