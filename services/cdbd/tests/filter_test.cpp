#include <gtest/gtest.h>

#include "read/data_writer.h"
#include "state/xml_instance.h"
#include "store_fixture.h"

namespace cdbd::test {
namespace {

constexpr const char* kConfiguration =
    "<shop xmlns='urn:ip-spoofing:test:unlike'><title>t</title><keyword>k1</keyword><keyword>k2</keyword>"
    "<goods><name>nut</name><code>1</code><price>0.5</price></goods>"
    "<goods><name>bolt</name><code>2</code><price>1.25</price></goods>"
    "<shelf><row>1</row><side>left</side><box><id>5</id><content>nut</content><mark>7</mark><mark>-7</mark></box>"
    "<box><id>-6</id><lid/></box></shelf>"
    "<shelf><row>1</row><side>right</side><box><id>5</id><size><width>3</width></size></box></shelf>"
    "<shelf><row>2</row><side>left</side></shelf></shop>"
    "<keys xmlns='urn:ip-spoofing:test:unlike'><of-union><k>all</k><l>a b</l></of-union></keys>";

struct Row {
  std::string name;
  std::string filter;    ///< '{' stands for the namespace declaration of the test model
  std::string selected;  ///< the same
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.filter; }

std::string WithNamespace(std::string text) {
  for (size_t at = 0; (at = text.find('{', at)) != std::string::npos;)
    text.replace(at, 1, " xmlns=\"urn:ip-spoofing:test:unlike\"");
  return text;
}

class SubtreeFilter : public testing::TestWithParam<Row> {
 protected:
  static void SetUpTestSuite() {
    fixture = new StoreFixture{"unlike"};
    ASSERT_TRUE(fixture->Edit(kConfiguration).empty());
  }
  static void TearDownTestSuite() {
    delete fixture;
    fixture = nullptr;
  }
  static StoreFixture* fixture;
};
StoreFixture* SubtreeFilter::fixture = nullptr;

TEST_P(SubtreeFilter, Selects) {
  EXPECT_EQ(fixture->Read(WithNamespace(GetParam().filter)), WithNamespace(GetParam().selected));
}

// The source of data makes no difference.
TEST_P(SubtreeFilter, SelectsTheSameOfXml) {
  const auto data = netconf::XmlDocument::Parse("<data>" + fixture->Read() + "</data>");
  const auto filter = netconf::XmlDocument::Parse("<filter>" + WithNamespace(GetParam().filter) + "</filter>");
  ASSERT_TRUE(data.ok() && filter.ok());
  const Selection selection = Selection::Of(filter.value()->root());
  std::string out;
  DataWriter{*fixture->model}.Write(XmlInstance{*fixture->model, data.value()->root()}, selection, &out);
  EXPECT_EQ(out, WithNamespace(GetParam().selected));
}

// Entries come in key order: enumerations by number, integers by value.
constexpr const char* kNut = "<goods><name>nut</name><code>1</code><price>0.5</price></goods>";
constexpr const char* kBolt = "<goods><name>bolt</name><code>2</code><price>1.25</price></goods>";
const std::string kRight =
    "<shelf><row>1</row><side>right</side><box><id>5</id><size><width>3</width></size></box></shelf>";
const std::string kBox5 = "<box><id>5</id><content>nut</content><mark>-7</mark><mark>7</mark></box>";
const std::string kLeft = "<shelf><row>1</row><side>left</side><box><id>-6</id><lid/></box>" + kBox5 + "</shelf>";

INSTANTIATE_TEST_SUITE_P(
    Rfc6241, SubtreeFilter,
    testing::Values(
        Row{"EmptyFilterSelectsNothing", "", ""},
        Row{"TopSelection", "<keys{/>", "<keys{><of-union><k>all</k><l>a b</l></of-union></keys>"},
        Row{"AnotherNamespace", "<shop xmlns='urn:other'/>", ""},
        Row{"NetconfNamespaceIsNotTheModels", "<shop xmlns='urn:ietf:params:xml:ns:netconf:base:1.0'/>", ""},
        Row{"NoNamespaceStandsForAll", "<shop><title/></shop>", "<shop{><title>t</title></shop>"},
        Row{"UnknownNode", "<shop{><nonsense/></shop>", ""}, Row{"NodeThatIsNotSet", "<shop{><currency/></shop>", ""},
        Row{"SelectsALeaf", "<shop{><title/></shop>", "<shop{><title>t</title></shop>"},
        Row{"SelectsALeafList", "<shop{><keyword/></shop>", "<shop{><keyword>k1</keyword><keyword>k2</keyword></shop>"},
        Row{"SelectsAList", "<shop{><goods/></shop>", "<shop{>" + std::string{kBolt} + kNut + "</shop>"},
        Row{"SelectsALeafOfEveryEntryWithItsKeys", "<shop{><goods><code/></goods></shop>",
            "<shop{><goods><name>bolt</name><code>2</code></goods><goods><name>nut</name><code>1</code></goods></"
            "shop>"},
        Row{"SelectsTheKeyOnly", "<shop{><goods><name/></goods></shop>",
            "<shop{><goods><name>bolt</name></goods><goods><name>nut</name></goods></shop>"},
        Row{"EntriesWithoutTheSelectedAreLeftOut", "<shop{><shelf><box><lid/></box></shelf></shop>",
            "<shop{><shelf><row>1</row><side>left</side><box><id>-6</id><lid/></box></shelf></shop>"},
        Row{"ContentMatchOnTheKeyGivesTheEntry", "<shop{><goods><name>nut</name></goods></shop>",
            "<shop{>" + std::string{kNut} + "</shop>"},
        Row{"ContentMatchIgnoresBlanksAround", "<shop{><goods><name> nut\n</name></goods></shop>",
            "<shop{>" + std::string{kNut} + "</shop>"},
        Row{"ContentMatchOnAnotherLeaf", "<shop{><goods><code>2</code></goods></shop>",
            "<shop{>" + std::string{kBolt} + "</shop>"},
        Row{"ContentMatchThatFails", "<shop{><goods><name>screw</name></goods></shop>", ""},
        Row{"ContentMatchWithSelection", "<shop{><goods><name>nut</name><price/></goods></shop>",
            "<shop{><goods><name>nut</name><price>0.5</price></goods></shop>"},
        Row{"TwoContentMatchesBothHave", "<shop{><goods><name>nut</name><code>1</code></goods></shop>",
            "<shop{>" + std::string{kNut} + "</shop>"},
        Row{"TwoContentMatchesOneFails", "<shop{><goods><name>nut</name><code>2</code></goods></shop>", ""},
        Row{"AllKeysOfTwo", "<shop{><shelf><row>1</row><side>right</side></shelf></shop>",
            "<shop{>" + kRight + "</shop>"},
        Row{"OneKeyOfTwo", "<shop{><shelf><row>1</row></shelf></shop>", "<shop{>" + kRight + kLeft + "</shop>"},
        Row{"KeyThatIsNoValueOfItsType", "<shop{><shelf><row>x</row><side>right</side></shelf></shop>", ""},
        Row{"SiblingsAreJoined", "<shop{><goods><name>nut</name></goods><goods><name>bolt</name><code/></goods></shop>",
            "<shop{><goods><name>bolt</name><code>2</code></goods>" + std::string{kNut} + "</shop>"},
        Row{"OneEntryOnceThoughNamedTwice",
            "<shop{><goods><name>nut</name><code/></goods><goods><name>nut</name><price/></goods></shop>",
            "<shop{>" + std::string{kNut} + "</shop>"},
        Row{"ContentMatchOnALeafListAmongItsSiblings", "<shop{><keyword>k2</keyword><title/></shop>",
            "<shop{><title>t</title><keyword>k2</keyword></shop>"},
        Row{"ContentMatchOnALeafListThatFails", "<shop{><keyword>k9</keyword><title/></shop>", ""},
        Row{"ContentMatchAtTheTopGivesItsSiblings", "<shop{><title>t</title></shop>",
            "<shop{><title>t</title><keyword>k1</keyword><keyword>k2</keyword>" + std::string{kBolt} + kNut + kRight +
                kLeft + "<shelf><row>2</row><side>left</side></shelf></shop>"},
        Row{"NestedContentMatch", "<shop{><shelf><box><id>5</id></box></shelf></shop>",
            "<shop{>" + kRight + "<shelf><row>1</row><side>left</side>" + kBox5 + "</shelf></shop>"},
        Row{"NestedInnerLeafList", "<shop{><shelf><box><mark>7</mark><id/></box></shelf></shop>",
            "<shop{><shelf><row>1</row><side>left</side><box><id>5</id><mark>7</mark></box></shelf></shop>"},
        Row{"ContainerInAnEntry", "<shop{><shelf><box><size><width>3</width></size></box></shelf></shop>",
            "<shop{>" + kRight + "</shop>"},
        Row{"AttributesMatchNothing", "<shop{><goods colour='red'/></shop>", ""},
        Row{"AttributesOnAContentMatch", "<shop{><goods><name colour='red'>nut</name></goods></shop>", ""},
        Row{"TextOfAContainer", "<shop{>text</shop>", ""},
        Row{"KeyWithBlanks", "<keys{><of-union><k>all</k><l>a b</l></of-union></keys>",
            "<keys{><of-union><k>all</k><l>a b</l></of-union></keys>"},
        Row{"TwoTops", "<keys{/><shop{><title/></shop>",
            "<shop{><title>t</title></shop><keys{><of-union><k>all</k><l>a b</l></of-union></keys>"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cdbd::test
