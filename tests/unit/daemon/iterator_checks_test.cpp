// What the iterators of the difference walks check before they look at a change.
#include <csignal>

#include "changes_fixture.h"

namespace ip_spoofing_app {
namespace {

struct IteratorCase {
  std::string name;  ///< of the function, as its messages give it
  cdb_iter_fn function;
  confd_iter_op op;  ///< one that it does not forward
};

const IteratorCase kIterators[] = {
    {"IpSpoofingIfacesDiffItDel", &ConfDAppMgr::IpSpoofingIfacesDiffItDel, MOP_CREATED},
    {"IpSpoofingIfacesDiffItCreate", &ConfDAppMgr::IpSpoofingIfacesDiffItCreate, MOP_DELETED},
    {"IpSpoofingAllowedIpIPv4DiffItDel", &ConfDAppMgr::IpSpoofingAllowedIpIPv4DiffItDel, MOP_CREATED},
    {"IpSpoofingAllowedIpIPv4DiffItCreate", &ConfDAppMgr::IpSpoofingAllowedIpIPv4DiffItCreate, MOP_DELETED},
};

class Iterator : public ChangesTest, public testing::WithParamInterface<IteratorCase> {};

TEST_P(Iterator, NullKeypathIsFatal) {
  ConfDAppMgr& confd = BuildSubscribed();
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        GetParam().function(nullptr, MOP_CREATED, nullptr, nullptr, &confd);
      },
      testing::ExitedWithCode(1),
      DiesWithExactly({"backtrace", "fault 1 " + GetParam().name + ": " + GetParam().name + " kp is null"}));
}

TEST_P(Iterator, NullStateIsFatal) {
  BuildSubscribed();
  fakes::Keypath keypath(Iface("eth3"));
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        GetParam().function(keypath.Get(), MOP_CREATED, nullptr, nullptr, nullptr);
      },
      testing::ExitedWithCode(1),
      DiesWithExactly({"backtrace", "fault 1 " + GetParam().name + ": " + GetParam().name + " pConfDAppMgr is null"}));
}

TEST_P(Iterator, KeypathIsCheckedBeforeTheState) {
  BuildSubscribed();
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        GetParam().function(nullptr, MOP_CREATED, nullptr, nullptr, nullptr);
      },
      testing::ExitedWithCode(1), testing::HasSubstr(" kp is null"));
}

TEST_P(Iterator, StateIsCheckedBeforeTheInterfaceKey) {
  BuildSubscribed();
  fakes::Keypath keypath(Iface("eth3"));
  CONFD_SET_INT32(&keypath.Get()->v[0][0], 3);
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        GetParam().function(keypath.Get(), MOP_CREATED, nullptr, nullptr, nullptr);
      },
      testing::ExitedWithCode(1), testing::HasSubstr(" pConfDAppMgr is null"));
}

TEST_P(Iterator, InterfaceKeyThatIsNoStringFailsAnAssertion) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::Keypath keypath(Iface("eth3"));
  CONFD_SET_INT32(&keypath.Get()->v[0][0], 3);
  EXPECT_EXIT(GetParam().function(keypath.Get(), GetParam().op, nullptr, nullptr, &confd),
              testing::KilledBySignal(SIGABRT), testing::HasSubstr("`(&kp->v[kp->len - 4][0])->type == C_BUF'"));
}

TEST_P(Iterator, KeypathAboveTheInterfaceFailsAnAssertion) {
  ConfDAppMgr& confd = BuildSubscribed();
  for (const char* path : {"/config/anti-ip-spoofing", "/config/anti-ip-spoofing/interface"}) {
    fakes::Keypath keypath{path};
    EXPECT_EXIT(GetParam().function(keypath.Get(), MOP_DELETED, nullptr, nullptr, &confd),
                testing::KilledBySignal(SIGABRT), testing::HasSubstr("ends above the interface entry"))
        << path;
  }
}

TEST_P(Iterator, OtherOperationIsLoggedAndTheWalkContinues) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::Keypath keypath(Iface("eth3"));
  EXPECT_EQ(GetParam().function(keypath.Get(), GetParam().op, nullptr, nullptr, &confd), ITER_CONTINUE);
  EXPECT_EQ(Taken(), Lines{Omitted(GetParam().name, 4, GetParam().op, "eth3")});
}

