#include "data_path.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

constexpr std::string_view kText = R"(<config xmlns="urn:a">
<top>
<interface>
<name>eth0</name>
</interface>
<interface>
<name>a]b</name>
<ipv4>
<address>10.0.0.1</address><vlan>1</vlan></ipv4>
<ipv4>
<address>10.0.0.1</address><vlan>2</vlan></ipv4>
<tag>x</tag>
<tag>y</tag>
</interface>
</top>
</config>)";

struct PathCase {
  std::string name;
  std::string path;
  std::optional<unsigned> line;
};
void PrintTo(const PathCase& row, std::ostream* out) { *out << row.name; }

class DataPath : public testing::TestWithParam<PathCase> {};

TEST_P(DataPath, IsFoundInTheText) {
  const auto document = netconf::XmlDocument::Parse(kText);
  ASSERT_TRUE(document.ok()) << document.error().Text();
  EXPECT_EQ(LineOfData(document.value()->root(), GetParam().path), GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, DataPath,
    testing::Values(PathCase{"Top", "/a:config", 1}, PathCase{"NoPrefix", "/config/top", 2},
                    PathCase{"PrefixOnEveryStep", "/a:config/a:top/a:interface[a:name='eth0']", 3},
                    PathCase{"KeyWithABracket", "/a:config/top/interface[name='a]b']", 6},
                    PathCase{"DoubleQuotes", "/a:config/top/interface[name=\"a]b\"]/name", 7},
                    PathCase{"BlanksInThePredicate", "/a:config/top/interface[ name = 'a]b' ]", 6},
                    PathCase{"TwoKeys", "/a:config/top/interface[name='a]b']/ipv4[address='10.0.0.1'][vlan='2']", 10},
                    PathCase{"LeafOfTwoKeys",
                             "/a:config/top/interface[name='a]b']/ipv4[address='10.0.0.1'][vlan='2']/vlan", 11},
                    PathCase{"Position", "/a:config/top/interface[2]/ipv4[2]", 10},
                    PathCase{"LeafListValue", "/a:config/top/interface[name='a]b']/tag[.='y']", 13},
                    PathCase{"MissingLeafGivesItsParent", "/a:config/top/interface[name='eth0']/mac", 3},
                    PathCase{"MissingEntryGivesItsParent", "/a:config/top/interface[name='eth9']/name", 2},
                    PathCase{"AnotherTop", "/b:other/top", std::nullopt}, PathCase{"Empty", "", std::nullopt},
                    PathCase{"NoSlash", "config", std::nullopt},
                    PathCase{"PredicateThatDoesNotEnd", "/config/top/interface[name='eth0", 2}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cli
