// The full load: which requests it sends, in which order, and what it makes of every failure.
#include <functional>

#include "daemon_fixture.h"

namespace ip_spoofing_app {
namespace {

const std::string kNew = "log 10 LoadConfDCfg: Received new configuration. Loading config...";
const std::string kDone = "log 11 LoadConfDCfg: All LoadConfDCfg executed successfully!";
const std::string kNoNumber =
    "log 12 LoadConfdIpSpoofAllowedIpIPv4: Failed getting number of anti-ip-spoofing allowed-ip ipv4 instances from "
    "ConfD database (error -2)";
const std::string kNotLoaded = "log 12 LoadConfDCfg: Could not load anti-ip-spoofing from CDB configuration.";

std::string Enable(const std::string& name) {
  return "log 10 LoadConfdIpSpoofAllowedIfaces: Enable anti-ip-spoofing for: " + name;
}
std::string NoRules(const std::string& name) {
  return "log 10 LoadConfdIpSpoofAllowedIpIPv4: There is no allowed-ip ipv4 rules for path: "
         "/config/anti-ip-spoofing/interface{\"" +
         name + "\"}/allowed-ip/ipv4 ";
}
std::string AddLog(const std::string& entry) {
  return "log 10 LoadConfdIpSpoofAllowedIpIPv4: SendAddEntry for " + entry;
}
std::string AllLog(const std::string& text) { return "log 11 LoadConfdIpSpoofAllowedIpAll: " + text; }
std::string Omitting(const std::string& name) { return AllLog("omitting allowedAll[NONE] for[" + name + "]"); }
std::string LoadFault(const std::string& function, const std::string& instance, const std::string& leaf) {
  return "fault 0 " + function + ": " + function + " error reading " + instance + "/" + leaf;
}

/// An interface without sources: what its load leaves in the trace.
Lines Bare(const std::string& name) {
  return {Enable(name), "SendIpSpoofing " + name + " true", NoRules(name), Omitting(name)};
}

Lines Join(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// A load that succeeds, from the session's start to its end.
Lines Loaded(const Lines& body) { return Join({{"open running", kNew}, body, {kDone, "close running"}}); }
Lines NotLoaded(const Lines& body) { return Join({{"open running", kNew}, body, {kNotLoaded, "close running"}}); }

void Put(const std::string& path) { fakes::TheCdb().Put(CDB_RUNNING, path); }
void Put(const std::string& path, const std::string& value) { fakes::TheCdb().Put(CDB_RUNNING, path, value); }
void PutInterfaces(const std::vector<std::string>& names) {
  for (const std::string& name : names) Put(Iface(name));
}

const std::string kList = "/config/anti-ip-spoofing/interface";
const std::string kEth1List = kList + "{\"eth1\"}/allowed-ip/ipv4";

struct LoadCase {
  std::string name;
  std::function<void()> prepare;
  int result;
  Lines trace;
};

class Load : public DaemonTest, public testing::WithParamInterface<LoadCase> {};

TEST_P(Load, LeavesThisTrace) {
  ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kLog, Kind::kFault, Kind::kSession});
  GetParam().prepare();
  EXPECT_EQ(confd.LoadConfDCfg(false), GetParam().result);
  EXPECT_EQ(Taken(), GetParam().trace);
  EXPECT_TRUE(fakes::TheCdb().sessions.empty());
}

const LoadCase kOrder[] = {
    {"NoConfiguration", [] {}, 0, Loaded({})},
    {"SocketZeroIsASession", [] { fakes::TheCdb().next_socket = 0; }, 0, Loaded({})},
    {"OneBareInterface", [] { PutInterfaces({"eth1"}); }, 0, Loaded(Bare("eth1"))},
    {"InterfacesInDatabaseOrder",
     [] {
       PutInterfaces({"eth3", "eth1", "eth2"});
     },
     0, Loaded(Join({Bare("eth1"), Bare("eth2"), Bare("eth3")}))},
    {"EnableThenEntriesThenAllowAll",
     [] {
       Put(Ipv4("eth1", "10.0.0.2 200") + "/mac", "02:00:00:00:00:0a");
       Put(Ipv4("eth1", "10.0.0.1 100"));
       Put(Iface("eth1") + "/allowed-ip/ipv6-all");
       Put(Iface("eth2") + "/allowed-ip/all");
       Put(Ipv4("eth2", "192.168.1.255 0"));
     },
     0,
     Loaded({Enable("eth1"), "SendIpSpoofing eth1 true",  //
             AddLog("[eth1] ip[10.0.0.1] vlan[100]"), "SendAddEntry eth1 10.0.0.1 vlan 100 mac 00:00:00:00:00:00",
             AddLog("[eth1] ip[10.0.0.2] vlan[200]"), "SendAddEntry eth1 10.0.0.2 vlan 200 mac 02:00:00:00:00:0a",
             AllLog("sending allowedAll[IPV6_ALL] for[eth1]"), "SendAllowedIpAll eth1 2",  //
             Enable("eth2"), "SendIpSpoofing eth2 true",                                   //
             AddLog("[eth2] ip[192.168.1.255] vlan[0]"), "SendAddEntry eth2 192.168.1.255 vlan 0 mac 00:00:00:00:00:00",
             AllLog("sending allowedAll[ALL] for[eth2]"), "SendAllowedIpAll eth2 3"})},
    {"PortOfAnotherTypeIsNotEnabledButLoaded",
     [] {
       fakes::TheLimid().SetType("eth1", limid_type_loopback);
       Put(Ipv4("eth1", "10.0.0.1 7"));
       Put(Iface("eth1") + "/allowed-ip/ipv4-all");
     },
     0,
     Loaded({AddLog("[eth1] ip[10.0.0.1] vlan[7]"), "SendAddEntry eth1 10.0.0.1 vlan 7 mac 00:00:00:00:00:00",
             AllLog("sending allowedAll[IPV4_ALL] for[eth1]"), "SendAllowedIpAll eth1 1"})},
    {"PortWithoutATypeIsNoServicePort",
     [] {
       PutInterfaces({"eth1"});
       fakes::TheScript().Return("limid_to_type eth1", -1);
     },
     0, Loaded({NoRules("eth1"), Omitting("eth1")})},
    {"PortWithoutATypeHasTheTypeOfTheOneBefore",
     [] {
       PutInterfaces({"eth1", "eth2", "eth3", "eth4"});
       fakes::TheScript().Return("limid_to_type eth2", -1);
       fakes::TheLimid().SetType("eth3", limid_type_point_to_point);
       fakes::TheScript().Return("limid_to_type eth4", -1);
     },
     0,
     Loaded(
         Join({Bare("eth1"), Bare("eth2"), {NoRules("eth3"), Omitting("eth3"), NoRules("eth4"), Omitting("eth4")}}))},
    {"RefusedRequestsDoNotMatter",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 7"));
       Put(Iface("eth1") + "/allowed-ip/all");
       for (const char* call : {"SendIpSpoofing", "SendAddEntry", "SendAllowedIpAll"}) {
         fakes::TheScript().Return(call, -1);
       }
     },
     0,
     Loaded({Enable("eth1"), "SendIpSpoofing eth1 true", AddLog("[eth1] ip[10.0.0.1] vlan[7]"),
             "SendAddEntry eth1 10.0.0.1 vlan 7 mac 00:00:00:00:00:00", AllLog("sending allowedAll[ALL] for[eth1]"),
             "SendAllowedIpAll eth1 3"})},
};
INSTANTIATE_TEST_SUITE_P(Order, Load, testing::ValuesIn(kOrder), [](const auto& row) { return row.param.name; });