// The buffer's length is not looked at: the name ends at its NUL.
TEST_P(Iterator, NameEndsAtItsNul) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::Keypath keypath(Iface("eth3"));
  keypath.Get()->v[0][0].val.buf.size = 2;
  GetParam().function(keypath.Get(), GetParam().op, nullptr, nullptr, &confd);
  EXPECT_EQ(Taken(), Lines{Omitted(GetParam().name, 4, GetParam().op, "eth3")});
}

INSTANTIATE_TEST_SUITE_P(All, Iterator, testing::ValuesIn(kIterators), [](const auto& row) { return row.param.name; });

using Bodies = ChangesTest;

TEST_F(Bodies, InterfaceBodyChecksItsStateWithAColon) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::Keypath keypath(Iface("eth3"));
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        confd.IpSpoofingIfacesDiffIt(keypath.Get(), MOP_CREATED, nullptr, nullptr, nullptr);
      },
      testing::ExitedWithCode(1),
      DiesWithExactly({"backtrace", "fault 1 IpSpoofingIfacesDiffIt: IpSpoofingIfacesDiffIt: pConfDAppMgr is null"}));
}

TEST_F(Bodies, Ipv4BodyDoesNotCheckItsState) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::Keypath keypath(Iface("eth3") + "/allowed-ip");
  EXPECT_EQ(confd.IpSpoofingAllowedIpIPv4DiffIt(keypath.Get(), MOP_CREATED, nullptr, nullptr, nullptr), ITER_CONTINUE);
  EXPECT_EQ(Taken(), Lines{"log 10 IpSpoofingAllowedIpIPv4DiffIt: called kplen[5] op[1] iface: eth3"});
}

TEST_F(Bodies, InterfaceKeyIsCheckedThereToo) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::Keypath keypath(Iface("eth3"));
  CONFD_SET_INT32(&keypath.Get()->v[0][0], 3);
  EXPECT_EXIT(confd.IpSpoofingIfacesDiffIt(keypath.Get(), MOP_CREATED, nullptr, nullptr, &confd),
              testing::KilledBySignal(SIGABRT), testing::HasSubstr("`(&kp->v[kp->len - 4][0])->type == C_BUF'"));
  EXPECT_EXIT(confd.IpSpoofingAllowedIpIPv4DiffIt(keypath.Get(), MOP_CREATED, nullptr, nullptr, &confd),
              testing::KilledBySignal(SIGABRT), testing::HasSubstr("`(&kp->v[kp->len - 4][0])->type == C_BUF'"));
}

TEST_F(Bodies, AddressIsCheckedBeforeTheVlan) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::Keypath keypath(Ipv4("eth3", "10.0.0.1 100"));
  for (confd_value_t* key : {&keypath.Get()->v[0][0], &keypath.Get()->v[0][1]}) CONFD_SET_INT64(key, 3);
  EXPECT_EXIT(confd.IpSpoofingAllowedIpIPv4DiffIt(keypath.Get(), MOP_CREATED, nullptr, nullptr, &confd),
              testing::KilledBySignal(SIGABRT), testing::HasSubstr("`(&kp->v[kp->len - 7][0])->type == C_IPV4'"));
}

struct KeyCase {
  int key;
  std::string text;
};

class EntryKeys : public ChangesTest, public testing::WithParamInterface<KeyCase> {};

TEST_P(EntryKeys, OfAnotherTypeFailAnAssertion) {
  ConfDAppMgr& confd = BuildSubscribed();
  fakes::Keypath keypath(Ipv4("eth3", "10.0.0.1 100"));
  CONFD_SET_INT64(&keypath.Get()->v[0][GetParam().key], 3);
  EXPECT_EXIT(ConfDAppMgr::IpSpoofingAllowedIpIPv4DiffItCreate(keypath.Get(), MOP_CREATED, nullptr, nullptr, &confd),
              testing::KilledBySignal(SIGABRT), testing::HasSubstr("`" + GetParam().text + "'"));
}

INSTANTIATE_TEST_SUITE_P(All, EntryKeys,
                         testing::Values(KeyCase{0, "(&kp->v[kp->len - 7][0])->type == C_IPV4"},
                                         KeyCase{1, "(&kp->v[kp->len - 7][1])->type == C_INT32"}),
                         [](const auto& row) { return "Key" + std::to_string(row.param.key); });

}  // namespace
}  // namespace ip_spoofing_app
