// The manager's callbacks: the resend on its connection, and the way of its list to the status provider.
#include "app/mgr_callbacks.h"

#include <new>
#include <stdexcept>

#include "app/application.h"
#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

using StatusList = std::list<AllowedIpStatusEntry>;

/// The process's one application, brought back to the state of one that never met ConfD.
class MgrCallbacks : public DaemonTest {
 protected:
  MgrCallbacks() : confd_{*Application::Instance()->ConfdManager()} {
    confd_.AppDisconnect();
    confd_.SetEntryList({});
    fakes::ResetAll();
    fakes::TheProvider().daemon.d_opaque = &confd_;
    fakes::TheTrace().Record({Kind::kRequest, Kind::kLog, Kind::kFault, Kind::kReply});
    fakes::TheZlog().detail_enabled = false;
  }

  int GetNext(int thandle, long next) {
    return ConfDAppMgr::handle_get_next_allowed_ip(fakes::TheProvider().Transaction(thandle), nullptr, next);
  }
  void GetObject(int thandle, int64_t position) {
    fakes::Keypath key = fakes::Keypath::StatusRow(position);
    ConfDAppMgr::handle_get_obj_allowed_ip(fakes::TheProvider().Transaction(thandle), key.Get());
  }

  ConfDAppMgr& confd_;
  IpSpoofingMgrClientCbItf callbacks_;
};

const std::string kLoaded = "log 11 LoadConfDCfg: All LoadConfDCfg executed successfully!";

TEST_F(MgrCallbacks, ManagerBeforeConfdSendsNothing) {
  fakes::TheCdb().Put(CDB_RUNNING, Iface("eth1"));
  callbacks_.OnMgrConnected();
  EXPECT_EQ(Taken(), Lines{});
}

TEST_F(MgrCallbacks, EveryConnectionSendsTheWholeConfigurationAnew) {
  fakes::TheWrapper().SetInitialized(&confd_, true);
  fakes::TheCdb().Put(CDB_RUNNING, Ipv4("eth1", "10.0.0.1 100"));
  fakes::TheCdb().Put(CDB_RUNNING, Iface("eth1") + "/allowed-ip/all");
  const Lines all = {"SendIpSpoofing eth1 true", "SendAddEntry eth1 10.0.0.1 vlan 100 mac 00:00:00:00:00:00",
                     "log 11 LoadConfdIpSpoofAllowedIpAll: sending allowedAll[ALL] for[eth1]",
                     "SendAllowedIpAll eth1 3", kLoaded};
  callbacks_.OnMgrConnected();
  EXPECT_EQ(Taken(), all);
  callbacks_.OnMgrConnected();
  EXPECT_EQ(Taken(), all);
}

TEST_F(MgrCallbacks, FailedLoadOnConnectionGoesOn) {
  fakes::TheWrapper().SetInitialized(&confd_, true);
  fakes::TheScript().Return("session running", -1);
  callbacks_.OnMgrConnected();
  EXPECT_EQ(Taken(), Lines{"log 12 LoadConfDCfg: Could not start CDB session."});
}

AllowedIpStatusEntry Row(uint16_t vlan) {
  AllowedIpStatusEntry row{};
  row.limid = fakes::TheLimid().Id("eth1");
  row.vlan = vlan;
  row.address[0] = 10;
  return row;
}

TEST_F(MgrCallbacks, EmptyListEndsTheDeferredTraversal) {
  fakes::TheWrapper().SetInitialized(&confd_, true);
  EXPECT_EQ(GetNext(7, -1), CONFD_DELAYED_RESPONSE);
  callbacks_.OnAllowedIpList({});
  EXPECT_EQ(Taken(), (Lines{"RequestAllowedIpList", "reply 7 end"}));
}

TEST_F(MgrCallbacks, ListAnswersTheDeferredTraversal) {
  fakes::TheWrapper().SetInitialized(&confd_, true);
  EXPECT_EQ(GetNext(7, -1), CONFD_DELAYED_RESPONSE);
  callbacks_.OnAllowedIpList({Row(2), Row(1)});
  EXPECT_EQ(Taken(), (Lines{"RequestAllowedIpList", "reply 7 key int64:0 next 1"}));
}

TEST_F(MgrCallbacks, ListWithoutConfdIsDroppedAndTheOldRowsStay) {
  fakes::TheWrapper().SetInitialized(&confd_, true);
  callbacks_.OnAllowedIpList({Row(3)});
  fakes::TheWrapper().SetInitialized(&confd_, false);
  EXPECT_EQ(GetNext(7, -1), CONFD_DELAYED_RESPONSE);
  callbacks_.OnAllowedIpList({Row(1), Row(2)});
  EXPECT_EQ(GetNext(8, -1), CONFD_OK);  // the request is still out
  GetObject(8, 0);
  EXPECT_EQ(Taken(), (Lines{"RequestAllowedIpList", "reply 8 end",
                            "reply 8 row 1c4b7396=enum:0 4b843099=ipv4:10.0.0.0 0442b85d=uint32:3 3363fe59=enum:0 "
                            "0d34ee32=str:eth1 74470328=enum:1"}));
}