const LoadCase kFailures[] = {
    {"NotInitialised",
     [] { fakes::TheWrapper().SetInitialized(fakes::TheWrapper().latest, false); },
     -1,
     {"fault 0 LoadConfDCfg: ConfDAppMgr was not initialized it. please call InitConfd()"}},
    {"NoSession",
     [] { fakes::TheScript().Return("session running", -1); },
     -1,
     {"open running", "log 12 LoadConfDCfg: Could not start CDB session.", "close"}},
    {"NoNamespace",
     [] {
       PutInterfaces({"eth1"});
       fakes::TheScript().Return("cdb_set_namespace", -1);
     },
     -1, NotLoaded({"log 12 LoadConfdIpSpoof: Cannot set namespace to IP-SPOOFING on loadCfg"})},
    {"AnyNumberButZeroIsNoNamespace",
     [] {
       PutInterfaces({"eth1"});
       fakes::TheScript().Return("cdb_set_namespace", 1);
     },
     -1, NotLoaded({"log 12 LoadConfdIpSpoof: Cannot set namespace to IP-SPOOFING on loadCfg"})},
    {"FailedTestOfTheRootGoesOn",
     [] {
       PutInterfaces({"eth1"});
       fakes::TheScript().Return("cdb_exists /config/anti-ip-spoofing", -1);
     },
     0, Loaded(Bare("eth1"))},
    {"AbsentRootIsSuccessWhateverIsBelow",
     [] {
       PutInterfaces({"eth1"});
       fakes::TheScript().Return("cdb_exists /config/anti-ip-spoofing", 0);
     },
     0, Loaded({})},
    {"InterfacesCannotBeCounted",
     [] {
       PutInterfaces({"eth1"});
       fakes::TheScript().Return("cdb_num_instances " + kList, -2);
     },
     -1,
     NotLoaded({"log 12 LoadConfdIpSpoofAllowedIfaces: Failed getting number of anti-ip-spoofing interface instances "
                "from ConfD database (error -2) "})},
    {"InterfacesCannotBeCountedForAPlainError",
     [] {
       PutInterfaces({"eth1"});
       fakes::TheScript().Return("cdb_num_instances " + kList, -1);
     },
     -1,
     NotLoaded({"log 12 LoadConfdIpSpoofAllowedIfaces: Failed getting number of anti-ip-spoofing interface instances "
                "from ConfD database (error -1) "})},
    {"EntriesCannotBeCountedForAPlainError",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1"));
       fakes::TheScript().Return("cdb_num_instances " + kEth1List, -1);
     },
     -1,
     NotLoaded({Enable("eth1"), "SendIpSpoofing eth1 true",
                "log 12 LoadConfdIpSpoofAllowedIpIPv4: Failed getting number of anti-ip-spoofing allowed-ip ipv4 "
                "instances from ConfD database (error -1)"})},
    {"RefusedTimeoutsDoNotMatter",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1"));
       fakes::TheScript().Return("cdb_set_timeout", -1);
     },
     0,
     Loaded({Enable("eth1"), "SendIpSpoofing eth1 true", AddLog("[eth1] ip[10.0.0.1] vlan[1]"),
             "SendAddEntry eth1 10.0.0.1 vlan 1 mac 00:00:00:00:00:00", Omitting("eth1")})},
    {"IdOfTheInterfaceBeforeIsNotUsed",
     [] {
       PutInterfaces({"eth1", "eth2"});
       fakes::TheScript().Return("limid_from_intfname eth2", -1);
     },
     0,
     Loaded(Join(
         {Bare("eth1"), {Enable("eth2"), "SendIpSpoofing (no interface) true", NoRules("eth2"), Omitting("eth2")}}))},
    {"IdOfIndexZeroIsNotUsedForAnEntry",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1"));
       fakes::TheLimid().index_zero = fakes::TheLimid().Id("eth0");
       fakes::TheScript().ReturnNth("limid_from_intfname eth1", 2, -1);
     },
     0,
     Loaded({Enable("eth1"), "SendIpSpoofing eth1 true", AddLog("[eth1] ip[10.0.0.1] vlan[1]"),
             "SendAddEntry (no interface) 10.0.0.1 vlan 1 mac 00:00:00:00:00:00", Omitting("eth1")})},
    {"NameOfTheInterfaceBeforeIsNotUsed",
     [] {
       PutInterfaces({"eth1", "eth2"});
       fakes::TheScript().Return("cdb_get_str " + kList + "[1]/interface-name", -1, "no string");
     },
     0,
     Loaded(Join({Bare("eth1"),
                  {LoadFault("LoadConfdIpSpoofAllowedIfaces", kList + "[1]", "interface-name"), Enable(""),
                   "SendIpSpoofing (no interface) true", NoRules(""), Omitting("")}}))},
    {"ValuesOfTheEntryBeforeAreNotUsed",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1") + "/mac", "02:00:00:00:00:01");
       Put(Ipv4("eth1", "10.0.0.2 2") + "/mac", "02:00:00:00:00:02");
       fakes::TheScript().Return("cdb_get_ipv4 " + kEth1List + "[1]/address", -1);
       fakes::TheScript().Return("cdb_get_int32 " + kEth1List + "[1]/vlan", -1);
       fakes::TheScript().Return("cdb_get_binary " + kEth1List + "[1]/mac", -1, "broken");
     },
     0,
     Loaded({Enable("eth1"), "SendIpSpoofing eth1 true", AddLog("[eth1] ip[10.0.0.1] vlan[1]"),
             "SendAddEntry eth1 10.0.0.1 vlan 1 mac 02:00:00:00:00:01",
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kEth1List + "[1]", "address"),
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kEth1List + "[1]", "vlan"), "fault 0 GetMacFromConfd: broken\n",
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kEth1List + "[1]", "mac"), AddLog("[eth1] ip[0.0.0.0] vlan[0]"),
             "SendAddEntry eth1 0.0.0.0 vlan 0 mac 00:00:00:00:00:00", Omitting("eth1")})},
    {"RootThatExistsWithoutInterfaces", [] { fakes::TheScript().Return("cdb_exists /config/anti-ip-spoofing", 1); }, 0,
     Loaded({})},
    {"NameThatCannotBeReadIsEmpty",
     [] {
       PutInterfaces({"eth1", "eth2"});
       fakes::TheScript().Return("cdb_get_str " + kList + "[0]/interface-name", -1, "no string");
     },
     0,
     Loaded(
         Join({{LoadFault("LoadConfdIpSpoofAllowedIfaces", kList + "[0]", "interface-name"), NoRules(""), Omitting("")},
               Bare("eth2")}))},
    {"AnyNumberButZeroIsAFailedRead",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1") + "/mac", "02:00:00:00:00:01");
       for (const char* read : {"cdb_get_str", "cdb_get_ipv4", "cdb_get_int32", "cdb_get_binary"}) {
         fakes::TheScript().Return(read, 1, "odd");
       }
       fakes::TheScript().Return("cdb_exists " + kList + "{\"\"}/allowed-ip/ipv4", 1);
       fakes::TheScript().Return("cdb_num_instances " + kList + "{\"\"}/allowed-ip/ipv4", 1);
       for (const char* leaf : {"/address", "/vlan", "/mac"}) {
         fakes::TheScript().Return("cdb_exists " + kList + "{\"\"}/allowed-ip/ipv4[0]" + leaf, 1);
       }
     },
     0,
     Loaded({LoadFault("LoadConfdIpSpoofAllowedIfaces", kList + "[0]", "interface-name"),
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kList + "{\"\"}/allowed-ip/ipv4[0]", "address"),
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kList + "{\"\"}/allowed-ip/ipv4[0]", "vlan"),
             "fault 0 GetMacFromConfd: odd\n",
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kList + "{\"\"}/allowed-ip/ipv4[0]", "mac"),
             AddLog("[] ip[0.0.0.0] vlan[0]"), "SendAddEntry (no interface) 0.0.0.0 vlan 0 mac 00:00:00:00:00:00",
             Omitting("")})},
    {"SecondOfThreeFails",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1"));
       Put(Ipv4("eth2", "10.0.0.2 2"));
       Put(Iface("eth2") + "/allowed-ip/all");
       Put(Ipv4("eth3", "10.0.0.3 3"));
       fakes::TheScript().Return("cdb_num_instances " + kList + "{\"eth2\"}/allowed-ip/ipv4", -2);
     },
     -1,
     NotLoaded({Enable("eth1"), "SendIpSpoofing eth1 true", AddLog("[eth1] ip[10.0.0.1] vlan[1]"),
                "SendAddEntry eth1 10.0.0.1 vlan 1 mac 00:00:00:00:00:00", Omitting("eth1"), Enable("eth2"),
                "SendIpSpoofing eth2 true", kNoNumber})},
    {"ListTestThatFailsIsAbsence",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1"));
       fakes::TheScript().Return("cdb_exists " + kEth1List, -1);
     },
     0, Loaded(Bare("eth1"))},
    {"ListThatIsNeitherPresentNorAbsentIsAbsent",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1"));
       fakes::TheScript().Return("cdb_exists " + kEth1List, 2);
     },
     0, Loaded(Bare("eth1"))},
    {"ListThatExistsWithoutEntries",
     [] {
       PutInterfaces({"eth1"});
       fakes::TheScript().Return("cdb_exists " + kEth1List, 1);
     },
     0, Loaded({Enable("eth1"), "SendIpSpoofing eth1 true", Omitting("eth1")})},
    {"FailedReadsOfAnEntryAreFaultsAndItIsSentAllTheSame",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 1") + "/mac", "02:00:00:00:00:01");
       Put(Ipv4("eth1", "10.0.0.2 2") + "/mac", "02:00:00:00:00:02");
       for (const char* read : {"cdb_get_ipv4 ", "cdb_get_int32 ", "cdb_get_binary "}) {
         const std::string leaf = read[8] == 'i' && read[9] == 'p' ? "/address" : read[8] == 'i' ? "/vlan" : "/mac";
         fakes::TheScript().Return(read + kEth1List + "[0]" + leaf, -1, "broken " + leaf);
       }
     },
     0,
     Loaded({Enable("eth1"), "SendIpSpoofing eth1 true",
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kEth1List + "[0]", "address"),
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kEth1List + "[0]", "vlan"),
             "fault 0 GetMacFromConfd: broken /mac\n",
             LoadFault("LoadConfdIpSpoofAllowedIpIPv4", kEth1List + "[0]", "mac"), AddLog("[eth1] ip[0.0.0.0] vlan[0]"),
             "SendAddEntry eth1 0.0.0.0 vlan 0 mac 00:00:00:00:00:00", AddLog("[eth1] ip[10.0.0.2] vlan[2]"),
             "SendAddEntry eth1 10.0.0.2 vlan 2 mac 02:00:00:00:00:02", Omitting("eth1")})},
};
INSTANTIATE_TEST_SUITE_P(Failures, Load, testing::ValuesIn(kFailures), [](const auto& row) { return row.param.name; });

