// Operational data of a provider, read over NETCONF: what is shown of it.
#include "provider_fixture.h"

namespace cdbd::test {
namespace {

using testing::HasSubstr;

TEST_F(OneProvider, EveryKindOfValueIsWrittenInTheModelsWords) {
  PendingGet get{server, kFilter};
  Values v6 = Row("eth1", 1);
  v6[1] = Bytes(kAddress, ValueType::kIpv6, std::string{32, 1, 13, -72} + std::string(11, '\0') + '\1');
  Values all = Row("eth2", 1);
  all[1] = Enum(kAddress, 0);
  all[2] = Enum(kVlan, 0);
  all[3] = Enum(kState, 0);
  all[5] = Enum(kFiltering, 0);
  Values ipv4_all = all;
  ipv4_all[1] = Enum(kAddress, 1);
  Values ipv6_all = all;
  ipv6_all[1] = Enum(kAddress, 2);
  Values with_mac = Row("eth3", -1);
  with_mac[0] = Bytes(kMac, ValueType::kBinary, std::string{0, 17, 34, -86, -69, -1});
  Values without_address = Row("", 1);
  without_address.erase(without_address.begin() + 1);
  provider.Serve({v6, all, ipv4_all, ipv6_all, with_mac, without_address});
  const auto row = [](int position, const std::string& leaves) {
    return "<allowed-ip><position>" + std::to_string(position) + "</position>" + leaves + "</allowed-ip>";
  };
  const auto mode = [](const std::string& address) {
    return "<mac>any</mac><address>" + address +
           "</address><vlan>none</vlan><state>not-in-force</state><interface>eth2</interface><filtering>off</"
           "filtering>";
  };
  EXPECT_EQ(get.Reply(),
            kOpen +
                row(0,
                    "<mac>any</mac><address>2001:db8::1</address><vlan>7</vlan><state>in-force</state><interface>eth1"
                    "</interface><filtering>on</filtering>") +
                row(1, mode("all")) + row(2, mode("ipv4-all")) + row(3, mode("ipv6-all")) +
                row(4,
                    "<mac>00:11:22:aa:bb:ff</mac><address>10.0.0.255</address><vlan>7</vlan><state>in-force</state>"
                    "<interface>eth3</interface><filtering>on</filtering>") +
                row(5, "<mac>any</mac><vlan>7</vlan><state>in-force</state><interface/><filtering>on</filtering>") +
                kClose);
}

TEST_F(OneProvider, AnEmptyListIsNoError) {
  PendingGet get{server, kFilter};
  provider.Serve({});
  EXPECT_EQ(get.Reply(), "");
}

TEST_F(OneProvider, IsFilteredByContent) {
  const auto ask = [&](const std::string& filter) {
    PendingGet get{server, kOpen + "<allowed-ip>" + filter + "</allowed-ip>" + kClose};
    provider.Serve({Row("eth0", 1), Row("eth1", 2), Row("eth0", 3)});
    return get.Reply();
  };
  EXPECT_EQ(ask("<interface>eth0</interface>"), kOpen + RowText(0, "eth0", 1) + RowText(2, "eth0", 3) + kClose);
  EXPECT_EQ(ask("<position>1</position>"), kOpen + RowText(1, "eth1", 2) + kClose);
  EXPECT_EQ(ask("<interface>eth1</interface><address/>"),
            kOpen +
                "<allowed-ip><position>1</position><address>10.0.0.2</address><interface>eth1</interface>"
                "</allowed-ip>" +
                kClose);
  EXPECT_EQ(ask("<interface>eth9</interface>"), "");
}

TEST_F(OneProvider, IsNotAskedForWhatIsNotSelected) {
  EXPECT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth0"}))));
  EXPECT_EQ(server.Connect().Get("<config xmlns=\"\"/>"), Interfaces({"eth0"}));
  EXPECT_EQ(server.Connect().GetConfig(), Interfaces({"eth0"}));
  EXPECT_TRUE(provider.control.Quiet());
}

TEST_F(ProviderData, WithoutAProviderWhoAsksForItIsToldAndWhoAsksForAllGetsTheRest) {
  NetconfClient client = server.Connect();
  EXPECT_THAT(client.Rpc("<get><filter>" + std::string{kFilter} + "</filter></get>"),
              HasSubstr("callpoint 'show-allowed-ip': no data provider is connected"));
  EXPECT_TRUE(IsOk(client.EditConfig(Interfaces({"eth0"}))));
  const std::string all = client.Get();
  EXPECT_THAT(all, HasSubstr(Interfaces({"eth0"})));
  EXPECT_THAT(all, HasSubstr("<netconf-state "));
  EXPECT_THAT(all, HasSubstr("<database "));
}

TEST_F(ProviderData, TheLatestOfTwoProvidersServes) {
  Provider old{server, "old"};
  ASSERT_EQ(old.Register(), "");
  Provider latest{server, "latest"};
  ASSERT_EQ(latest.Register(), "");
  PendingGet get{server, kFilter};
  latest.Serve({Row("eth0", 1)});
  EXPECT_EQ(get.Reply(), kOpen + RowText(0, "eth0", 1) + kClose);
  EXPECT_TRUE(old.control.Quiet());
  EXPECT_THAT(server.Connect().Get("<database xmlns=\"\"><provider/></database>"),
              HasSubstr("<name>latest</name><process>" + std::to_string(::getpid()) +
                        "</process><callpoint>show-allowed-ip</callpoint>"));
}

TEST_F(ProviderData, RegistrationsAreChecked) {
  Provider provider{server};
  EXPECT_EQ(provider.Register("nonsense"), "the data model has no callpoint 'nonsense'");
  EXPECT_EQ(provider.Register(kCallpoint, false), "callpoint 'show-allowed-ip' needs get_next and get_object");
  EXPECT_EQ(provider.Register(), "");
  Program orphan{server.CdbSocket(), ClientKind::kWorker, "orphan", 4711};
  EXPECT_EQ(orphan.hello.error, "there is no such control connection");
  EXPECT_TRUE(orphan.Closed());
}

TEST_F(OneProvider, ManyRowsComeWhole) {
  constexpr int kRows = 24576;
  PendingGet get{server, kFilter};
  std::vector<Values> rows;
  std::string expected;
  for (int i = 0; i < kRows; ++i) {
    rows.push_back(Row("eth" + std::to_string(i % 64), static_cast<char>(i % 100)));
    expected += RowText(i, "eth" + std::to_string(i % 64), i % 100);
  }
  EXPECT_GE(provider.Serve(rows), 2U);
  EXPECT_EQ(get.Reply(), kOpen + expected + kClose);
}

}  // namespace
}  // namespace cdbd::test
