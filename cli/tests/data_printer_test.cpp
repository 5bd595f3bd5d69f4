#include "data_printer.h"

#include <gtest/gtest.h>

#include "common/paths.h"
#include "read_data.h"

namespace cli {
namespace {

constexpr const char* kConfig =
    "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing>"
    "<interface><interface-name>a&lt;b</interface-name><allowed-ip><all/>"
    "<ipv4><address>10.0.0.1</address><vlan>7</vlan></ipv4><ipv4><address>10.0.0.2</address><vlan>0</vlan></ipv4>"
    "</allowed-ip></interface><interface><interface-name>sp2</interface-name></interface>"
    "</anti-ip-spoofing></config>";

std::string Json(const std::string& data) {
  const auto models = LoadModels(common::ModelsDir());
  return models.ok() ? ReadData<JsonPrinter>(data, *models.value()) : models.error().Text();
}

TEST(XmlPrinter, WritesWhatCanBeLoadedAgain) {
  EXPECT_EQ(ReadData<XmlPrinter>(kConfig),
            "<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\">\n"
            "  <anti-ip-spoofing>\n"
            "    <interface>\n"
            "      <interface-name>a&lt;b</interface-name>\n"
            "      <allowed-ip>\n"
            "        <all/>\n"
            "        <ipv4>\n"
            "          <address>10.0.0.1</address>\n"
            "          <vlan>7</vlan>\n"
            "        </ipv4>\n"
            "        <ipv4>\n"
            "          <address>10.0.0.2</address>\n"
            "          <vlan>0</vlan>\n"
            "        </ipv4>\n"
            "      </allowed-ip>\n"
            "    </interface>\n"
            "    <interface>\n"
            "      <interface-name>sp2</interface-name>\n"
            "    </interface>\n"
            "  </anti-ip-spoofing>\n"
            "</config>\n");
}

TEST(XmlPrinter, NamesEachChangeOfNamespace) {
  EXPECT_EQ(ReadData<XmlPrinter>("<a xmlns=\"u\"><b xmlns=\"v\"/><c/></a>"),
            "<a xmlns=\"u\">\n  <b xmlns=\"v\"/>\n  <c/>\n</a>\n");
}

TEST(JsonPrinter, WritesListsAsArraysAndNumbersBare) {
  EXPECT_EQ(Json(kConfig),
            "{\n"
            "  \"anti-ip-spoofing:config\": {\n"
            "    \"anti-ip-spoofing\": {\n"
            "      \"interface\": [\n"
            "        {\n"
            "          \"interface-name\": \"a<b\",\n"
            "          \"allowed-ip\": {\n"
            "            \"all\": [null],\n"
            "            \"ipv4\": [\n"
            "              {\n"
            "                \"address\": \"10.0.0.1\",\n"
            "                \"vlan\": 7\n"
            "              },\n"
            "              {\n"
            "                \"address\": \"10.0.0.2\",\n"
            "                \"vlan\": 0\n"
            "              }\n"
            "            ]\n"
            "          }\n"
            "        },\n"
            "        {\n"
            "          \"interface-name\": \"sp2\"\n"
            "        }\n"
            "      ]\n"
            "    }\n"
            "  }\n"
            "}\n");
}

TEST(JsonPrinter, AsksAUnionWhichTypeAValueHas) {
  const auto row = [](const std::string& vlan) {
    return Json(
        "<state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing><allowed-ip><position>3</position>"
        "<address>all</address><vlan>" +
        vlan + "</vlan></allowed-ip></anti-ip-spoofing></state>");
  };
  EXPECT_NE(row("100").find("\"position\": \"3\",\n          \"address\": \"all\",\n          \"vlan\": 100\n"),
            std::string::npos)
      << row("100");
  EXPECT_NE(row("none").find("\"vlan\": \"none\"\n"), std::string::npos) << row("none");
}

TEST(JsonPrinter, QuotesWhatJsonDoesNotTake) {
  EXPECT_NE(Json("<commits xmlns=\"urn:ip-spoofing:cdb-monitor\"><commit><transaction>1</transaction>"
                 "<comment>say \"x\\y\"\nÃ©</comment></commit></commits>")
                .find("\"comment\": \"say \\\"x\\\\y\\\"\\nÃ©\"\n"),
            std::string::npos);
}

TEST(JsonPrinter, OfNothingIsAnEmptyObject) { EXPECT_EQ(Json(""), "{}\n"); }

TEST(JsonPrinter, StopsAtWhatTheModelsDoNotHave) {
  const auto models = LoadModels(common::ModelsDir());
  ASSERT_TRUE(models.ok());
  JsonPrinter printer{*models.value(), [](std::string_view) { FAIL() << "nothing is written"; }};
  printer.OnStart(1, {"urn:other", "x"});
  printer.OnEnd(1, {"urn:other", "x"}, "");
  printer.OnComplete();
  EXPECT_EQ(printer.error(), "no node 'x' of namespace 'urn:other'");
}

}  // namespace
}  // namespace cli