const LoadCase kValues[] = {
    {"VlanIsCutToItsLowSixteenBits",
     [] {
       Put(Ipv4("eth1", "10.0.0.1 70000"));
       Put(Ipv4("eth1", "10.0.0.2 -1"));
     },
     0,
     Loaded({Enable("eth1"), "SendIpSpoofing eth1 true", AddLog("[eth1] ip[10.0.0.1] vlan[4464]"),
             "SendAddEntry eth1 10.0.0.1 vlan 4464 mac 00:00:00:00:00:00", AddLog("[eth1] ip[10.0.0.2] vlan[65535]"),
             "SendAddEntry eth1 10.0.0.2 vlan 65535 mac 00:00:00:00:00:00", Omitting("eth1")})},
    // The list's path is a format, the paths of the allow-all leaves are arguments of one.
    {"PercentSignInANameIsAConversion",
     [] {
       Put(Ipv4("a%sb", "10.0.0.1 1"));
       Put(Iface("a%sb") + "/allowed-ip/all");
     },
     0,
     Loaded({Enable("a%sb"), "SendIpSpoofing a%sb true", NoRules("a%sb"), AllLog("sending allowedAll[ALL] for[a%sb]"),
             "SendAllowedIpAll a%sb 3"})},
    // So a doubled one names the list of another interface, to the test for existence and to the count.
    {"DoubledPercentSignReadsAnotherList",
     [] {
       PutInterfaces({"a%%b"});
       Put(Ipv4("a%b", "10.0.0.1 1"));
       Put(Ipv4("a%b", "10.0.0.2 2"));
     },
     0,
     Loaded({Enable("a%%b"), "SendIpSpoofing a%%b true", AddLog("[a%%b] ip[10.0.0.1] vlan[1]"),
             "SendAddEntry a%%b 10.0.0.1 vlan 1 mac 00:00:00:00:00:00", AddLog("[a%%b] ip[10.0.0.2] vlan[2]"),
             "SendAddEntry a%%b 10.0.0.2 vlan 2 mac 00:00:00:00:00:00", Omitting("a%%b"),  //
             Enable("a%b"), "SendIpSpoofing a%b true", NoRules("a%b"), Omitting("a%b")})},
    {"DoubledPercentSignCountsAnotherList",
     [] {
       Put(Ipv4("a%%b", "10.0.0.9 9"));
       Put(Ipv4("a%b", "10.0.0.1 1"));
       Put(Ipv4("a%b", "10.0.0.2 2"));
     },
     0,
     Loaded({Enable("a%%b"), "SendIpSpoofing a%%b true", AddLog("[a%%b] ip[10.0.0.1] vlan[1]"),
             "SendAddEntry a%%b 10.0.0.1 vlan 1 mac 00:00:00:00:00:00", AddLog("[a%%b] ip[10.0.0.2] vlan[2]"),
             "SendAddEntry a%%b 10.0.0.2 vlan 2 mac 00:00:00:00:00:00", Omitting("a%%b"),  //
             Enable("a%b"), "SendIpSpoofing a%b true", NoRules("a%b"), Omitting("a%b")})},
    {"QuoteInANameIsNotEscaped",
     [] {
       Put("/config/anti-ip-spoofing/interface{\"a\\\"b\"}/allowed-ip/ipv4{10.0.0.1 1}");
       Put("/config/anti-ip-spoofing/interface{\"a\\\"b\"}/allowed-ip/all");
     },
     0, Loaded(Bare("a\"b"))},
    {"BraceInANameIsNotEscaped",
     [] {
       Put("/config/anti-ip-spoofing/interface{\"a}b\"}/allowed-ip/ipv4{10.0.0.1 1}");
       Put("/config/anti-ip-spoofing/interface{\"a}b\"}/allowed-ip/all");
     },
     0,
     Loaded({Enable("a}b"), "SendIpSpoofing a}b true", AddLog("[a}b] ip[10.0.0.1] vlan[1]"),
             "SendAddEntry a}b 10.0.0.1 vlan 1 mac 00:00:00:00:00:00", AllLog("sending allowedAll[ALL] for[a}b]"),
             "SendAllowedIpAll a}b 3"})},
    {"NameIsCutBehind63Characters", [] { PutInterfaces({std::string(70, 'n')}); }, 0,
     Loaded(Bare(std::string(63, 'n')))},
    // Room behind the record's six bytes: a longer value does not spill over.
    {"LongMacKeepsItsFirstSixBytes",
     [] { Put(Ipv4("eth1", "10.0.0.1 1") + "/mac", "01:02:03:04:05:06:07:08:09:0a:0b:0c:0d:0e:0f:10:11:12"); }, 0,
     Loaded({Enable("eth1"), "SendIpSpoofing eth1 true", AddLog("[eth1] ip[10.0.0.1] vlan[1]"),
             "SendAddEntry eth1 10.0.0.1 vlan 1 mac 01:02:03:04:05:06", Omitting("eth1")})},
};
INSTANTIATE_TEST_SUITE_P(Values, Load, testing::ValuesIn(kValues), [](const auto& row) { return row.param.name; });

