// A real server that is started with another version of its data model: what the operator configured is carried over
// whole, or the start is refused and the database left as it is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "cdbd_process.h"

namespace cdbd::test {
namespace {

namespace fs = std::filesystem;

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream{path}.rdbuf();
  return text.str();
}

struct Change {
  std::string from;
  std::string to;
};

/// The modules of the product in a directory of their own, with changes in the operator's one.
class Models final {
 public:
  Models(const std::string& directory, const std::vector<Change>& changes) : directory_{directory} {
    fs::create_directories(directory);
    for (const auto& entry : fs::directory_iterator{CDBD_MODELS_DIR})
      if (entry.path().extension() == ".yang") fs::copy(entry.path(), directory_ / entry.path().filename());
    const fs::path file = directory_ / "anti-ip-spoofing.yang";
    std::string module = ReadFile(file);
    for (const Change& change : changes) {
      const size_t at = module.find(change.from);
      if (at == std::string::npos) throw std::runtime_error("the model has no " + change.from);
      module.replace(at, change.from.size(), change.to);
    }
    std::ofstream{file} << module;
  }
  [[nodiscard]] std::string directory() const { return directory_; }

 private:
  fs::path directory_;
};

const std::string kEntry =
    "<interface><interface-name>eth0</interface-name><allowed-ip><all/><ipv4-all/><ipv4><address>192.0.2.1</address>"
    "<vlan>200</vlan><mac>00:1b:21:aa:00:ff</mac></ipv4></allowed-ip></interface>"
    "<interface><interface-name>eth1</interface-name></interface>";

struct UpgradeCase {
  std::string name;
  std::vector<Change> changes;
  std::string refused;  ///< what the line says after the path of the database; empty: carried over
};
void PrintTo(const UpgradeCase& row, std::ostream* out) { *out << row.name; }

class Upgrade : public testing::TestWithParam<UpgradeCase> {};

TEST_P(Upgrade, KeepsTheConfigurationOrLeavesIt) {
  CdbdProcess server;
  server.Start();
  ASSERT_TRUE(IsOk(server.Connect().EditConfig(AntiSpoofing(kEntry))));
  const std::string before = server.Connect().GetConfig();
  ASSERT_EQ(before, AntiSpoofing(kEntry));
  ASSERT_EQ(server.Stop(), 0);
  const std::string file = server.StateDir() + "/cdb/data.mdb";
  const std::string bytes = ReadFile(file);
  const std::string log = server.Log();

  const Models changed{server.root() + "/models", GetParam().changes};
  server.SetModels(changed.directory());
  if (!GetParam().refused.empty()) {
    EXPECT_EQ(server.RunToEnd(), 1);
    EXPECT_EQ(server.Log().substr(log.size()), "cdbd: open configuration store " + server.StateDir() +
                                                   "/cdb: " + GetParam().refused + "; nothing was changed\n");
    EXPECT_EQ(ReadFile(file), bytes);
    server.SetModels(CDBD_MODELS_DIR);
  }
  server.Start();
  EXPECT_EQ(server.Connect().GetConfig(), before);
  EXPECT_TRUE(IsOk(server.Connect().EditConfig(Interfaces({"eth2"}))));
  EXPECT_EQ(server.Stop(), 0);
}

const Change kListGrows{"list interface {\n        key \"interface-name\";",
                        "leaf note { type string; }\n list interface {\n key \"interface-name\"; leaf first { type "
                        "string; }"};
const std::string kInterface = "/ais:config/anti-ip-spoofing/interface{eth0}";
const std::string kIpv4 = kInterface + "/allowed-ip/ipv4{192.0.2.1 200}";
const std::string kNotAllowed = "holds what the data model does not allow: ";
const std::string kNotThere = ", which the data model no longer has or stores in another way";

INSTANTIATE_TEST_SUITE_P(
    Start, Upgrade,
    testing::Values(
        UpgradeCase{"Same", {}, ""}, UpgradeCase{"Grown", {kListGrows}, ""},
        UpgradeCase{"WiderRange", {{"range \"0..4094\"", "range \"0..4095\""}}, ""},
        UpgradeCase{"NarrowerRangeThatFits", {{"range \"0..4094\"", "range \"0..200\""}}, ""},
        UpgradeCase{"NarrowerRange",
                    {{"range \"0..4094\"", "range \"0..199\""}},
                    kNotAllowed + kIpv4 + "/vlan: Unsatisfied range - value \"200\" is out of the allowed range."},
        UpgradeCase{
            "NarrowerKey",
            {kListGrows, {"length \"1..15\"", "length \"5..15\""}},
            kNotAllowed + kInterface + "/interface-name: Unsatisfied length - string \"eth0\" length is not allowed."},
        UpgradeCase{"LeafGone",
                    {{"leaf mac {\n              type mac-address;", "leaf hw {\n              type mac-address;"}},
                    "holds " + kIpv4 + "/mac" + kNotThere},
        UpgradeCase{"OtherType",
                    {{"type int32 {\n                range", "type int16 {\n                range"}},
                    "holds " + kIpv4 + kNotThere},
        UpgradeCase{"KeysReordered", {{"key \"address vlan\"", "key \"vlan address\""}}, "holds " + kIpv4 + kNotThere},
        UpgradeCase{"MandatoryLeaf",
                    {{"leaf mac {", "leaf why { type string; mandatory true; }\n leaf mac {"}},
                    kNotAllowed +
                        "/ais:config/ais:anti-ip-spoofing/ais:interface[ais:interface-name='eth0']/ais:allowed-ip/"
                        "ais:ipv4[ais:address='192.0.2.1'][ais:vlan='200']/ais:why: Mandatory node \"why\" instance "
                        "does not exist."},
        UpgradeCase{"Must",
                    {{"leaf all {", "leaf all { must \"not(../ipv4)\";"}},
                    kNotAllowed +
                        "/ais:config/ais:anti-ip-spoofing/ais:interface[ais:interface-name='eth0']/ais:allowed-ip/"
                        "ais:all: Must condition \"not(../ipv4)\" not satisfied."},
        UpgradeCase{
            "BothCasesOfAChoice",
            {{"leaf all {", "choice which { leaf all {"}, {"leaf ipv6-all {", "} leaf ipv6-all {"}},
            kNotAllowed + kInterface + "/allowed-ip/all: \"ipv4-all\" of another case of its choice is there too"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cdbd::test
