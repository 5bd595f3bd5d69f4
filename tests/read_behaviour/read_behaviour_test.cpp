#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "cdb_under_test.h"

namespace read_behaviour {
namespace {

constexpr int kNamespace = 0x41fef11b;
const std::string kRoot = "/config/anti-ip-spoofing/interface";

const std::vector<PathValue> kRunning = {
    {kRoot + "{eth10}", ""},
    {kRoot + "{eth1}/allowed-ip/ipv4{10.0.0.2 5}/mac", "02:00:00:00:00:0A"},
    {kRoot + "{eth1}/allowed-ip/ipv4{10.0.0.2 0}", ""},
    {kRoot + "{eth1}/allowed-ip/ipv4{9.255.255.255 4094}", ""},
    {kRoot + "{eth1}/allowed-ip/ipv4{10.0.0.2 10}", ""},
    {kRoot + "{eth1}/allowed-ip/ipv6-all", ""},
    {kRoot + "{ge-1.2}/allowed-ip/all", ""},
};
const std::vector<PathValue> kBefore = {
    {kRoot + "{eth1}/allowed-ip/ipv4{10.0.0.9 7}/mac", "02:00:00:00:00:09"},
    {kRoot + "{old}/allowed-ip/ipv4-all", ""},
};

const char* ErrorName() {
  switch (confd_errno) {
    case CONFD_ERR_NOEXISTS:
      return "noexists";
    case CONFD_ERR_BADPATH:
      return "badpath";
    case CONFD_ERR_BADTYPE:
      return "badtype";
    case CONFD_ERR_BADSTATE:
      return "badstate";
    case CONFD_ERR_PROTOUSAGE:
      return "protousage";
    default:
      return "other";
  }
}

/// A result as text: the value, or "error <kind>", which needs a text in confd_lasterr() too.
std::string Failed(int result) {
  if (std::string(confd_lasterr()).empty()) return "an error without a text";
  return (result == CONFD_EOF ? "eof " : "error ") + std::string(ErrorName());
}

std::string Exists(int sock, const std::string& path) {
  const int result = cdb_exists(sock, "%s", path.c_str());
  return result >= 0 ? std::to_string(result) : Failed(result);
}

std::string Count(int sock, const std::string& path) {
  const int result = cdb_num_instances(sock, "%s", path.c_str());
  return result >= 0 ? std::to_string(result) : Failed(result);
}

std::string Str(int sock, const std::string& path, int size = 64) {
  char buffer[64] = "untouched";
  const int result = cdb_get_str(sock, buffer, size, "%s", path.c_str());
  if (result != CONFD_OK) return std::string(buffer) == "untouched" ? Failed(result) : "touched";
  return buffer;
}

std::string Int32(int sock, const std::string& path) {
  int32_t value = -1;
  const int result = cdb_get_int32(sock, &value, "%s", path.c_str());
  return result == CONFD_OK ? std::to_string(value) : Failed(result);
}

std::string Ipv4(int sock, const std::string& path) {
  in_addr value{};
  char text[INET_ADDRSTRLEN] = "";
  const int result = cdb_get_ipv4(sock, &value, "%s", path.c_str());
  return result == CONFD_OK ? inet_ntop(AF_INET, &value, text, sizeof text) : Failed(result);
}

std::string Binary(int sock, const std::string& path) {
  unsigned char* data = nullptr;
  int length = 0;
  const int result = cdb_get_binary(sock, &data, &length, "%s", path.c_str());
  if (result != CONFD_OK) return data == nullptr ? Failed(result) : "touched";
  std::string text;
  for (int i = 0; i < length; ++i) {
    char hex[4];
    std::snprintf(hex, sizeof hex, "%02x", data[i]);
    text += hex;
  }
  free(data);
  return text;
}

/// Type, and the value where it is a number or text.
std::string Any(int sock, const std::string& path) {
  confd_value_t value;
  const int result = cdb_get(sock, &value, "%s", path.c_str());
  if (result != CONFD_OK) return Failed(result);
  std::string text = "type " + std::to_string(value.type);
  if (value.type == C_BUF) {
    text += " " + std::string(reinterpret_cast<const char*>(CONFD_GET_BUFPTR(&value)));
    text += " " + std::to_string(CONFD_GET_BUFSIZE(&value));
  }
  if (value.type == C_INT32) text += " " + std::to_string(CONFD_GET_INT32(&value));
  confd_free_value(&value);
  return text + (value.type == C_NOEXISTS ? "" : " not freed");
}

struct Row {
  const char* name;
  std::function<std::string(int)> call;
  const char* result;
  cdb_db_type db = CDB_RUNNING;
};

class Read : public ::testing::TestWithParam<Row> {};

TEST_P(Read, Gives) {
  const auto cdb = MakeCdb();
  cdb->Load(kBefore, kRunning);
  const int sock = cdb->OpenSession(GetParam().db);
  ASSERT_GE(sock, 0);
  ASSERT_EQ(cdb_set_namespace(sock, kNamespace), CONFD_OK);
  EXPECT_EQ(GetParam().call(sock), GetParam().result) << confd_lasterr();
  cdb->CloseSession(sock);
}

const std::string kEth1 = kRoot + "{eth1}";
const std::string kIpv4 = kEth1 + "/allowed-ip/ipv4";

#define CALL(expression) [](int s) { return expression; }

INSTANTIATE_TEST_SUITE_P(
    Exists, Read,
    ::testing::Values(Row{"Instance", CALL(Exists(s, kEth1)), "1"},
                      Row{"InstanceQuoted", CALL(Exists(s, kRoot + "{\"eth1\"}")), "1"},
                      Row{"InstancePrefixed", CALL(Exists(s, "/ais:config/anti-ip-spoofing/interface{eth1}")), "1"},
                      Row{"InstanceAbsent", CALL(Exists(s, kRoot + "{eth2}")), "0"},
                      Row{"InstanceNotByPrefixOfName", CALL(Exists(s, kRoot + "{eth}")), "0"},
                      Row{"ContainerWithContent", CALL(Exists(s, kEth1 + "/allowed-ip")), "1"},
                      Row{"ContainerWithoutContent", CALL(Exists(s, kRoot + "{eth10}/allowed-ip")), "0"},
                      Row{"ContainerOfAbsentInstance", CALL(Exists(s, kRoot + "{eth2}/allowed-ip")), "0"},
                      Row{"Top", CALL(Exists(s, "/config")), "1"}, Row{"List", CALL(Exists(s, kRoot)), "1"},
                      Row{"EmptyList", CALL(Exists(s, kRoot + "{eth10}/allowed-ip/ipv4")), "0"},
                      Row{"ListOfAbsentInstance", CALL(Exists(s, kRoot + "{eth2}/allowed-ip/ipv4")), "0"},
                      Row{"EmptyLeaf", CALL(Exists(s, kEth1 + "/allowed-ip/ipv6-all")), "1"},
                      Row{"EmptyLeafAbsent", CALL(Exists(s, kEth1 + "/allowed-ip/all")), "0"},
                      Row{"KeyLeaf", CALL(Exists(s, kEth1 + "/interface-name")), "1"},
                      Row{"KeyLeafOfAbsentInstance", CALL(Exists(s, kRoot + "{eth2}/interface-name")), "0"},
                      Row{"SeveralKeys", CALL(Exists(s, kIpv4 + "{10.0.0.2 5}")), "1"},
                      Row{"SeveralKeysOneDiffers", CALL(Exists(s, kIpv4 + "{10.0.0.2 6}")), "0"},
                      Row{"Mac", CALL(Exists(s, kIpv4 + "{10.0.0.2 5}/mac")), "1"},
                      Row{"MacAbsent", CALL(Exists(s, kIpv4 + "{10.0.0.2 0}/mac")), "0"},
                      Row{"FirstPosition", CALL(Exists(s, kRoot + "[0]")), "1"},
                      Row{"LastPosition", CALL(Exists(s, kRoot + "[2]")), "1"},
                      Row{"PositionPastTheEnd", CALL(Exists(s, kRoot + "[3]")), "0"},
                      Row{"LeafPastTheEnd", CALL(Exists(s, kIpv4 + "[9]/mac")), "0"},
                      Row{"PositionBelowAKey", CALL(Exists(s, kIpv4 + "[3]")), "1"},
                      Row{"PositionBelowAPosition", CALL(Exists(s, kRoot + "[0]/allowed-ip/ipv4[3]")), "1"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Order, Read,
    ::testing::Values(Row{"InterfacesByName",
                          CALL(Str(s, kRoot + "[0]/interface-name") + " " + Str(s, kRoot + "[1]/interface-name") + " " +
                               Str(s, kRoot + "[2]/interface-name")),
                          "eth1 eth10 ge-1.2"},
                      Row{"AddressesThenVlansAsNumbers",
                          CALL(Ipv4(s, kIpv4 + "[0]/address") + " " + Int32(s, kIpv4 + "[1]/vlan") + " " +
                               Int32(s, kIpv4 + "[2]/vlan") + " " + Int32(s, kIpv4 + "[3]/vlan")),
                          "9.255.255.255 0 5 10"},
                      Row{"BackAndForth",
                          CALL(Int32(s, kIpv4 + "[3]/vlan") + " " + Int32(s, kIpv4 + "[1]/vlan") + " " +
                               Exists(s, kIpv4 + "[4]") + " " + Int32(s, kIpv4 + "[2]/vlan")),
                          "10 0 0 5"},
                      Row{"OtherReadsBetweenPositions",
                          CALL(Int32(s, kIpv4 + "[1]/vlan") + " " + Exists(s, kRoot + "[1]") + " " +
                               Exists(s, kIpv4 + "{10.0.0.2 10}") + " " + Int32(s, kIpv4 + "[2]/vlan")),
                          "0 1 1 5"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Leaves, Read,
    ::testing::Values(Row{"Str", CALL(Str(s, kEth1 + "/interface-name")), "eth1"},
                      Row{"StrCut", CALL(Str(s, kEth1 + "/interface-name", 3)), "et"},
                      Row{"StrOfAbsentInstance", CALL(Str(s, kRoot + "{eth2}/interface-name")), "error noexists"},
                      Row{"StrOfANumber", CALL(Str(s, kIpv4 + "[0]/vlan")), "error badtype"},
                      Row{"Int32", CALL(Int32(s, kIpv4 + "{9.255.255.255 4094}/vlan")), "4094"},
                      Row{"Int32OfText", CALL(Int32(s, kEth1 + "/interface-name")), "error badtype"},
                      Row{"Int32PastTheEnd", CALL(Int32(s, kIpv4 + "[4]/vlan")), "error noexists"},
                      Row{"Ipv4", CALL(Ipv4(s, kIpv4 + "{10.0.0.2 5}/address")), "10.0.0.2"},
                      Row{"Ipv4OfANumber", CALL(Ipv4(s, kIpv4 + "[0]/vlan")), "error badtype"},
                      Row{"Binary", CALL(Binary(s, kIpv4 + "{10.0.0.2 5}/mac")), "02000000000a"},
                      Row{"BinaryAbsent", CALL(Binary(s, kIpv4 + "{10.0.0.2 0}/mac")), "error noexists"},
                      Row{"BinaryOfText", CALL(Binary(s, kEth1 + "/interface-name")), "error badtype"},
                      Row{"ALeafIsWanted", CALL(Str(s, kEth1)), "error badtype"},
                      Row{"AnyText", CALL(Any(s, kEth1 + "/interface-name")), "type 3 eth1 4"},
                      Row{"AnyNumber", CALL(Any(s, kIpv4 + "[2]/vlan")), "type 6 5"},
                      Row{"AnyAddress", CALL(Any(s, kIpv4 + "[2]/address")), "type 15"},
                      Row{"AnyBinary", CALL(Any(s, kIpv4 + "[2]/mac")), "type 14"},
                      Row{"AnyEmpty", CALL(Any(s, kEth1 + "/allowed-ip/ipv6-all")), "type 1"},
                      Row{"AnyAbsent", CALL(Any(s, kEth1 + "/allowed-ip/all")), "error noexists"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Counts, Read,
    ::testing::Values(Row{"TopList", CALL(Count(s, kRoot)), "3"}, Row{"InnerList", CALL(Count(s, kIpv4)), "4"},
                      Row{"InnerListByPosition", CALL(Count(s, kRoot + "[0]/allowed-ip/ipv4")), "4"},
                      Row{"EmptyInnerList", CALL(Count(s, kRoot + "{ge-1.2}/allowed-ip/ipv4")), "0"},
                      Row{"OfAbsentInstance", CALL(Count(s, kRoot + "{eth2}/allowed-ip/ipv4")), "error noexists"},
                      Row{"PastTheEnd", CALL(Count(s, kRoot + "[7]/allowed-ip/ipv4")), "error noexists"},
                      Row{"OfAContainer", CALL(Count(s, "/config")), "error badpath"},
                      Row{"OfAnInstance", CALL(Count(s, kEth1)), "error badpath"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    BeforeTheCommit, Read,
    ::testing::Values(Row{"OldInstance", CALL(Exists(s, kRoot + "{old}")), "1", CDB_PRE_COMMIT_RUNNING},
                      Row{"NewInstance", CALL(Exists(s, kRoot + "{eth10}")), "0", CDB_PRE_COMMIT_RUNNING},
                      Row{"OldLeaf", CALL(Exists(s, kRoot + "{old}/allowed-ip/ipv4-all")), "1", CDB_PRE_COMMIT_RUNNING},
                      Row{"OldCount", CALL(Count(s, kIpv4)), "1", CDB_PRE_COMMIT_RUNNING},
                      Row{"OldMac", CALL(Binary(s, kIpv4 + "[0]/mac")), "020000000009", CDB_PRE_COMMIT_RUNNING},
                      Row{"OldInstanceIsGoneFromRunning", CALL(Exists(s, kRoot + "{old}")), "0", CDB_RUNNING}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    BadPaths, Read,
    ::testing::Values(Row{"Empty", CALL(Exists(s, "")), "error badpath"},
                      Row{"UnknownTop", CALL(Exists(s, "/nothing")), "error badpath"},
                      Row{"UnknownNode", CALL(Exists(s, kEth1 + "/nothing")), "error badpath"},
                      Row{"UnknownPrefix", CALL(Exists(s, "/zz:config")), "error badpath"},
                      Row{"BelowALeaf", CALL(Exists(s, kEth1 + "/interface-name/x")), "error badpath"},
                      Row{"ListWithoutInstance", CALL(Exists(s, kRoot + "/interface-name")), "error badpath"},
                      Row{"TooFewKeys", CALL(Exists(s, kIpv4 + "{10.0.0.2}")), "error badpath"},
                      Row{"TooManyKeys", CALL(Exists(s, kRoot + "{a b}")), "error badpath"},
                      Row{"KeyOfWrongType", CALL(Exists(s, kIpv4 + "{10.0.0.2 five}")), "error badpath"},
                      Row{"KeysOnAContainer", CALL(Exists(s, "/config{a}")), "error badpath"},
                      Row{"PositionOnAContainer", CALL(Exists(s, "/config[0]")), "error badpath"},
                      Row{"OpenBrace", CALL(Exists(s, kRoot + "{eth1")), "error badpath"},
                      Row{"OpenBracket", CALL(Exists(s, kRoot + "[1")), "error badpath"},
                      Row{"NoNumber", CALL(Exists(s, kRoot + "[one]")), "error badpath"},
                      Row{"NegativePosition", CALL(Exists(s, kRoot + "[-1]")), "error badpath"}),
    [](const auto& row) { return row.param.name; });

std::string Formatted(int result) { return result >= 0 ? std::to_string(result) : Failed(result); }

INSTANTIATE_TEST_SUITE_P(
    Formats, Read,
    ::testing::Values(
        Row{"Text", CALL(Formatted(cdb_exists(s, "%s/%s", kEth1.c_str(), "allowed-ip/ipv6-all"))), "1"},
        Row{"Number", CALL(Formatted(cdb_exists(s, "/config/anti-ip-spoofing/interface[%d]", 2))), "1"},
        Row{"Unsigned", CALL(Formatted(cdb_exists(s, "/config/anti-ip-spoofing/interface{eth%u}", 10U))), "1"},
        Row{"Hexadecimal", CALL(Formatted(cdb_exists(s, "/config/anti-ip-spoofing/interface{%xe-1.2}", 0U))), "0"},
        Row{"PercentSign", CALL(Formatted(cdb_exists(s, "/config/anti-ip-spoofing/interface{a%%s}"))), "0"},
        Row{"PathAsFormat", CALL(Formatted(cdb_exists(s, kEth1.c_str()))), "1"},
        Row{"MissingArgument", CALL(Formatted(cdb_exists(s, "/config/anti-ip-spoofing/interface{%s}"))),
            "error protousage"},
        Row{"MissingSecondArgument", CALL(Formatted(cdb_exists(s, "/config/%s/interface{%s}", "anti-ip-spoofing"))),
            "error protousage"},
        Row{"UnknownConversion", CALL(Formatted(cdb_exists(s, "/config/%n", 1))), "error protousage"},
        Row{"ConversionInAName", CALL(Formatted(cdb_exists(s, "/config/anti-ip-spoofing/interface{a%qb}"))),
            "error protousage"}),
    [](const auto& row) { return row.param.name; });

TEST(Session, NamespaceMustExist) {
  const auto cdb = MakeCdb();
  cdb->Load({}, kRunning);
  const int sock = cdb->OpenSession(CDB_RUNNING);
  EXPECT_EQ(cdb_set_namespace(sock, 0x12345678), CONFD_ERR);
  EXPECT_EQ(cdb_set_namespace(sock, kNamespace), CONFD_OK);
  cdb->CloseSession(sock);
}

TEST(Session, BareTopNamesResolveWithoutANamespaceWhenTheyAreUnique) {
  const auto cdb = MakeCdb();
  cdb->Load({}, kRunning);
  const int sock = cdb->OpenSession(CDB_RUNNING);
  EXPECT_EQ(Exists(sock, kEth1), "1");
  EXPECT_EQ(Exists(sock, "/ais:config"), "1");
  cdb->CloseSession(sock);
}

TEST(Session, ASocketWithoutOneIsRefused) {
  const auto cdb = MakeCdb();
  cdb->Load({}, kRunning);
  EXPECT_EQ(Exists(-1, kEth1), "error badstate");
  EXPECT_EQ(Exists(1000, kEth1), "error badstate");
  EXPECT_EQ(Count(1000, kRoot), "error badstate");
}

TEST(Session, SessionsAreIndependent) {
  const auto cdb = MakeCdb();
  cdb->Load(kBefore, kRunning);
  const int running = cdb->OpenSession(CDB_RUNNING);
  const int before = cdb->OpenSession(CDB_PRE_COMMIT_RUNNING);
  EXPECT_EQ(Count(running, kIpv4) + Count(before, kIpv4) + Count(running, kIpv4), "414");
  EXPECT_EQ(Int32(running, kIpv4 + "[1]/vlan") + Int32(before, kIpv4 + "[0]/vlan") + Int32(running, kIpv4 + "[2]/vlan"),
            "075");
  cdb->CloseSession(before);
  EXPECT_EQ(Exists(running, kEth1), "1");
  cdb->CloseSession(running);
}

TEST(Session, TheTimeoutIsAccepted) {
  const auto cdb = MakeCdb();
  cdb->Load({}, kRunning);
  const int sock = cdb->OpenSession(CDB_RUNNING);
  EXPECT_EQ(cdb_set_timeout(sock, 5), CONFD_OK);
  EXPECT_EQ(Exists(sock, kEth1), "1");
  cdb->CloseSession(sock);
}

}  // namespace
}  // namespace read_behaviour
