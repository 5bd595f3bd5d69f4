#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "frames/frame_builder.h"
#include "real_plane.h"

/// What an operator sees of the nft plane with the system's own nft.
namespace mgr::test {
namespace {

using frames::Ip;
using nlohmann::json;

class NftListing : public RealPlane {
 protected:
  /// One port of each allow-all mode, with and without monitor mode, and entries of both kinds.
  void SetUpPorts() {
    wire_.emplace("port0");
    Changes changes;
    PortId id = 0;
    for (const AllowAll mode : {AllowAll::kNone, AllowAll::kIpv4, AllowAll::kIpv6, AllowAll::kAll}) {
      for (const bool monitor : {false, true}) {
        PortConfig port = MakePort(++id, "port0", wire_->ifindex(), mode);
        port.monitor = monitor;
        changes.ports.push_back(port);
        changes.puts.push_back(MakeEntry(id, 0, Ip("10.0.0.1")));
        changes.puts.push_back(MakeEntry(id, 100, Ip("10.0.0.2"), {2, 0, 0, 0, 0, 0x0a}));
      }
    }
    ports_ = changes.ports.size();
    MustApply(changes);
  }

  std::optional<netns::Wire> wire_;
  size_t ports_ = 0;
};

TEST_P(NftListing, ListsTheRulesetAsText) {
  SetUpPorts();
  const netns::Ran ran = netns::Run("nft list ruleset");
  ASSERT_TRUE(ran.ok) << ran.output;
  for (size_t id = 1; id <= ports_; ++id)
    EXPECT_THAT(ran.output, testing::HasSubstr("chain port" + std::to_string(id) + " {"));
  EXPECT_THAT(ran.output, testing::HasSubstr("counter name \"port1.encapsulated\" drop"));
  EXPECT_THAT(ran.output, testing::HasSubstr("counter name \"port2.monitored.encapsulated\" accept"));
  EXPECT_THAT(ran.output, testing::HasSubstr("counter name \"port7.allow-all\" accept"));
}

TEST_P(NftListing, ListsTheRulesetAsJson) {
  SetUpPorts();
  const netns::Ran ran = netns::Run("nft -j list ruleset");
  ASSERT_TRUE(ran.ok) << ran.output;
  const json listed = json::parse(ran.output, nullptr, false);
  ASSERT_FALSE(listed.is_discarded()) << ran.output;
  std::map<std::string, size_t> rules;  // by chain
  for (const json& item : listed.at("nftables"))
    if (item.contains("rule")) ++rules[item["rule"].at("chain").get<std::string>()];
  EXPECT_EQ(rules["port7"], 1U) << "mode ALL is one rule";
  for (size_t id = 1; id <= 6; ++id) EXPECT_GT(rules["port" + std::to_string(id)], 10U);
}

INSTANTIATE_TEST_SUITE_P(Planes, NftListing, testing::ValuesIn(PlanesOf("nft")), NameOf);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(NftListing);

}  // namespace
}  // namespace mgr::test
