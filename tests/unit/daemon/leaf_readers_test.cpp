// Reads of single leaves: values, results, faults.
#include <algorithm>
#include <array>

#include "daemon_fixture.h"
#include "qm_confd_cdb_session.h"

namespace ip_spoofing_app {
namespace {

const std::string kIface = "/config/anti-ip-spoofing/interface[0]";
const std::string kEntry = kIface + "/allowed-ip/ipv4[0]";

class LeafReaders : public DaemonTest {
 protected:
  LeafReaders() {
    Build({Kind::kRequest, Kind::kLog, Kind::kFault});
    fakes::TheCdb().Put(CDB_RUNNING, Ipv4("eth3", "10.0.0.1 100") + "/mac", "02:00:00:00:00:01");
    session_ = std::make_unique<QmConfdCdbSession>(confd_.get(), CDB_RUNNING, true);
  }

  int Get(const std::string& prefix, const std::string& suffix, void* destination, ConfdLeafType kind, bool optional) {
    return confd_->GetFromConfd(session_->Socket(), prefix, suffix, destination, kind, optional);
  }

  std::unique_ptr<QmConfdCdbSession> session_;
};

TEST_F(LeafReaders, ReadEveryKind) {
  int32_t vlan = 0;
  std::string name;
  std::array<uint8_t, 6> mac{};
  struct in_addr address {};
  EXPECT_EQ(Get(kEntry, "/vlan", &vlan, LEAF_INT32, false), 0);
  EXPECT_EQ(Get(kIface, "/interface-name", &name, LEAF_STRING, false), 0);
  EXPECT_EQ(Get(kEntry, "/mac", mac.data(), LEAF_MAC, false), 0);
  EXPECT_EQ(Get(kEntry, "/address", &address, LEAF_IPV4, false), 0);
  EXPECT_EQ(vlan, 100);
  EXPECT_EQ(name, "eth3");
  EXPECT_EQ(mac, (std::array<uint8_t, 6>{2, 0, 0, 0, 0, 1}));
  EXPECT_EQ(ntohl(address.s_addr), 0x0a000001U);
  EXPECT_EQ(Taken(), Lines{});
}

TEST_F(LeafReaders, TheNumbersOfTheKinds) {
  EXPECT_EQ(LEAF_INT32, 0);
  EXPECT_EQ(LEAF_STRING, 1);
  EXPECT_EQ(LEAF_MAC, 2);
  EXPECT_EQ(LEAF_IPV4, 3);
}

TEST_F(LeafReaders, UncheckedReadersGiveTheReadsResult) {
  int32_t vlan = 0;
  struct in_addr address {};
  EXPECT_EQ(confd_->GetInt32FromConfd(session_->Socket(), kEntry + "/vlan", &vlan), 0);
  EXPECT_EQ(confd_->GetIpv4FromConfd(session_->Socket(), kEntry + "/address", &address), 0);
  EXPECT_EQ(vlan, 100);
  EXPECT_EQ(ntohl(address.s_addr), 0x0a000001U);
  EXPECT_EQ(confd_->GetInt32FromConfd(session_->Socket(), kEntry + "/nothing", &vlan), CONFD_ERR);
  EXPECT_EQ(confd_->GetIpv4FromConfd(-1, kEntry + "/address", &address), CONFD_ERR);
  EXPECT_EQ(Taken(), Lines{});
}

TEST_F(LeafReaders, AbsentOptionalLeafLeavesTheDestination) {
  fakes::TheCdb().Remove(CDB_RUNNING, Ipv4("eth3", "10.0.0.1 100") + "/mac");
  std::array<uint8_t, 6> mac = {9, 8, 7, 6, 5, 4};
  EXPECT_EQ(Get(kEntry, "/mac", mac.data(), LEAF_MAC, true), 0);
  EXPECT_EQ(mac, (std::array<uint8_t, 6>{9, 8, 7, 6, 5, 4}));
  EXPECT_EQ(Taken(), Lines{});
}

TEST_F(LeafReaders, AbsentOptionalLeafOfAnUnknownKindIsNoFault) {
  EXPECT_EQ(Get(kIface, "/allowed-ip/all", nullptr, static_cast<ConfdLeafType>(4), true), 0);
  EXPECT_EQ(Taken(), Lines{});
}

TEST_F(LeafReaders, StringIsCutTo63Characters) {
  const std::string longest(63, 'n');
  for (const size_t length : {62, 63, 64, 200}) {
    fakes::TheCdb().Put(CDB_RUNNING, Iface("eth3") + "/interface-name", std::string(length, 'n'));
    std::string name = "before";
    EXPECT_EQ(Get(kIface, "/interface-name", &name, LEAF_STRING, false), 0);
    EXPECT_EQ(name, longest.substr(0, length)) << length;
  }
}

TEST_F(LeafReaders, LongMacIsCopiedWhole) {
  fakes::TheCdb().Put(CDB_RUNNING, Ipv4("eth3", "10.0.0.1 100") + "/mac", "01:02:03:04:05:06:07:08");
  std::array<uint8_t, 10> mac{};
  EXPECT_EQ(Get(kEntry, "/mac", mac.data(), LEAF_MAC, true), 0);
  EXPECT_EQ(mac, (std::array<uint8_t, 10>{1, 2, 3, 4, 5, 6, 7, 8, 0, 0}));
}

std::string Bytes(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += fakes::Format(i == 0 ? "%02x" : ":%02x", i % 251);
  return text;
}

// 256 bytes are what every destination holds.
TEST_F(LeafReaders, BinaryBeyond256BytesIsCut) {
  for (const int length : {255, 256, 257, 5000}) {
    fakes::TheCdb().Put(CDB_RUNNING, Ipv4("eth3", "10.0.0.1 100") + "/mac", Bytes(length));
    std::array<uint8_t, 6000> destination{};
    destination.fill(0xee);
    EXPECT_EQ(Get(kEntry, "/mac", destination.data(), LEAF_MAC, true), 0);
    const int copied = std::min(length, 256);
    for (int i = 0; i < copied; ++i) ASSERT_EQ(destination[static_cast<size_t>(i)], i % 251) << length;
    EXPECT_EQ(destination[static_cast<size_t>(copied)], 0xee) << length;
  }
  EXPECT_EQ(Taken(), Lines{});
}

struct FailedRead {
  std::string name;
  std::string call;
  std::string suffix;
  ConfdLeafType kind;
  int result;    ///< of the scripted call
  int returned;  ///< by the reader
  Lines trace;
};

class LeafReadFails : public LeafReaders, public testing::WithParamInterface<FailedRead> {};

TEST_P(LeafReadFails, GivesTheResultAndLeavesTheDestination) {
  const FailedRead& row = GetParam();
  fakes::TheScript().Return(row.call, row.result, "the library's text");
  std::string text = "before";
  std::array<uint8_t, 64> bytes{};
  void* const destination = row.kind == LEAF_STRING ? static_cast<void*>(&text) : bytes.data();
  EXPECT_EQ(Get(kEntry, row.suffix, destination, row.kind, false), row.returned);
  EXPECT_EQ(text, "before");
  EXPECT_EQ(bytes, (std::array<uint8_t, 64>{}));
  EXPECT_EQ(Taken(), row.trace);
}

INSTANTIATE_TEST_SUITE_P(
    All, LeafReadFails,
    testing::Values(
        FailedRead{"Int32", "cdb_get_int32", "/vlan", LEAF_INT32, -1, -1, {}},
        FailedRead{"Int32LosesTheSocket", "cdb_get_int32", "/vlan", LEAF_INT32, -2, -2, {}},
        FailedRead{"String", "cdb_get_str", "/vlan", LEAF_STRING, -1, -1, {}},
        FailedRead{"StringGivesAnyNumber", "cdb_get_str", "/vlan", LEAF_STRING, 1, 1, {}},
        FailedRead{"Ipv4", "cdb_get_ipv4", "/address", LEAF_IPV4, -1, -1, {}},
        FailedRead{"Ipv4LosesTheSocket", "cdb_get_ipv4", "/address", LEAF_IPV4, -2, -2, {}},
        FailedRead{
            "Mac", "cdb_get_binary", "/mac", LEAF_MAC, -2, -2, {"fault 0 GetMacFromConfd: the library's text\n"}},
        FailedRead{"MacGivesAnyNumber",
                   "cdb_get_binary",
                   "/mac",
                   LEAF_MAC,
                   1,
                   1,
                   {"fault 0 GetMacFromConfd: the library's text\n"}},
        FailedRead{
            "MacWithoutData", "cdb_get_binary", "/mac", LEAF_MAC, 0, -1, {"fault 0 GetMacFromConfd: Null pointer\n"}}),
    [](const auto& row) { return row.param.name; });

struct FatalRead {
  std::string name;
  int exists;
  ConfdLeafType kind;
  bool optional;
  Lines dump;
};

class LeafReadFatal : public LeafReaders, public testing::WithParamInterface<FatalRead> {};

TEST_P(LeafReadFatal, EndsTheProcess) {
  fakes::TheScript().Return("cdb_exists " + kEntry + "/mac", GetParam().exists, "no server");
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        uint8_t bytes[64] = {};
        Get(kEntry, "/mac", bytes, GetParam().kind, GetParam().optional);
      },
      testing::ExitedWithCode(1), DiesWithExactly(GetParam().dump));
}