using LoadReads = DaemonTest;

/// The calls that ask for an interface's name and type.
Lines InterfaceReads(const std::string& position, const std::string& name, limid_type type) {
  const std::string leaf = kList + position + "/interface-name";
  return {"cdb_set_timeout running 5",
          "cdb_exists running " + leaf + " = 1",
          "cdb_get_str running " + leaf + " = 0",
          "limid_from_intfname " + name,
          "limid_to_type " + name,
          "limid_type_compare " + std::to_string(type) + " " + std::to_string(limid_type_serviceport)};
}

/// The calls that read one entry of the list at `path`, up to its request.
Lines EntryReads(const std::string& path, const std::string& name, bool with_mac, const std::string& request) {
  Lines lines = {"cdb_set_timeout running 5",
                 "cdb_exists running " + path + "/address = 1",
                 "cdb_get_ipv4 running " + path + "/address = 0",
                 "cdb_exists running " + path + "/vlan = 1",
                 "cdb_get_int32 running " + path + "/vlan = 0",
                 "cdb_exists running " + path + "/mac = " + (with_mac ? "1" : "0")};
  if (with_mac) lines.push_back("cdb_get_binary running " + path + "/mac = 0");
  lines.push_back("limid_from_intfname " + name);
  lines.push_back(request);
  return lines;
}

