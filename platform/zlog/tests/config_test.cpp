#include "config.h"

#include <gmock/gmock.h>
#include <syslog.h>

namespace zlog_impl {
namespace {

const std::string kLevelLines = "[levels]\nLOG_DETAIL = 10, LOG_DEBUG\nLOG_INFO = 11, LOG_INFO\nLOG_ERROR = 12\n";

/// The one rule of a configuration that has it as its last line.
Rule RuleOf(const std::string& line) {
  const auto config = ParseConfig(kLevelLines + "[formats]\nplain = \"%m\"\n[rules]\n" + line, "zlog.conf");
  EXPECT_TRUE(config) << config.error().Text();
  return config ? config.value().rules.at(0) : Rule{};
}

struct SelectorCase {
  std::string selector;
  std::vector<std::string> wanted;
  std::vector<std::string> unwanted;
  std::vector<int> written;
  std::vector<int> unwritten;
};
class Selector : public testing::TestWithParam<SelectorCase> {};

TEST_P(Selector, PicksTheseCategoriesAndLevels) {
  const Rule rule = RuleOf(GetParam().selector + " >stderr");
  for (const auto& name : GetParam().wanted) EXPECT_TRUE(rule.Wants(name)) << name;
  for (const auto& name : GetParam().unwanted) EXPECT_FALSE(rule.Wants(name)) << name;
  for (const int level : GetParam().written) EXPECT_TRUE(rule.Writes(level)) << level;
  for (const int level : GetParam().unwritten) EXPECT_FALSE(rule.Writes(level)) << level;
}

INSTANTIATE_TEST_SUITE_P(Selectors, Selector,
                         testing::Values(SelectorCase{"app.*", {"app"}, {"apps", "ap", "other"}, {1, 10, 12, 253}, {}},
                                         SelectorCase{"app.LOG_INFO", {"app"}, {}, {11, 12, 20}, {1, 10}},
                                         SelectorCase{"app.log_info", {"app"}, {}, {11, 12, 20}, {1, 10}},
                                         SelectorCase{"app.=LOG_INFO", {"app"}, {}, {11}, {10, 12, 20}},
                                         SelectorCase{"app.!LOG_INFO", {"app"}, {}, {10, 12, 20}, {11}},
                                         SelectorCase{"app.WARN", {"app"}, {}, {80, 100}, {12, 60}},
                                         SelectorCase{"*.*", {"app", "x"}, {}, {10}, {}},
                                         SelectorCase{"app_.*", {"app", "app_", "app_one"}, {"apple", "ap"}, {10}, {}},
                                         SelectorCase{"!.*", {}, {"app"}, {10}, {}}));

TEST(Output, FileWithEveryOption) {
  const Rule rule = RuleOf(R"(app.* -"/tmp/a;b.log" , 10MB * 3 ~ "/tmp/a.#s.log" ; plain)");
  EXPECT_EQ(rule.target, Target::kFile);
  EXPECT_TRUE(rule.sync);
  EXPECT_EQ(rule.max_size, 10u << 20);
  EXPECT_EQ(rule.max_archives, 3);
  EXPECT_EQ(rule.archive_name, "/tmp/a.#s.log");
  std::string path, text;
  rule.path.Append({}, {}, path);
  EXPECT_EQ(path, "/tmp/a;b.log");
  Line line;
  line.message = "m";
  rule.format.Append(line, {}, text);
  EXPECT_EQ(text, "m");
}

TEST(Output, FileWithoutOptionsIsNeverRotated) {
  const Rule rule = RuleOf(R"(app.* "a.log")");
  EXPECT_EQ(rule.max_size, 0u);
  EXPECT_FALSE(rule.sync);
}

TEST(Output, SizesAndStreams) {
  EXPECT_EQ(RuleOf(R"(a.* "a", 5k)").max_size, 5u << 10);
  EXPECT_EQ(RuleOf(R"(a.* "a", 7)").max_size, 7u);
  EXPECT_EQ(RuleOf(R"(a.* "a", 1GB*0)").max_size, 1u << 30);
  EXPECT_EQ(RuleOf("a.* >stdout").target, Target::kStandardOutput);
  EXPECT_EQ(RuleOf("a.*\t>stderr").target, Target::kStandardError);
  EXPECT_EQ(RuleOf("a.* > syslog , LOG_LOCAL3").facility, LOG_LOCAL3);
}

TEST(Levels, OwnOnesJoinTheBuiltInOnesAndReplaceThoseOfTheirName) {
  const auto config = ParseConfig("[levels]\nINFO = 11, LOG_NOTICE\nTRACE=5\n", "zlog.conf").value();
  EXPECT_EQ(config.levels.at(11).name, "INFO");
  EXPECT_EQ(config.levels.at(11).syslog_priority, LOG_NOTICE);
  EXPECT_EQ(config.levels.at(5).syslog_priority, LOG_DEBUG);
  EXPECT_FALSE(config.levels.contains(40));
  EXPECT_EQ(config.levels.at(100).name, "ERROR");
}

TEST(Global, SettingsAreTaken) {
  const auto config =
      ParseConfig(
          "[global]\nstrict init = false\nbuffer min = 1024\nbuffer max = 4KB\nfile perms = 644\nfsync period = 2K\n"
          "rotate lock file = /tmp/lock\nreload conf period = 0\ndefault format = \"<%m>\"\n[rules]\na.* >stdout\n",
          "zlog.conf")
          .value();
  EXPECT_EQ(config.max_line, 4096u);
  EXPECT_EQ(config.file_mode, 0644u);
  EXPECT_EQ(config.fsync_period, 2048u);
  Line line;
  line.message = "m";
  std::string text;
  config.rules.at(0).format.Append(line, {}, text);
  EXPECT_EQ(text, "<m>");
}

TEST(Lines, CommentsBlankOnesAndContinuationsAreUnderstood) {
  const auto config =
      ParseConfig("# comment\n\n  [rules]  \r\n a.* \\\n   >stderr\r\n  # b.* >stdout\nc.* >stdout", "zlog.conf");
  ASSERT_TRUE(config) << config.error().Text();
  ASSERT_EQ(config.value().rules.size(), 2u);
  EXPECT_EQ(config.value().rules[0].target, Target::kStandardError);
  EXPECT_EQ(config.value().rules[1].category, "c");
}

struct ErrorCase {
  std::string name;
  std::string text;
  std::string error;
};
class ConfigError : public testing::TestWithParam<ErrorCase> {};

TEST_P(ConfigError, NamesThePlaceAndWhatIsWrong) {
  const auto config = ParseConfig(GetParam().text, "zlog.conf");
  ASSERT_FALSE(config);
  EXPECT_EQ(config.error().Text(), "zlog.conf:" + GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Errors, ConfigError,
    testing::Values(
        ErrorCase{"NoSection", "a = b\n", "1: this line is in no section"},
        ErrorCase{"UnknownSection", "\n[rule]\n", "2: unknown section [rule]"},
        ErrorCase{"OpenSection", "[rules\n", "1: expected [section]"},
        ErrorCase{"NoEquals", "[global]\nstrict init\n", "2: expected name = value"},
        ErrorCase{"NoValue", "[formats]\nplain =\n", "2: expected name = value"},
        ErrorCase{"UnknownSetting", "[global]\nstrictinit = true\n", "2: unknown setting 'strictinit'"},
        ErrorCase{"StrictInit", "[global]\nstrict init = yes\n", "2: strict init is true or false"},
        ErrorCase{"FilePerms", "[global]\nfile perms = 888\n", "2: file perms is an octal number up to 777"},
        ErrorCase{"Size", "[global]\nbuffer max = much\n",
                  "2: buffer max is a number with K, M or G after it, if anything"},
        ErrorCase{"Reload", "[global]\nreload conf period = 5\n",
                  "2: reload conf period other than 0 is not supported"},
        ErrorCase{"LevelZero", "[levels]\nA = 0\n", "2: level A is a number from 1 to 253"},
        ErrorCase{"LevelTooHigh", "[levels]\nA = 254\n", "2: level A is a number from 1 to 253"},
        ErrorCase{"LevelText", "[levels]\nA = ten\n", "2: level A is a number from 1 to 253"},
        ErrorCase{"SyslogLevel", "[levels]\nA = 10, LOG_DETAIL\n", "2: unknown syslog level 'LOG_DETAIL'"},
        ErrorCase{"FormatUnquoted", "[formats]\nplain = %m\n", "2: expected a format in double quotes"},
        ErrorCase{"FormatConversion", "[formats]\nplain = \"%y\"\n", "2: unknown conversion '%y'"},
        ErrorCase{"DefaultFormat", "[global]\ndefault format = \"%y\"\n", "2: unknown conversion '%y'"},
        ErrorCase{"RuleWithoutDot", "[rules]\napp >stderr\n", "2: expected category.level, not 'app'"},
        ErrorCase{"RuleCategory", "[rules]\na/b.* >stderr\n", "2: expected category.level, not 'a/b.*'"},
        ErrorCase{"RuleLevel", "[rules]\napp.LOG_DETAIL >stderr\n", "2: unknown level 'LOG_DETAIL'"},
        ErrorCase{"RuleWithoutOutput", "[rules]\napp.*\n", "2: expected an output"},
        ErrorCase{"RuleStream", "[rules]\napp.* >stdlog\n", "2: unknown output '>stdlog'"},
        ErrorCase{"RuleStreamOption", "[rules]\napp.* >stdout, 5\n", "2: >stdout takes no option"},
        ErrorCase{"RuleSyslog", "[rules]\napp.* >syslog\n", "2: >syslog wants a facility, as in '>syslog, LOG_DAEMON'"},
        ErrorCase{"RulePipe", "[rules]\napp.* | cat\n", "2: unknown output '| cat'"},
        ErrorCase{"RuleRecord", "[rules]\napp.* $record\n", "2: unknown output '$record'"},
        ErrorCase{"RuleFormat", "[rules]\napp.* >stderr; fancy\n", "2: unknown format 'fancy'"},
        ErrorCase{"RuleFormatMissing", "[rules]\napp.* >stderr;\n", "2: expected the name of a format after ';'"},
        ErrorCase{"FileOpenQuote", "[rules]\napp.* \"a.log\n", "2: expected a file name in double quotes"},
        ErrorCase{"FileEmpty", "[rules]\napp.* \"\"\n", "2: expected a file name in double quotes"},
        ErrorCase{"FileRest", "[rules]\napp.* \"a.log\" 10MB\n", "2: unexpected '10MB'"},
        ErrorCase{"FileSize", "[rules]\napp.* \"a.log\", big\n", "2: expected a file size, as in 10MB * 3"},
        ErrorCase{"FileSizeZero", "[rules]\napp.* \"a.log\", 0\n", "2: expected a file size, as in 10MB * 3"},
        ErrorCase{"FileCount", "[rules]\napp.* \"a.log\", 1M * x\n", "2: expected a number of files, as in 10MB * 3"},
        ErrorCase{"FileArchiveMark", "[rules]\napp.* \"a.log\", 1M ~ \"b.log\"\n",
                  "2: a rotated file's name has #r or #s in it"},
        ErrorCase{"FileArchiveConversion", "[rules]\napp.* \"a.log\", 1M ~ \"%c.#r\"\n",
                  "2: a rotated file's name has no conversions other than %E(NAME)"},
        ErrorCase{"AfterAContinuation", "[rules]\na.* \\\n >stderr\nb.* |\n", "4: unknown output '|'"}),
    [](const auto& row) { return row.param.name; });

TEST(ReadConfigTest, AMissingFileIsNamed) {
  EXPECT_EQ(ReadConfig("/nonexistent/zlog.conf").error().Text(),
            "open /nonexistent/zlog.conf: No such file or directory");
}

TEST(ReadConfigTest, TheFileThatIsInstalledHasTheElementsLevels) {
  const auto config = ReadConfig(PACKAGED_ZLOG_CONF);
  ASSERT_TRUE(config) << config.error().Text();
  EXPECT_EQ(config.value().levels.at(10).name, "LOG_DETAIL");
  EXPECT_EQ(config.value().levels.at(11).name, "LOG_INFO");
  EXPECT_EQ(config.value().levels.at(12).name, "LOG_ERROR");
  EXPECT_EQ(config.value().levels.at(12).syslog_priority, LOG_ERR);
  const Rule& rule = config.value().rules.at(0);
  EXPECT_EQ(rule.target, Target::kStandardError) << "standard output belongs to the program";
  EXPECT_TRUE(rule.Wants("ip-spoofing-app"));
  EXPECT_FALSE(rule.Writes(10));
  EXPECT_TRUE(rule.Writes(11));
  EXPECT_TRUE(rule.Writes(12));
}

}  // namespace
}  // namespace zlog_impl
