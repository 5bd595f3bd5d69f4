// The allow-all mode of an interface before and after a commit: every pair of switch settings and every operation.
#include "changes_fixture.h"

namespace ip_spoofing_app {
namespace {

// Switches by bit: all, ipv6-all, ipv4-all.
constexpr int kAll = 4;
constexpr int kIpv6 = 2;
constexpr int kIpv4 = 1;
constexpr int kSettings = 8;

// What each setting means, written out.
constexpr int kModes[kSettings] = {0, 1, 2, 3, 3, 3, 3, 3};
const std::string kNames[kSettings] = {"NONE", "IPV4_ALL", "IPV6_ALL", "ALL", "ALL", "ALL", "ALL", "ALL"};

void PutSwitches(cdb_db_type db, int setting) {
  fakes::TheCdb().Put(db, Iface("eth3"));
  if (setting & kAll) fakes::TheCdb().Put(db, Iface("eth3") + "/allowed-ip/all");
  if (setting & kIpv6) fakes::TheCdb().Put(db, Iface("eth3") + "/allowed-ip/ipv6-all");
  if (setting & kIpv4) fakes::TheCdb().Put(db, Iface("eth3") + "/allowed-ip/ipv4-all");
}

class AllowedAllUpdate : public ChangesTest, public testing::WithParamInterface<int> {
 protected:
  AllowedAllUpdate() { fakes::TheLimid().SetType("eth3", limid_type_loopback); }

  /// Requests and lines of the update alone, of one commit with this operation on the interface's entry.
  Lines Commit(int op) {
    fakes::TheCdb().changes[kIfacePoint] = {{static_cast<confd_iter_op>(op), Iface("eth3")}};
    Lines kept;
    for (const std::string& line : Deliver({kIfacePoint})) {
      if (line.starts_with("Send") || line.find("UpdateAllowedIpAllConfig") != std::string::npos) kept.push_back(line);
    }
    return kept;
  }