/// The calls that look for allow-all leaves and find none.
Lines AllowAllReads(const std::string& name) {
  const std::string path = kList + "{\"" + name + "\"}/allowed-ip/";
  return {"cdb_set_timeout running 5", "cdb_exists running " + path + "all = 0",
          "cdb_exists running " + path + "ipv6-all = 0", "cdb_exists running " + path + "ipv4-all = 0",
          "limid_from_intfname " + name};
}

TEST_F(LoadReads, AreTheseInThisOrder) {
  ConfDAppMgr& confd = Build({Kind::kRead, Kind::kRequest, Kind::kLimid});
  Put(Ipv4("eth1", "10.0.0.1 100") + "/mac", "02:00:00:00:00:01");
  Put(Ipv4("eth1", "10.0.0.2 200"));
  PutInterfaces({"eth2"});
  fakes::TheLimid().SetType("eth2", limid_type_loopback);
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_EQ(
      TextOf(Taken()),
      TextOf(Join(
          {{"cdb_get_txid running", "cdb_set_namespace running 0x41fef11b",
            "cdb_exists running /config/anti-ip-spoofing = 1", "cdb_num_instances running " + kList + " = 2"},
           InterfaceReads("[0]", "eth1", limid_type_serviceport),
           {"SendIpSpoofing eth1 true", "cdb_exists running " + kEth1List + " = 1",
            "cdb_num_instances running " + kEth1List + " = 2", "limid_from_ifindex 0"},
           EntryReads(kEth1List + "[0]", "eth1", true, "SendAddEntry eth1 10.0.0.1 vlan 100 mac 02:00:00:00:00:01"),
           EntryReads(kEth1List + "[1]", "eth1", false, "SendAddEntry eth1 10.0.0.2 vlan 200 mac 00:00:00:00:00:00"),
           AllowAllReads("eth1"),
           InterfaceReads("[1]", "eth2", limid_type_loopback),
           {"cdb_exists running " + kList + "{\"eth2\"}/allowed-ip/ipv4 = 0"},
           AllowAllReads("eth2")})));
}

