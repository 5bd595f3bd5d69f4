// Large configurations, and another data model, on a real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "cdbd_process.h"
#include "replies.h"

namespace cdbd::test {
namespace {

constexpr size_t kEntries = 262144;
constexpr size_t kInterfaces = 64;
constexpr size_t kMaxResidentPerEntry = 1024;  // bytes

/// Entries of interface `port`, in key order, as get-config writes them.
std::string Entries(size_t port) {
  std::string text;
  for (size_t i = 0; i < kEntries / kInterfaces; ++i) {
    const size_t n = i * kInterfaces + port;
    text += "<ipv4><address>10." + std::to_string(n >> 16) + "." + std::to_string(n >> 8 & 255) + "." +
            std::to_string(n & 255) + "</address><vlan>" + std::to_string(n % 4095) + "</vlan>";
    if (n % 2 != 0) text += "<mac>00:11:22:33:44:55</mac>";
    text += "</ipv4>";
  }
  return text;
}

size_t ResidentBytes(pid_t pid) {
  std::ifstream status{"/proc/" + std::to_string(pid) + "/status"};
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stoul(line.substr(6)) * 1024;
  return 0;
}

TEST(Load, AQuarterOfAMillionEntriesInOneEdit) {
  CdbdProcess server;
  server.Start();
  std::string content;
  for (size_t port = 0; port < kInterfaces; ++port)
    content += "<interface><interface-name>ge-" + std::to_string(port + 100) + "</interface-name><allowed-ip>" +
               Entries(port) + "</allowed-ip></interface>";
  const std::string config = AntiSpoofing(content);
  NetconfClient client = server.Connect();
  ASSERT_TRUE(IsOk(client.EditConfig(config)));
  EXPECT_TRUE(client.GetConfig() == config) << "what is read is not what was loaded";
  if (CDBD_SANITIZED == 0) {
    EXPECT_LT(ResidentBytes(server.process().pid()), kEntries * kMaxResidentPerEntry);
  }
  EXPECT_TRUE(IsOk(client.EditConfig(
      AntiSpoofing("", " xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=\"delete\""))));
  EXPECT_EQ(client.GetConfig(), "");
}

TEST(Load, AMessageLargerThanTheLimitEndsTheSessionOnly) {
  CdbdProcess server{{"--max-message", "1"}};
  server.Start();
  NetconfClient client = server.Connect();
  std::string large = "<edit-config>" + std::string(2 << 20, ' ') + "</edit-config>";
  // The server may close while the rest is on its way.
  EXPECT_FALSE(client.raw().Rpc(large, NetconfClient::kLimit).ok());
  EXPECT_EQ(server.Connect().GetConfig(), "");
}

TEST(Load, AStoreThatIsFullRefusesTheCommitAndLivesOn) {
  CdbdProcess server{{"--database-size", "1"}};
  server.Start();
  NetconfClient client = server.Connect();
  ASSERT_TRUE(IsOk(client.EditConfig(Interfaces({"eth0"}))));
  const std::string reply =
      client.EditConfig(AntiSpoofing("<interface><interface-name>big</interface-name><allowed-ip>" + Entries(1) +
                                     Entries(2) + Entries(3) + Entries(4) + "</allowed-ip></interface>"));
  EXPECT_EQ(Inside(reply),
            ErrorText{.message = "write configuration store: MDB_MAP_FULL: Environment mapsize limit reached"}.Xml());
  EXPECT_EQ(client.GetConfig(), Interfaces({"eth0"}));
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth1"}))));
}

/// The answer to a box of goods that the shop does not have.
const std::string kNoGoods =
    "<rpc-error><error-type>application</error-type><error-tag>data-missing</error-tag><error-severity>error"
    "</error-severity><error-app-tag>instance-required</error-app-tag><error-path "
    "xmlns:un=\"urn:ip-spoofing:test:unlike\">"
    "/un:shop/un:shelf[un:row='1'][un:side='left']/un:box[un:id='-5']/un:content</error-path><error-message "
    "xml:lang=\"en\">"
    "Invalid leafref value \"nut\" - no target instance \"/un:shop/un:goods/un:name\" with the same "
    "value.</error-message>"
    "</rpc-error>";

TEST(AnotherModel, IsServedAsWell) {
  CdbdProcess server{{"--models", CDBD_TEST_MODELS_DIR, "--model", "unlike"}};
  server.Start();
  NetconfClient client = server.Connect();
  const std::string shop = "<shop xmlns=\"urn:ip-spoofing:test:unlike\">";
  const std::string goods = "<goods><name>nut</name><code>1</code><price>1.5</price></goods>";
  const std::string shelf =
      "<shelf><row>1</row><side>left</side><box><id>-5</id><content>nut</content><lid/></box></shelf>";
  EXPECT_EQ(Inside(client.EditConfig(shop + shelf + "</shop>")), kNoGoods);
  EXPECT_EQ(client.GetConfig(), "");
  EXPECT_TRUE(IsOk(client.EditConfig(shop + shelf + goods + "</shop>")));
  EXPECT_EQ(client.GetConfig(), shop + goods + shelf + "</shop>");
  EXPECT_TRUE(IsOk(client.Rpc("<validate><source><running/></source></validate>")));
  EXPECT_EQ(Inside(client.Rpc("<validate><source><config>" + shop + shelf + "</shop></config></source></validate>")),
            kNoGoods);
  ErrorText unknown{.tag = "unknown-namespace"};
  unknown.message = "no data model has the namespace 'urn:ip-spoofing:anti-ip-spoofing'";
  unknown.info = "<bad-element>config</bad-element><bad-namespace>urn:ip-spoofing:anti-ip-spoofing</bad-namespace>";
  EXPECT_EQ(Inside(client.EditConfig("<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"/>")), unknown.Xml());
  EXPECT_EQ(server.Stop(), 0);
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), shop + goods + shelf + "</shop>");
}

}  // namespace
}  // namespace cdbd::test