  static std::string Line(int op, const std::string& mode, int old_mode) {
    return "log 10 UpdateAllowedIpAllConfig: op[" + std::to_string(op) + "] sending allowed-ip[" + mode + "] old[" +
           std::to_string(old_mode) + "] for[eth3]";
  }
};

TEST_P(AllowedAllUpdate, SendsTheNewModeOfEveryChangeAndNothingElse) {
  const int op = GetParam();
  for (int before = 0; before < kSettings; ++before) {
    for (int after = 0; after < kSettings; ++after) {
      fakes::ResetAll();
      fakes::TheLimid().SetType("eth3", limid_type_loopback);
      BuildSubscribed();
      PutSwitches(CDB_PRE_COMMIT_RUNNING, before);
      PutSwitches(CDB_RUNNING, after);
      Lines wanted;
      if (kModes[before] != kModes[after]) {
        wanted = {Line(op, kNames[after], kModes[before]), "SendAllowedIpAll eth3 " + std::to_string(kModes[after])};
      }
      EXPECT_EQ(Commit(op), wanted) << before << " to " << after;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Operation, AllowedAllUpdate,
                         testing::Values(MOP_CREATED, MOP_MODIFIED, MOP_VALUE_SET, MOP_ATTR_SET),
                         testing::PrintToStringParamName());

using AllowedAllDelete = AllowedAllUpdate;

TEST_P(AllowedAllDelete, WithdrawsTheOldModeBeforeItsLine) {
  const int before = GetParam();
  BuildSubscribed();
  PutSwitches(CDB_PRE_COMMIT_RUNNING, before);
  PutSwitches(CDB_RUNNING, kAll);  // not looked at
  Lines wanted;
  if (before != 0) wanted = {"SendAllowedIpAll eth3 0", Line(2, "NONE", kModes[before])};
  EXPECT_EQ(Commit(MOP_DELETED), wanted);
}

INSTANTIATE_TEST_SUITE_P(Setting, AllowedAllDelete, testing::Range(0, kSettings), testing::PrintToStringParamName());

using AllowedAllReads = AllowedAllUpdate;

TEST_F(AllowedAllReads, OldValuesFirstThenNewInAFixedOrder) {
  BuildSubscribed();
  fakes::TheTrace().Record({Kind::kRead, Kind::kSession});
  PutSwitches(CDB_PRE_COMMIT_RUNNING, kIpv6);
  PutSwitches(CDB_RUNNING, kAll | kIpv4);
  fakes::TheCdb().changes[kIfacePoint] = {{MOP_MODIFIED, Iface("eth3")}};
  const std::string all = Iface("eth3") + "/allowed-ip/";
  EXPECT_EQ(Deliver({kIfacePoint}),
            (Lines{"open running", "cdb_set_namespace running 0x41fef11b", "iter " + Iface("eth3") + " op 3 = 3",
                   "open pre-commit", "cdb_exists pre-commit " + all + "all = 0",
                   "cdb_exists pre-commit " + all + "ipv6-all = 1", "cdb_exists pre-commit " + all + "ipv4-all = 0",
                   "cdb_exists running " + all + "all = 1", "close pre-commit", "iter " + Iface("eth3") + " op 3 = 3",
                   "cdb_get_txid running", "close running"}));
}

TEST_F(AllowedAllReads, NewValuesAreNotReadOnDeletion) {
  BuildSubscribed();
  fakes::TheTrace().Record({Kind::kRead});
  PutSwitches(CDB_PRE_COMMIT_RUNNING, kAll);
  fakes::TheCdb().changes[kIfacePoint] = {{MOP_DELETED, Iface("eth3")}};
  EXPECT_EQ(
      Deliver({kIfacePoint}),
      (Lines{"cdb_set_namespace running 0x41fef11b", "cdb_exists pre-commit " + Iface("eth3") + "/allowed-ip/all = 1",
             "iter " + Iface("eth3") + " op 2 = 3", "iter " + Iface("eth3") + " op 2 = 3", "cdb_get_txid running"}));
}

TEST_F(AllowedAllReads, FailedTestOnTheRunningConfigurationCountsAsAbsent) {
  BuildSubscribed();
  PutSwitches(CDB_PRE_COMMIT_RUNNING, kIpv4);
  PutSwitches(CDB_RUNNING, kIpv4);
  fakes::TheScript().Return("cdb_exists running " + Iface("eth3") + "/allowed-ip/ipv4-all", -1);
  EXPECT_EQ(Commit(MOP_MODIFIED), (Lines{Line(3, "NONE", 1), "SendAllowedIpAll eth3 0"}));
}

TEST_F(AllowedAllReads, NoSessionOnTheOldConfigurationMeansNoMode) {
  BuildSubscribed();
  PutSwitches(CDB_PRE_COMMIT_RUNNING, kIpv4);
  PutSwitches(CDB_RUNNING, kIpv4);
  fakes::TheScript().Return("session pre-commit", -1);
  EXPECT_EQ(Commit(MOP_MODIFIED), (Lines{Line(3, "IPV4_ALL", 0), "SendAllowedIpAll eth3 1"}));
  EXPECT_EQ(Commit(MOP_DELETED), Lines{});
}

TEST_F(AllowedAllReads, AskTheOldSessionForItsSocketEachTime) {
  BuildSubscribed();
  PutSwitches(CDB_PRE_COMMIT_RUNNING, kIpv6 | kIpv4);
  PutSwitches(CDB_RUNNING, 0);
  fakes::TheScript().ReturnNth("Socket pre-commit", 2, -1);
  EXPECT_EQ(Commit(MOP_MODIFIED), (Lines{Line(3, "NONE", 1), "SendAllowedIpAll eth3 0"}));
}

TEST_F(AllowedAllReads, OnlyOneMeansPresent) {
  BuildSubscribed();
  PutSwitches(CDB_RUNNING, 0);
  fakes::TheScript().Return("cdb_exists running " + Iface("eth3") + "/allowed-ip/all", 2);
  EXPECT_EQ(Commit(MOP_MODIFIED), Lines{});
}

// A name that needs quotes in a path has them: the path text is the one that the keypath prints.
TEST_F(AllowedAllReads, UseThePathThatTheKeypathPrints) {
  BuildSubscribed();
  const std::string path = "/config/anti-ip-spoofing/interface{\"eth 3\"}";
  Put(path + "/allowed-ip/all");
  fakes::TheCdb().changes[kIfacePoint] = {{MOP_CREATED, path}};
  EXPECT_THAT(Deliver({kIfacePoint}), testing::Contains("SendAllowedIpAll eth 3 3"));
}

}  // namespace
}  // namespace ip_spoofing_app