TEST_F(LoadReads, EveryEntryIsReadAtItsPosition) {
  ConfDAppMgr& confd = Build({Kind::kRead, Kind::kRequest});
  constexpr int kEntries = 40;
  for (int i = 0; i < kEntries; ++i) Put(Ipv4("eth1", "10.0.1." + std::to_string(i) + " 5"));
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  Lines reads;
  Lines requests;
  for (const std::string& line : Taken()) {
    if (line.starts_with("cdb_get_ipv4")) reads.push_back(line);
    if (line.starts_with("SendAddEntry")) requests.push_back(line);
  }
  Lines wanted_reads;
  Lines wanted_requests;
  for (int i = 0; i < kEntries; ++i) {
    const std::string position = std::to_string(i);
    wanted_reads.push_back("cdb_get_ipv4 running " + kEth1List + "[" + position + "]/address = 0");
    wanted_requests.push_back("SendAddEntry eth1 10.0.1." + position + " vlan 5 mac 00:00:00:00:00:00");
  }
  EXPECT_EQ(reads, wanted_reads);
  EXPECT_EQ(requests, wanted_requests);
}

TEST_F(LoadReads, SendEveryEntryWhateverTheHardwareHolds) {
  fakes::TheFilters().resources = {{0, 2, 2, 1}};
  ConfDAppMgr& confd = Build({Kind::kRequest});
  Put(Ipv4("eth1", "10.0.0.1 1"));
  Put(Ipv4("eth1", "10.0.0.2 2"));
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_EQ(Taken(), (Lines{"SendIpSpoofing eth1 true", "SendAddEntry eth1 10.0.0.1 vlan 1 mac 00:00:00:00:00:00",
                            "SendAddEntry eth1 10.0.0.2 vlan 2 mac 00:00:00:00:00:00"}));
}

