#include "config_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "common/paths.h"

namespace cli {
namespace {

/// Rows are named by gtest from `name`.
struct FileCase {
  std::string name;
  std::string text;
  std::string outcome;  ///< "N entries", or the error with the file's path taken off
};
void PrintTo(const FileCase& row, std::ostream* out) { *out << row.name; }

class ConfigFileTest : public testing::TestWithParam<FileCase> {
 protected:
  ConfigFileTest() { std::ofstream{path_} << GetParam().text; }
  ~ConfigFileTest() override { ::unlink(path_.c_str()); }

  std::string Outcome() {
    const common::Result<Models> models = LoadModels(common::ModelsDir());
    if (!models.ok()) return models.error().Text();
    const common::Result<ConfigFile> file = ConfigFile::Read(path_, *models.value());
    const common::Status status = file.ok() ? file.value().Check(*models.value()) : file.error();
    if (status) return std::to_string(file.value().list_entries()) + " entries";
    const std::string text = status.error().Text();
    return text.starts_with(path_) ? text.substr(path_.size()) : text;
  }

  std::string path_ = testing::TempDir() + "config_file_test." + std::to_string(::getpid()) + ".xml";
};

TEST_P(ConfigFileTest, IsReadOrRefusedWithLineAndPath) { EXPECT_EQ(Outcome(), GetParam().outcome); }

/// The configuration with `body` inside the list of interfaces, which starts on line 3.
std::string Config(const std::string& body) {
  return "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\">\n<anti-ip-spoofing>\n" + body +
         "</anti-ip-spoofing>\n</config>\n";
}
constexpr const char* kOneSource =
    "<interface><interface-name>eth3</interface-name><allowed-ip>\n"
    "<ipv4><address>10.0.0.1</address><vlan>100</vlan></ipv4>\n</allowed-ip></interface>\n";
std::string Message(const std::string& element, const std::string& content) {
  return "<" + element + " xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">\n" + content + "</" + element + ">";
}
const std::string kRoot = "/anti-ip-spoofing:config/anti-ip-spoofing/";

INSTANTIATE_TEST_SUITE_P(
    Files, ConfigFileTest,
    testing::Values(
        FileCase{"TheDataAlone", Config(kOneSource), "2 entries"},
        FileCase{"WithPrologAndComment", "<?xml version=\"1.0\"?>\n<!-- of 2026 -->\n" + Config(kOneSource),
                 "2 entries"},
        FileCase{"InsideConfig", Message("config", Config(kOneSource)), "2 entries"},
        FileCase{"InsideData", Message("data", Config(kOneSource)), "2 entries"},
        FileCase{"InsideAnAnswer", Message("rpc-reply", "<data>" + Config(kOneSource) + "</data>"), "2 entries"},
        FileCase{"NoInterface", Config(""), "0 entries"}, FileCase{"AnEmptyAnswer", Message("data", ""), "0 entries"},
        FileCase{"BadAddress",
                 Config("<interface><interface-name>eth3</interface-name><allowed-ip>\n<ipv4>\n"
                        "<address>10.0.0.300</address><vlan>1</vlan></ipv4></allowed-ip></interface>\n"),
                 ":5: " + kRoot +
                     "interface[interface-name='eth3']/allowed-ip/ipv4/address: an IPv4 address is four numbers 0 to "
                     "255 separated by dots"},
        FileCase{
            "BadAddressInsideData",
            Message("data", Config("<interface><interface-name>eth3</interface-name><allowed-ip>\n<ipv4>\n"
                                   "<address>10.0.0.300</address><vlan>1</vlan></ipv4></allowed-ip></interface>\n")),
            ":6: " + kRoot +
                "interface[interface-name='eth3']/allowed-ip/ipv4/address: an IPv4 address is four numbers 0 to "
                "255 separated by dots"},
        FileCase{"MissingKey",
                 Config("<interface><interface-name>eth3</interface-name><allowed-ip>\n"
                        "<ipv4><address>10.0.0.3</address></ipv4>\n</allowed-ip></interface>\n"),
                 ":4: " + kRoot +
                     "interface[interface-name='eth3']/allowed-ip/ipv4[address='10.0.0.3']: List instance is missing "
                     "its key \"vlan\"."},
        FileCase{"UnknownLeaf", Config("<interface>\n<interface-nam>eth3</interface-nam></interface>\n"),
                 ":4: " + kRoot + "interface: Node \"interface-nam\" not found as a child of \"interface\" node."},
        FileCase{"VlanOutOfRange",
                 Config("<interface><interface-name>eth3</interface-name><allowed-ip>\n"
                        "<ipv4><address>10.0.0.3</address>\n<vlan>4095</vlan></ipv4></allowed-ip></interface>\n"),
                 ":5: " + kRoot +
                     "interface[interface-name='eth3']/allowed-ip/ipv4[address='10.0.0.3']/vlan: Unsatisfied range - "
                     "value \"4095\" is out of the allowed range."},
        FileCase{"NotWellFormed", "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\">\n<a>\n</b></config>",
                 ":3: mismatched tag"},
        FileCase{"NoXml", "eth3 10.0.0.1\n", ":1: syntax error"}, FileCase{"NoText", "", ":1: no element found"},
        FileCase{"OtherNamespace", "<config xmlns=\"urn:other\"/>",
                 ":1: No module with namespace \"urn:other\" in the context."}),
    [](const auto& row) { return row.param.name; });

/// What is sent of a file with this text.
std::string Sent(const std::string& text) {
  const std::string path = testing::TempDir() + "config_file_test.sent." + std::to_string(::getpid());
  std::ofstream{path} << text;
  const common::Result<Models> models = LoadModels(common::ModelsDir());
  const common::Result<ConfigFile> file = ConfigFile::Read(path, *models.value());
  ::unlink(path.c_str());
  return file.ok() ? file.value().Config() : file.error().Text();
}
constexpr const char* kOpen = "<nc:config xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\"";

TEST(ConfigFile, IsSentAsItStandsInTheFile) {
  const std::string data = "<a xmlns=\"u\"><!-- c -->&lt;<b/></a>";
  EXPECT_EQ(Sent("<?xml version=\"1.0\"?>\n" + data + "\n"), kOpen + (" xmlns=\"\">" + data) + "\n</nc:config>");
}

TEST(ConfigFile, IsSentWithoutItsWrappers) {
  const std::string data = "<a xmlns=\"u\"/> <p:b/>";
  EXPECT_EQ(Sent("<rpc-reply xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns:p=\"v\"><data xmlns:nc=\"w\">" +
                 data + "</data></rpc-reply>"),
            "<ncc:config xmlns:ncc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
            "xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns:nc=\"w\" xmlns:p=\"v\">" +
                data + "</ncc:config>");
  EXPECT_EQ(Sent("<n:config xmlns:n=\"urn:ietf:params:xml:ns:netconf:base:1.0\"/>"),
            kOpen + std::string{" xmlns=\"\" xmlns:n=\"urn:ietf:params:xml:ns:netconf:base:1.0\"></nc:config>"});
}

TEST(ConfigFile, OneThatIsNotThereIsNamedWithTheReason) {
  const common::Result<Models> models = LoadModels(common::ModelsDir());
  ASSERT_TRUE(models.ok()) << models.error().Text();
  const auto file = ConfigFile::Read("/nowhere/at-all.xml", *models.value());
  ASSERT_FALSE(file.ok());
  EXPECT_EQ(file.error().Text(), "/nowhere/at-all.xml: No such file or directory");
}

TEST(LoadModels, AFolderWithoutModulesIsNamed) {
  const common::Result<Models> models = LoadModels("/nowhere");
  ASSERT_FALSE(models.ok());
  EXPECT_EQ(models.error().Text(), "load data models /nowhere: no YANG module there");
}

}  // namespace
}  // namespace cli