Lines NotThere(int exists) {
  return {"backtrace",
          "fault 1 GetFromConfd: GetFromConfd error[" + std::to_string(exists) + "] reading leaf: " + kEntry + "/mac"};
}

const Lines kSocketLost = {"log 12 GetFromConfd: path[" + kEntry + "/mac] socket error[-2] no server", "backtrace",
                           "fault 1 GetFromConfd: GetFromConfd error[-2] reading leaf: " + kEntry + "/mac"};
const Lines kUnknownKind = {"backtrace",
                            "fault 1 GetFromConfd: IpSpoofingAppValid::GetCaseFromConfd must be implemented"};

INSTANTIATE_TEST_SUITE_P(
    All, LeafReadFatal,
    testing::Values(FatalRead{"MandatoryLeafAbsent", 0, LEAF_MAC, false, NotThere(0)},
                    FatalRead{"NeitherPresentNorAbsent", 2, LEAF_MAC, true, NotThere(2)},
                    FatalRead{"TestFails", -1, LEAF_MAC, false, NotThere(-1)},
                    FatalRead{"TestOfAnOptionalLeafFails", -1, LEAF_MAC, true, NotThere(-1)},
                    FatalRead{"SocketLost", -2, LEAF_MAC, false, kSocketLost},
                    FatalRead{"SocketLostOnAnOptionalLeaf", -2, LEAF_MAC, true, kSocketLost},
                    FatalRead{"UnknownKind", 1, static_cast<ConfdLeafType>(4), false, kUnknownKind},
                    FatalRead{"NegativeKind", 1, static_cast<ConfdLeafType>(-1), true, kUnknownKind},
                    FatalRead{"KindIsLookedAtAfterExistence", 0, static_cast<ConfdLeafType>(4), false, NotThere(0)}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace ip_spoofing_app