struct FatalCase {
  std::string name;
  std::function<void()> prepare;
  Lines dump;
};

class LoadFatal : public DaemonTest, public testing::WithParamInterface<FatalCase> {};

TEST_P(LoadFatal, EndsTheProcess) {
  ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kLog, Kind::kFault});
  fakes::TheZlog().detail_enabled = false;
  Put(Ipv4("eth1", "10.0.0.1 1"));
  GetParam().prepare();
  EXPECT_EXIT(
      {
        fakes::Trace::DumpAtExit();
        confd.LoadConfDCfg(false);
      },
      testing::ExitedWithCode(1), DiesWith(GetParam().dump));
}

FatalCase MissingLeaf(const std::string& name, const std::string& path, int exists) {
  Lines dump;
  if (exists == -2) dump.push_back("log 12 GetFromConfd: path[" + path + "] socket error[-2] connection lost");
  dump.insert(dump.end(), {"backtrace", "fault 1 GetFromConfd: GetFromConfd error[" + std::to_string(exists) +
                                            "] reading leaf: " + path});
  return {name, [=] { fakes::TheScript().Return("cdb_exists " + path, exists, "connection lost"); }, dump};
}

INSTANTIATE_TEST_SUITE_P(All, LoadFatal,
                         testing::Values(MissingLeaf("NameMissing", kList + "[0]/interface-name", 0),
                                         MissingLeaf("NameTestFails", kList + "[0]/interface-name", -1),
                                         MissingLeaf("NameTestLosesTheSocket", kList + "[0]/interface-name", -2),
                                         MissingLeaf("AddressMissing", kEth1List + "[0]/address", 0),
                                         MissingLeaf("VlanMissing", kEth1List + "[0]/vlan", 0),
                                         MissingLeaf("MacTestFails", kEth1List + "[0]/mac", -1),
                                         MissingLeaf("MacTestLosesTheSocket", kEth1List + "[0]/mac", -2)),
                         [](const auto& row) { return row.param.name; });