// Rows that compare equal show in which order they were taken.
TEST_F(MgrCallbacks, RowsAreTakenInTheOrderOfTheList) {
  fakes::TheWrapper().SetInitialized(&confd_, true);
  AllowedIpStatusEntry first = Row(1);
  first.mac[0] = 1;
  AllowedIpStatusEntry second = Row(1);
  second.mac[0] = 2;
  const auto served = [this] {
    for (const int64_t position : {0, 1}) GetObject(7, position);
    return Taken();
  };
  confd_.SetEntryList({first, second});
  const Lines wanted = served();
  confd_.SetEntryList({second, first});
  ASSERT_NE(served(), wanted);
  callbacks_.OnAllowedIpList({first, second});
  EXPECT_EQ(served(), wanted);
}

struct CopyCase {
  std::string name;
  AllowedIpStatusEntry row;
  std::string reply;  ///< behind "reply 7 row "
};

class MgrCallbacksCopy : public MgrCallbacks, public testing::WithParamInterface<CopyCase> {};

AllowedIpStatusEntry FullRow(uint32_t type, uint32_t family) {
  AllowedIpStatusEntry row;
  memset(&row, 0xee, sizeof row);
  row.type = type;
  row.all_vlan = 11;
  row.flag = 1;
  row.family = family;
  for (size_t i = 0; i < sizeof row.address; ++i) row.address[i] = static_cast<uint8_t>(0x20 + i);
  row.vlan = 22;
  for (size_t i = 0; i < sizeof row.mac; ++i) row.mac[i] = static_cast<uint8_t>(i + 1);
  row.limid = limid_t{{0, 1}};
  row.state = 1;
  return row;
}

TEST_P(MgrCallbacksCopy, ReachesTheStatusList) {
  fakes::TheWrapper().SetInitialized(&confd_, true);
  fakes::TheLimid().SetNumber("eth1", 1);
  callbacks_.OnAllowedIpList({GetParam().row});
  GetObject(7, 0);
  EXPECT_EQ(Taken(), Lines{"reply 7 row " + GetParam().reply});
}

INSTANTIATE_TEST_SUITE_P(
    All, MgrCallbacksCopy,
    testing::Values(
        CopyCase{"Ipv4", FullRow(0, 0),
                 "1c4b7396=binary:01:02:03:04:05:06 4b843099=ipv4:32.33.34.35 0442b85d=uint32:22 3363fe59=enum:1 "
                 "0d34ee32=str:eth1 74470328=enum:0"},
        CopyCase{"Ipv6", FullRow(0, 1),
                 "1c4b7396=binary:01:02:03:04:05:06 4b843099=ipv6:2021:2223:2425:2627:2829:2a2b:2c2d:2e2f "
                 "0442b85d=uint32:22 3363fe59=enum:1 0d34ee32=str:eth1 74470328=enum:0"},
        CopyCase{"AllowAll", FullRow(3, 0),
                 "1c4b7396=binary:01:02:03:04:05:06 4b843099=enum:0 0442b85d=uint32:11 3363fe59=enum:1 "
                 "0d34ee32=str:eth1 74470328=enum:0"}),
    [](const auto& row) { return row.param.name; });

/// A list whose node count lies, as a broken client's might: the size is the third word of the object.
void SetSize(StatusList* list, size_t size) {
  static_assert(sizeof(StatusList) == 3 * sizeof(size_t));
  memcpy(reinterpret_cast<char*>(list) + 2 * sizeof(size_t), &size, sizeof size);
}

TEST_F(MgrCallbacks, ListBeyondEveryVectorThrowsAndChangesNothing) {
  fakes::TheWrapper().SetInitialized(&confd_, true);
  callbacks_.OnAllowedIpList({Row(3)});
  EXPECT_EQ(GetNext(7, -1), CONFD_DELAYED_RESPONSE);
  StatusList list = {Row(1)};
  SetSize(&list, std::vector<AllowedIpStatusEntry>().max_size() + 1);
  try {
    callbacks_.OnAllowedIpList(list);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(), "vector::reserve");
  }
  SetSize(&list, 1);
  EXPECT_EQ(GetNext(8, -1), CONFD_OK);
  GetObject(8, 0);
  EXPECT_EQ(Taken(), (Lines{"RequestAllowedIpList", "reply 8 end",
                            "reply 8 row 1c4b7396=enum:0 4b843099=ipv4:10.0.0.0 0442b85d=uint32:3 3363fe59=enum:0 "
                            "0d34ee32=str:eth1 74470328=enum:1"}));
}

}  // namespace
}  // namespace ip_spoofing_app
