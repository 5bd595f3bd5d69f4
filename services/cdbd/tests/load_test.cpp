// Large configurations, and another data model, on a real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "cdbd_process.h"

namespace cdbd::test {
namespace {

using testing::HasSubstr;

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
  EXPECT_THAT(reply, HasSubstr("<error-severity>error</error-severity>"));
  EXPECT_EQ(client.GetConfig(), Interfaces({"eth0"}));
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth1"}))));
}

TEST(AnotherModel, IsServedAsWell) {
  CdbdProcess server{{"--models", CDBD_TEST_MODELS_DIR, "--model", "unlike"}};
  server.Start();
  NetconfClient client = server.Connect();
  const std::string shop = "<shop xmlns=\"urn:ip-spoofing:test:unlike\">";
  const std::string goods = "<goods><name>nut</name><code>1</code><price>1.5</price></goods>";
  const std::string shelf =
      "<shelf><row>1</row><side>left</side><box><id>-5</id><content>nut</content><lid/></box></shelf>";
  EXPECT_THAT(client.EditConfig(shop + shelf + "</shop>"), HasSubstr("instance-required"));
  EXPECT_EQ(client.GetConfig(), "");
  EXPECT_TRUE(IsOk(client.EditConfig(shop + shelf + goods + "</shop>")));
  EXPECT_EQ(client.GetConfig(), shop + goods + shelf + "</shop>");
  EXPECT_TRUE(IsOk(client.Rpc("<validate><source><running/></source></validate>")));
  EXPECT_THAT(client.Rpc("<validate><source><config>" + shop + shelf + "</shop></config></source></validate>"),
              HasSubstr("instance-required"));
  EXPECT_THAT(client.EditConfig("<config xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"/>"),
              HasSubstr("unknown-namespace"));
  EXPECT_EQ(server.Stop(), 0);
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), shop + goods + shelf + "</shop>");
}

}  // namespace
}  // namespace cdbd::test