using LoadFaults = DaemonTest;

TEST_F(LoadFaults, NameTheFileOfTheLoader) {
  ConfDAppMgr& confd = Build({Kind::kFault});
  Put(Ipv4("eth1", "10.0.0.1 1") + "/mac", "02:00:00:00:00:01");
  for (const char* read : {"cdb_get_ipv4", "cdb_get_int32", "cdb_get_binary"}) fakes::TheScript().Return(read, -1);
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  std::vector<std::string> files;
  for (const fakes::Fault& fault : fakes::TheMiddleware().faults) files.push_back(fault.file);
  EXPECT_THAT(files, testing::ElementsAre("src/app/confd_mgr/load.cpp", "src/app/confd_mgr/load.cpp",
                                          "src/app/confd_mgr/leaf_readers.cpp", "src/app/confd_mgr/load.cpp"));
}

using LoadLogging = DaemonTest;

TEST_F(LoadLogging, DisabledDetailIsNotFormattedAndChangesNoRequest) {
  ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kLog});
  fakes::TheZlog().detail_enabled = false;
  Put(Ipv4("eth1", "10.0.0.1 100"));
  PutInterfaces({"eth2"});
  EXPECT_EQ(confd.LoadConfDCfg(false), 0);
  EXPECT_EQ(Taken(), (Lines{"SendIpSpoofing eth1 true", "SendAddEntry eth1 10.0.0.1 vlan 100 mac 00:00:00:00:00:00",
                            Omitting("eth1"), "SendIpSpoofing eth2 true", Omitting("eth2"), kDone}));
  EXPECT_EQ(fakes::TheZlog().detail_lines_while_disabled, 0);
  EXPECT_THAT(fakes::TheZlog().asked_levels, testing::Each(10));
}

}  // namespace
}  // namespace ip_spoofing_app
