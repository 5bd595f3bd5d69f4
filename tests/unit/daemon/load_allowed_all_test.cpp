// The allow-all switches of an interface at load: which leaves are tested and what is sent.
#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

const std::string kPath = "/config/anti-ip-spoofing/interface{\"eth1\"}/allowed-ip/";

struct AllCase {
  std::string name;
  int all, ipv6, ipv4;  ///< what cdb_exists answers for each leaf
  std::string log;
  Lines request;
};

class LoadAllowedAll : public DaemonTest, public testing::WithParamInterface<AllCase> {};

TEST_P(LoadAllowedAll, TestsTheLeavesInOrderAndSendsTheMode) {
  const AllCase& row = GetParam();
  ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kLog, Kind::kRead, Kind::kFault});
  fakes::TheZlog().detail_enabled = false;
  fakes::TheLimid().SetType("eth1", limid_type_loopback);
  fakes::TheCdb().Put(CDB_RUNNING, Iface("eth1"));
  fakes::TheScript().Return("cdb_exists " + kPath + "all", row.all);
  fakes::TheScript().Return("cdb_exists " + kPath + "ipv6-all", row.ipv6);
  fakes::TheScript().Return("cdb_exists " + kPath + "ipv4-all", row.ipv4);
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);

  Lines wanted = {"cdb_set_timeout running 5", "cdb_exists running " + kPath + "all = " + std::to_string(row.all)};
  if (row.all != 1) {
    wanted.push_back("cdb_exists running " + kPath + "ipv6-all = " + std::to_string(row.ipv6));
    wanted.push_back("cdb_exists running " + kPath + "ipv4-all = " + std::to_string(row.ipv4));
  }
  wanted.push_back("log 11 LoadConfdIpSpoofAllowedIpAll: " + row.log + " for[eth1]");
  wanted.insert(wanted.end(), row.request.begin(), row.request.end());
  wanted.emplace_back("log 11 LoadConfDCfg: All LoadConfDCfg executed successfully!");
  Lines trace = Taken();
  trace.erase(trace.begin(), trace.end() - static_cast<long>(std::min(wanted.size(), trace.size())));
  EXPECT_EQ(trace, wanted);
}

const Lines kAll = {"SendAllowedIpAll eth1 3"};
const Lines kIpv6 = {"SendAllowedIpAll eth1 2"};
const Lines kIpv4 = {"SendAllowedIpAll eth1 1"};

INSTANTIATE_TEST_SUITE_P(All, LoadAllowedAll,
                         testing::Values(AllCase{"None", 0, 0, 0, "omitting allowedAll[NONE]", {}},
                                         AllCase{"Ipv4", 0, 0, 1, "sending allowedAll[IPV4_ALL]", kIpv4},
                                         AllCase{"Ipv6", 0, 1, 0, "sending allowedAll[IPV6_ALL]", kIpv6},
                                         AllCase{"Ipv4AndIpv6", 0, 1, 1, "sending allowedAll[ALL]", kAll},
                                         AllCase{"All", 1, 0, 0, "sending allowedAll[ALL]", kAll},
                                         AllCase{"AllAndIpv4", 1, 0, 1, "sending allowedAll[ALL]", kAll},
                                         AllCase{"AllAndIpv6", 1, 1, 0, "sending allowedAll[ALL]", kAll},
                                         AllCase{"AllThree", 1, 1, 1, "sending allowedAll[ALL]", kAll},
                                         AllCase{"EveryTestFails", -1, -1, -2, "omitting allowedAll[NONE]", {}},
                                         AllCase{"TestOfAllFails", -1, 1, 1, "sending allowedAll[ALL]", kAll},
                                         AllCase{"TestOfIpv6Fails", 0, -1, 1, "sending allowedAll[IPV4_ALL]", kIpv4},
                                         AllCase{"TestOfIpv4Fails", 0, 1, -2, "sending allowedAll[IPV6_ALL]", kIpv6},
                                         AllCase{"OnlyOneMeansPresent", 2, 2, 2, "omitting allowedAll[NONE]", {}}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace ip_spoofing_app
