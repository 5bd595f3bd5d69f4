#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "edit/validator.h"
#include "northbound/rpc_error.h"
#include "store_fixture.h"

namespace cdbd::test {
namespace {

// In the rows, "AIS{...}" and "UN{...}" hold content of the two models' top container, and "OP=x" is an operation
// attribute. Paths are written without the prefix.
std::string Expand(std::string text) {
  const std::pair<std::string, std::string> replacements[] = {
      {"AIS{",
       "<config xmlns='urn:ip-spoofing:anti-ip-spoofing' xmlns:nc='urn:ietf:params:xml:ns:netconf:base:1.0'>"
       "<anti-ip-spoofing>"},
      {"}AIS", "</anti-ip-spoofing></config>"},
      {"UN{", "<shop xmlns='urn:ip-spoofing:test:unlike' xmlns:nc='urn:ietf:params:xml:ns:netconf:base:1.0'>"},
      {"}UN", "</shop>"},
      {"MIN{", "<minimum xmlns='urn:ip-spoofing:test:unlike' xmlns:nc='urn:ietf:params:xml:ns:netconf:base:1.0'>"},
      {"}MIN", "</minimum>"},
      {"OP=", "nc:operation="},
  };
  for (const auto& [from, to] : replacements)
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
      text.replace(at, from.size(), to);
  return text;
}

std::string WithoutPrefixes(std::string path) {
  for (const std::string prefix : {"ais:", "un:"})
    for (size_t at = 0; (at = path.find(prefix, at)) != std::string::npos;) path.erase(at, prefix.size());
  return path;
}

struct Row {
  std::string name;
  std::string edit;
  std::string tag;
  std::string path;
  std::string message;
  std::string info = {};
  std::string app_tag = {};
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.edit; }

/// Everything of the first error in one text, so that a row shows all that is wrong at once.
std::string Shown(const DataErrors& errors) {
  if (errors.empty()) return "accepted";
  const RpcError e = ToRpcErrors(errors).front();
  return e.tag + "\n" + WithoutPrefixes(e.path) + "\n" + e.message + "\n" + e.info + "\n" + e.app_tag;
}
std::string Expected(const Row& row) {
  if (row.tag.empty()) return "accepted";
  return row.tag + "\n" + row.path + "\n" + row.message + "\n" + row.info + "\n" + row.app_tag;
}

class Refused : public testing::TestWithParam<Row> {};

TEST_P(Refused, WithTagPathAndReasonAndNothingChanges) {
  StoreFixture fixture{"anti-ip-spoofing"};
  ASSERT_TRUE(fixture
                  .Edit(Expand("AIS{<interface><interface-name>eth0</interface-name><allowed-ip><all/><ipv4><address>"
                               "10.0.0.1</address><vlan>5</vlan></ipv4></allowed-ip></interface>}AIS"))
                  .empty());
  const std::string before = fixture.Read();
  const cdb_store::Txid txid = fixture.store->txid();
  // A change that is in order goes before what is not.
  std::string edit = GetParam().edit;
  if (edit.rfind("AIS{", 0) == 0) edit.insert(4, "<interface><interface-name>new</interface-name></interface>");
  EXPECT_EQ(Shown(fixture.Edit(Expand(edit))), Expected(GetParam()));
  EXPECT_EQ(fixture.Read(), before);
  EXPECT_EQ(fixture.store->txid(), txid);
}

std::string Name(const std::string& name) {
  return "AIS{<interface><interface-name>" + name + "</interface-name></interface>}AIS";
}
std::string Source(const std::string& leaves) {
  return "AIS{<interface><interface-name>eth0</interface-name><allowed-ip><ipv4>" + leaves +
         "</ipv4></allowed-ip></interface>}AIS";
}
std::string Allowed(const std::string& content) {
  return "AIS{<interface><interface-name>eth0</interface-name><allowed-ip>" + content + "</allowed-ip></interface>}AIS";
}

const std::string kInterface = "/config/anti-ip-spoofing/interface";
const std::string kEth0 = "/config/anti-ip-spoofing/interface[interface-name='eth0']";
const std::string kIpv4 = kEth0 + "/allowed-ip/ipv4";
constexpr const char* kBadName =
    "an interface name has no blank, quote, brace, bracket, slash, backslash or percent sign";
constexpr const char* kBadAddress = "an IPv4 address is four numbers 0 to 255 separated by dots";
constexpr const char* kBadMac = "a MAC address is six colon-separated pairs of hexadecimal digits";

INSTANTIATE_TEST_SUITE_P(
    Edits, Refused,
    testing::Values(
        Row{"NameWithSlash", Name("eth/0"), "invalid-value", kInterface + "/interface-name", kBadName},
        Row{"NameWithBlank", Name("eth 0"), "invalid-value", kInterface + "/interface-name", kBadName},
        Row{"NameWithPercent", Name("eth%s"), "invalid-value", kInterface + "/interface-name", kBadName},
        Row{"NameWithQuote", Name("eth&quot;"), "invalid-value", kInterface + "/interface-name", kBadName},
        Row{"NameWithBrace", Name("eth}"), "invalid-value", kInterface + "/interface-name", kBadName},
        Row{"NameOfSixteenBytesInFifteenCharacters", Name("abcdefghijklm\xc3\xb6n"), "invalid-value",
            kInterface + "/interface-name",
            "an interface name has ASCII characters only: at most 15 bytes are a name on Linux"},
        Row{"NameEmpty", Name(""), "invalid-value", kInterface + "/interface-name",
            "Unsatisfied length - string \"\" length is not allowed."},
        Row{"NameOfSixteen", Name("abcdefghijklmnop"), "invalid-value", kInterface + "/interface-name",
            "Unsatisfied length - string \"abcdefghijklmnop\" length is not allowed."},
        Row{"NameDot", Name("."), "invalid-value", kInterface + "/interface-name",
            "'.' and '..' are not interface names"},
        Row{"NameDotDot", Name(".."), "invalid-value", kInterface + "/interface-name",
            "'.' and '..' are not interface names"},
        Row{"AddressOutOfRange", Source("<address>10.0.0.256</address><vlan>1</vlan>"), "invalid-value",
            kIpv4 + "/address", kBadAddress},
        Row{"AddressShort", Source("<address>10.0.0</address><vlan>1</vlan>"), "invalid-value", kIpv4 + "/address",
            kBadAddress},
        Row{"AddressWithLeadingZero", Source("<address>10.0.0.01</address><vlan>1</vlan>"), "invalid-value",
            kIpv4 + "/address", kBadAddress},
        Row{"VlanTooLarge", Source("<address>10.0.0.1</address><vlan>4095</vlan>"), "invalid-value", kIpv4 + "/vlan",
            "Unsatisfied range - value \"4095\" is out of the allowed range."},
        Row{"VlanNegative", Source("<address>10.0.0.1</address><vlan>-1</vlan>"), "invalid-value", kIpv4 + "/vlan",
            "Unsatisfied range - value \"-1\" is out of the allowed range."},
        Row{"VlanNoNumber", Source("<address>10.0.0.1</address><vlan>x</vlan>"), "invalid-value", kIpv4 + "/vlan",
            "Invalid type int32 value \"x\"."},
        Row{"MacShort", Source("<address>10.0.0.1</address><vlan>5</vlan><mac>00:11:22:33:44</mac>"), "invalid-value",
            kIpv4 + "[address='10.0.0.1'][vlan='5']/mac",
            "Unsatisfied length - string \"00:11:22:33:44\" length is not allowed."},
        Row{"MacWithDashes", Source("<address>10.0.0.1</address><vlan>5</vlan><mac>00-11-22-33-44-55</mac>"),
            "invalid-value", kIpv4 + "[address='10.0.0.1'][vlan='5']/mac", kBadMac},
        Row{"EmptyLeafWithText", Allowed("<all>yes</all>"), "invalid-value", kEth0 + "/allowed-ip/all",
            "Invalid empty value length 3."},
        Row{"LeafWithElements", Allowed("<all><x/></all>"), "bad-element", kEth0 + "/allowed-ip/all",
            "'all' is a leaf and holds no elements", "<bad-element>all</bad-element>"},
        Row{"KeyMissing", Source("<address>10.0.0.1</address>"), "missing-element", kIpv4,
            "key 'vlan' of list 'ipv4' is missing", "<bad-element>vlan</bad-element>"},
        Row{"KeyTwice", Source("<address>10.0.0.1</address><vlan>1</vlan><vlan>2</vlan>"), "bad-element", kIpv4,
            "key 'vlan' of list 'ipv4' is there more than once", "<bad-element>vlan</bad-element>"},
        Row{"LeafTwice", Allowed("<all/><all/>"), "bad-element", kEth0 + "/allowed-ip/all",
            "'all' is there more than once", "<bad-element>all</bad-element>"},
        Row{"UnknownElement", Allowed("<ipv5/>"), "unknown-element", kEth0 + "/allowed-ip",
            "the data model has no 'ipv5' here", "<bad-element>ipv5</bad-element>"},
        Row{"UnknownTop", "<nonsense xmlns='urn:ip-spoofing:anti-ip-spoofing'/>", "unknown-element", "",
            "the data model has no 'nonsense' here", "<bad-element>nonsense</bad-element>"},
        Row{"UnknownNamespace", "<config xmlns='urn:other'/>", "unknown-namespace", "",
            "no data model has the namespace 'urn:other'",
            "<bad-element>config</bad-element><bad-namespace>urn:other</bad-namespace>"},
        Row{"NoNamespace", "<config/>", "unknown-namespace", "", "'config' is in no namespace",
            "<bad-element>config</bad-element><bad-namespace/>"},
        Row{"NotConfiguration", "<state xmlns='urn:ip-spoofing:anti-ip-spoofing'/>", "unknown-element", "",
            "'state' is not configuration", "<bad-element>state</bad-element>"},
        Row{"TextInAContainer", Allowed("text"), "bad-element", kEth0 + "/allowed-ip",
            "text where only elements are expected", "<bad-element>allowed-ip</bad-element>"},
        Row{"CreateEntryThatExists", "AIS{<interface OP='create'><interface-name>eth0</interface-name></interface>}AIS",
            "data-exists", kEth0, "it exists already"},
        Row{"CreateLeafThatExists", Allowed("<all OP='create'/>"), "data-exists", kEth0 + "/allowed-ip/all",
            "it exists already"},
        Row{"CreateContainerThatHasContent",
            "AIS{<interface><interface-name>eth0</interface-name><allowed-ip OP='create'/></interface>}AIS",
            "data-exists", kEth0 + "/allowed-ip", "it exists already"},
        Row{"DeleteLeafThatIsAbsent", Allowed("<ipv4-all OP='delete'/>"), "data-missing",
            kEth0 + "/allowed-ip/ipv4-all", "it does not exist"},
        Row{"DeleteEntryThatIsAbsent", "AIS{<interface OP='delete'><interface-name>no</interface-name></interface>}AIS",
            "data-missing", kInterface + "[interface-name='no']", "it does not exist"},
        Row{"DeleteEntryInAnother", Allowed("<ipv4 OP='delete'><address>10.0.0.2</address><vlan>5</vlan></ipv4>"),
            "data-missing", kIpv4 + "[address='10.0.0.2'][vlan='5']", "it does not exist"},
        Row{"BadOperation", Allowed("<all OP='destroy'/>"), "bad-attribute", kEth0 + "/allowed-ip",
            "'destroy' is not an operation", "<bad-attribute>operation</bad-attribute><bad-element>all</bad-element>"},
        Row{"OperationOfAKey", "AIS{<interface><interface-name OP='delete'>eth0</interface-name></interface>}AIS",
            "bad-attribute", kEth0, "a key cannot be deleted from its list entry",
            "<bad-attribute>operation</bad-attribute><bad-element>interface-name</bad-element>"},
        Row{"UnknownAttribute", Allowed("<all colour='red'/>"), "unknown-attribute", kEth0 + "/allowed-ip",
            "unexpected attribute 'colour'", "<bad-attribute>colour</bad-attribute><bad-element>all</bad-element>"}),
    [](const auto& row) { return row.param.name; });

struct RuleRow {
  std::string name;
  std::vector<std::string> before;
  std::string edit;
  std::string expected;  ///< what Shown() gives; "accepted"
};

void PrintTo(const RuleRow& row, std::ostream* out) { *out << row.edit; }

class Rules : public testing::TestWithParam<RuleRow> {};

/// As the server does it: apply, check every rule, commit only what is valid.
DataErrors Commit(StoreFixture& fixture, const std::string& edit) {
  const auto document = netconf::XmlDocument::Parse("<config>" + Expand(edit) + "</config>");
  if (!document) throw std::runtime_error(document.error().Text());
  auto txn = fixture.store->Begin();
  if (!txn) throw std::runtime_error(txn.error().Text());
  DataErrors errors = Editor{*fixture.model, txn.value(), {}}.Apply(document.value()->root());
  if (errors.empty()) errors = Validate(*fixture.model, txn.value().Running(), &txn.value());
  if (errors.empty() && !txn.value().Commit()) throw std::runtime_error("commit");
  return errors;
}

TEST_P(Rules, AreChecked) {
  StoreFixture fixture{"unlike"};
  ASSERT_TRUE(fixture.model->has_constraints());
  for (const std::string& edit : GetParam().before) ASSERT_EQ(Shown(Commit(fixture, edit)), "accepted") << edit;
  EXPECT_EQ(Shown(Commit(fixture, GetParam().edit)), GetParam().expected);
}

std::string Error(const std::string& tag, const std::string& path, const std::string& message,
                  const std::string& app_tag = "", const std::string& info = "") {
  return tag + "\n" + path + "\n" + message + "\n" + info + "\n" + app_tag;
}

constexpr const char* kNut = "UN{<goods><name>nut</name><code>1</code><price>1.5</price></goods>}UN";
constexpr const char* kBoxOfNuts =
    "UN{<shelf><row>1</row><side>left</side><box><id>1</id><content>nut</content></box></shelf>}UN";

INSTANTIATE_TEST_SUITE_P(
    Unlike, Rules,
    testing::Values(
        RuleRow{"Mandatory",
                {},
                "UN{<goods><name>nut</name></goods>}UN",
                Error("data-missing", "/shop/goods[name='nut']/price",
                      "Mandatory node \"price\" instance does not exist.")},
        RuleRow{"MandatoryDeleted",
                {kNut},
                "UN{<goods><name>nut</name><price OP='delete'/></goods>}UN",
                Error("data-missing", "/shop/goods[name='nut']/price",
                      "Mandatory node \"price\" instance does not exist.")},
        RuleRow{"Unique",
                {kNut},
                "UN{<goods><name>bolt</name><code>1</code><price>2</price></goods>}UN",
                Error("operation-failed", "/shop/goods[name='nut']",
                      "Unique data leaf(s) \"code\" not satisfied in \"/unlike:shop/goods[name='bolt']\" and "
                      "\"/unlike:shop/goods[name='nut']\".",
                      "data-not-unique")},
        RuleRow{"Must",
                {},
                "UN{<door><open>true</open><lock>bolt</lock></door>}UN",
                Error("operation-failed", "/shop/door", "an open door has no lock", "open-and-locked")},
        RuleRow{"MustHolds", {}, "UN{<door><open>false</open><lock>bolt</lock></door>}UN", "accepted"},
        RuleRow{"LeafrefWithoutTarget",
                {},
                kBoxOfNuts,
                Error("data-missing", "/shop/shelf[row='1'][side='left']/box[id='1']/content",
                      "Invalid leafref value \"nut\" - no target instance \"/un:shop/un:goods/un:name\" with the same "
                      "value.",
                      "instance-required")},
        RuleRow{"LeafrefWithTarget", {kNut}, kBoxOfNuts, "accepted"},
        RuleRow{"LeafrefTargetDeletedElsewhere",
                {kNut, kBoxOfNuts},
                "UN{<goods OP='delete'><name>nut</name></goods>}UN",
                Error("data-missing", "/shop/shelf[row='1'][side='left']/box[id='1']/content",
                      "Invalid leafref value \"nut\" - no target instance \"/un:shop/un:goods/un:name\" with the same "
                      "value.",
                      "instance-required")},
        RuleRow{"When",
                {kNut},
                "UN{<goods><name>nut</name><padding>1</padding></goods>}UN",
                Error("unknown-element", "/shop/goods[name='nut']/padding",
                      "When condition \"../fragile = 'true'\" not satisfied.")},
        RuleRow{"WhenHolds",
                {kNut},
                "UN{<goods><name>nut</name><fragile>true</fragile><padding>1</padding></goods>}UN",
                "accepted"},
        RuleRow{
            "TooMany",
            {},
            "UN{<keyword>a</keyword><keyword>b</keyword><keyword>c</keyword><keyword>d</keyword>}UN",
            Error("operation-failed", "/shop/keyword[.='d']", "Too many \"keyword\" instances.", "too-many-elements")},
        RuleRow{"TooFew",
                {},
                "MIN{<pair><name>a</name></pair><this/>}MIN",
                Error("operation-failed", "/minimum/pair", "Too few \"pair\" instances.", "too-few-elements")},
        RuleRow{
            "MandatoryChoice",
            {},
            "MIN{<pair><name>a</name></pair><pair><name>b</name></pair>}MIN",
            Error("data-missing", "/minimum", "Mandatory choice \"must-choose\" data do not exist.", "missing-choice",
                  "<missing-choice xmlns=\"urn:ietf:params:xml:ns:yang:1\">must-choose</missing-choice>")},
        RuleRow{
            "LowerBoundKept", {}, "MIN{<pair><name>a</name></pair><pair><name>b</name></pair><that/>}MIN", "accepted"},
        RuleRow{"LengthWithItsOwnWords",
                {},
                "UN{<keyword>ninechars</keyword>}UN",
                Error("invalid-value", "/shop/keyword", "one to eight characters", "bad-length")},
        RuleRow{"EnumerationUnknown",
                {},
                "UN{<door><lock>glue</lock></door>}UN",
                Error("invalid-value", "/shop/door/lock", "Invalid enumeration value \"glue\".")},
        RuleRow{"TwoCasesAtOnce",
                {},
                "UN{<currency>eur</currency><barter/>}UN",
                Error("bad-element", "/shop/barter", "'barter' and 'currency' are in different cases of one choice", "",
                      "<bad-element>barter</bad-element>")}),
    [](const auto& row) { return row.param.name; });

TEST(Rules, AWhenThatBecomesFalseTakesItsNodeAway) {
  StoreFixture fixture{"unlike"};
  ASSERT_EQ(Shown(Commit(fixture,
                         "UN{<goods><name>nut</name><price>1</price><fragile>true</fragile><padding>9</padding>"
                         "</goods>}UN")),
            "accepted");
  ASSERT_EQ(Shown(Commit(fixture, "UN{<goods><name>nut</name><fragile>false</fragile></goods>}UN")), "accepted");
  EXPECT_EQ(fixture.Read(),
            "<shop xmlns=\"urn:ip-spoofing:test:unlike\"><goods><name>nut</name><price>1.0</price><fragile>false</"
            "fragile></goods></shop>");
}

TEST(Rules, IdentitiesAreReadAndWrittenWithThePrefixesInScope) {
  StoreFixture fixture{"unlike"};
  ASSERT_EQ(Shown(fixture.Edit("<shop xmlns='urn:ip-spoofing:test:unlike'><goods><name>a</name>"
                               "<colour xmlns:x='urn:ip-spoofing:test:unlike'>x:red</colour></goods>"
                               "<goods><name>b</name><colour>blue</colour></goods></shop>")),
            "accepted");
  EXPECT_EQ(fixture.Read(),
            "<shop xmlns=\"urn:ip-spoofing:test:unlike\"><goods><name>a</name><colour xmlns:unlike=\"urn:ip-spoofing:"
            "test:unlike\">unlike:red</colour></goods><goods><name>b</name><colour xmlns:unlike=\"urn:ip-spoofing:test:"
            "unlike\">unlike:blue</colour></goods></shop>");
  EXPECT_EQ(Shown(fixture.Edit("<shop xmlns='urn:ip-spoofing:test:unlike'><goods><name>a</name><colour>green</colour>"
                               "</goods></shop>"))
                .substr(0, 13),
            "invalid-value");
}

TEST(Rules, TheOperatorsModelHasNoneAcrossLeavesSoThatACommitIsNotCheckedAsAWhole) {
  EXPECT_FALSE(StoreFixture{"anti-ip-spoofing"}.model->has_constraints());
  EXPECT_TRUE(StoreFixture{"unlike"}.model->has_constraints());
}

TEST(ContinueOnError, TellsEveryErrorAndAppliesTheRest) {
  StoreFixture fixture{"anti-ip-spoofing"};
  const auto document =
      netconf::XmlDocument::Parse("<config>" +
                                  Expand("AIS{<interface><interface-name>a</interface-name></interface>"
                                         "<interface><interface-name>/</interface-name></interface>"
                                         "<interface OP='delete'><interface-name>b</interface-name></interface>"
                                         "<interface><interface-name>c</interface-name></interface>}AIS") +
                                  "</config>");
  ASSERT_TRUE(document.ok());
  auto txn = fixture.store->Begin();
  ASSERT_TRUE(txn.ok());
  EditOptions options;
  options.continue_on_error = true;
  const DataErrors errors = Editor{*fixture.model, txn.value(), options}.Apply(document.value()->root());
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_EQ(errors[0].tag, "data-missing");
  EXPECT_EQ(errors[1].tag, "invalid-value");
  ASSERT_TRUE(txn.value().Commit().ok());
  EXPECT_EQ(fixture.Read(),
            "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing><interface><interface-name>a</"
            "interface-name></interface><interface><interface-name>c</interface-name></interface></anti-ip-spoofing></"
            "config>");
}

}  // namespace
}  // namespace cdbd::test
