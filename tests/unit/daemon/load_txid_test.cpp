// When a load has something to do: the transaction ids it compares and remembers.
#include <cstring>

#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

const std::string kDone = "log 11 LoadConfDCfg: All LoadConfDCfg executed successfully!";
const std::string kNew = "log 10 LoadConfDCfg: Received new configuration. Loading config...";

/// A database with nothing in it: a load that reads leaves one line more than one that is skipped.
const Lines kRead = {kNew, kDone};
const Lines kSkipped = {kDone};

cdb_txid Txid(uint32_t s1, uint32_t s2, uint32_t s3, const std::string& primary) {
  cdb_txid txid{};
  txid.s1 = s1;
  txid.s2 = s2;
  txid.s3 = s3;
  std::memcpy(txid.primary, primary.data(), std::min(primary.size(), sizeof txid.primary));
  return txid;
}

struct Step {
  cdb_txid txid;
  bool force;
  Lines trace;
  bool txid_call_fails = false;
};

struct TxidCase {
  std::string name;
  std::vector<Step> steps;
};

class LoadTxid : public DaemonTest, public testing::WithParamInterface<TxidCase> {};

TEST_P(LoadTxid, DecidesWhetherAnythingIsRead) {
  ConfDAppMgr& confd = Build({Kind::kLog});
  int number = 0;
  for (const Step& step : GetParam().steps) {
    fakes::TheCdb().txid = step.txid;
    fakes::TheScript() = {};
    if (step.txid_call_fails) fakes::TheScript().Return("cdb_get_txid", -1);
    EXPECT_EQ(confd.LoadConfDCfg(step.force), 0);
    EXPECT_EQ(Taken(), step.trace) << "load " << ++number;
  }
}

const cdb_txid kOne = Txid(1, 2, 3, "a");

INSTANTIATE_TEST_SUITE_P(
    All, LoadTxid,
    testing::Values(TxidCase{"SecondLoadOfTheSameIsSkipped", {{kOne, false, kRead}, {kOne, false, kSkipped}}},
                    TxidCase{"ForcedLoadOfTheSameReads",
                             {{kOne, false, kRead}, {kOne, true, kRead}, {kOne, false, kSkipped}}},
                    TxidCase{"ForcedLoadIsRemembered", {{kOne, true, kRead}, {kOne, false, kSkipped}}},
                    TxidCase{"AllZeroIsWhatItStartsWith",
                             {{Txid(0, 0, 0, ""), false, kSkipped}, {Txid(0, 0, 0, "a"), false, kRead}}},
                    TxidCase{"EveryWordAndTheNameCount",
                             {{kOne, false, kRead},
                              {Txid(9, 2, 3, "a"), false, kRead},
                              {Txid(9, 8, 3, "a"), false, kRead},
                              {Txid(9, 8, 7, "a"), false, kRead},
                              {Txid(9, 8, 7, "b"), false, kRead},
                              {Txid(9, 8, 7, "bb"), false, kRead},
                              {Txid(9, 8, 7, "bb"), false, kSkipped}}},
                    TxidCase{"WhatLiesBehindTheNamesEndDoesNotCount",
                             {{Txid(1, 1, 1, std::string("a\0x", 3)), false, kRead},
                              {Txid(1, 1, 1, std::string("a\0y", 3)), false, kSkipped}}},
                    TxidCase{"FailedCallCountsAsAllZero",
                             {{kOne, false, kSkipped, true},
                              {kOne, false, kRead},
                              {kOne, false, kRead, true},
                              {kOne, false, kSkipped, true},
                              {kOne, false, kRead}}},
                    TxidCase{"NameOf255CharactersIsKeptWhole",
                             {{Txid(1, 1, 1, std::string(255, 'p')), false, kRead},
                              {Txid(1, 1, 1, std::string(255, 'p')), false, kSkipped}}},
                    // 256 characters have no end; 255 are kept, so such a name is new every time.
                    TxidCase{"NameWithoutAnEndIsCutTo255",
                             {{Txid(1, 1, 1, std::string(256, 'p')), false, kRead},
                              {Txid(1, 1, 1, std::string(256, 'p')), false, kRead},
                              {Txid(1, 1, 1, std::string(255, 'p')), false, kSkipped}}}),
    [](const auto& row) { return row.param.name; });

using LoadTwice = DaemonTest;

TEST_F(LoadTwice, ReconnectionSendsNothingAndAForcedLoadSendsAll) {
  ConfDAppMgr& confd = Build({Kind::kRequest});
  fakes::TheCdb().Put(CDB_RUNNING, Ipv4("eth1", "10.0.0.1 1"));
  const Lines all = {"SendIpSpoofing eth1 true", "SendAddEntry eth1 10.0.0.1 vlan 1 mac 00:00:00:00:00:00"};
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_EQ(Taken(), all);
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_EQ(Taken(), Lines{});
  EXPECT_EQ(confd.LoadConfDCfg(true), 0);
  EXPECT_EQ(Taken(), all);
}

// A load that failed has taken the id all the same.
TEST_F(LoadTwice, FailedLoadIsNotRepeatedUnlessForced) {
  ConfDAppMgr& confd = Build({Kind::kRequest});
  fakes::TheCdb().Put(CDB_RUNNING, Iface("eth1"));
  fakes::TheScript().ReturnNth("cdb_set_namespace", 1, -1);
  EXPECT_EQ(confd.LoadConfDCfg(false), -1);
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_EQ(Taken(), Lines{});
  EXPECT_EQ(confd.LoadConfDCfg(true), 0);
  EXPECT_EQ(Taken(), Lines{"SendIpSpoofing eth1 true"});
}

}  // namespace
}  // namespace ip_spoofing_app
